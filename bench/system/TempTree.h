#pragma once

#include <string>
#include <vector>

namespace SystemBench {

// A temporary directory, removed with everything in it on destruction.
class TempTree {
 public:
  // Under base, or else under $TMPDIR or /tmp.
  explicit TempTree(std::string const& label, std::string const& base = "");
  ~TempTree();
  TempTree(TempTree const&) = delete;
  TempTree& operator=(TempTree const&) = delete;

  std::string const& path() const { return path_; }
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }

  // Makes dirs directories of filesPerDir files each, holding a byte each
  // when create is set (otherwise only the directories exist), and returns
  // the files' paths, directory by directory.
  std::vector<std::string> filesIs(std::string const& under, int dirs, int filesPerDir, bool create);

 private:
  std::string path_;
};

void writeFile(std::string const& path, std::string const& text);

}  // namespace SystemBench
