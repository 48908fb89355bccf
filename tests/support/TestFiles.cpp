#include "tests/support/TestFiles.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

TempDir::TempDir() {
  std::string pattern = "/tmp/filerep-test.XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void writeFile(std::string const& path, std::string const& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

void replaceFile(std::string const& path, std::string const& content) {
  writeFile(path + ".new", content);
  std::filesystem::rename(path + ".new", path);
}

std::string readFile(std::string const& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

bool exists(std::string const& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}
