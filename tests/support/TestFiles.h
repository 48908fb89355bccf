#pragma once

#include <string>

// A fresh directory under /tmp, removed with everything in it at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;

  std::string const& path() const { return path_; }
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void writeFile(std::string const& path, std::string const& content);
// Writes beside and renames over, as editors do, so a reader never sees half.
void replaceFile(std::string const& path, std::string const& content);
// Empty when the file cannot be read.
std::string readFile(std::string const& path);
bool exists(std::string const& path);
