#include "bench/system/TempTree.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace SystemBench {

TempTree::TempTree(std::string const& label, std::string const& base) {
  char const* tmp = getenv("TMPDIR");
  std::string const under = !base.empty() ? base : tmp && *tmp ? tmp : "/tmp";
  std::string pattern = under + "/filerep-bench-" + label + "-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp " + pattern + ": " + std::strerror(errno));
  path_ = pattern;
}

TempTree::~TempTree() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> TempTree::filesIs(std::string const& under, int dirs, int filesPerDir, bool create) {
  std::vector<std::string> files;
  files.reserve(std::size_t(dirs) * std::size_t(filesPerDir));
  for (int d = 0; d < dirs; ++d) {
    char dir[32];
    std::snprintf(dir, sizeof dir, "/d%03d", d);
    std::string const dirPath = *this / under + dir;
    std::filesystem::create_directories(dirPath);
    for (int f = 0; f < filesPerDir; ++f) {
      char name[32];
      std::snprintf(name, sizeof name, "/file-%05d.dat", d * filesPerDir + f);
      files.push_back(dirPath + name);
      if (create) writeFile(files.back(), "0");
    }
  }
  return files;
}

void writeFile(std::string const& path, std::string const& text) {
  int const fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("open " + path + ": " + std::strerror(errno));
  bool const ok = write(fd, text.data(), text.size()) == ssize_t(text.size());
  close(fd);
  if (!ok) throw std::runtime_error("write " + path + ": " + std::strerror(errno));
}

}  // namespace SystemBench
