#include "tools/Replicate/ControlDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "tools/Replicate/Printable.h"

namespace Replicate {

namespace {

// A socket path holds at most 107 bytes, and ssh adds "/" plus a 40 byte
// hash plus a 17 byte temporary suffix to the directory.
constexpr size_t longestDirectory = 107 - 1 - 40 - 17;

// The directory goes unquoted into the ssh command that rsync splits, and
// ssh expands '%' and '~' in it: only plain characters are safe.
bool usable(std::string_view directory) {
  if (directory.size() > longestDirectory) return false;
  for (const char c : directory) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
                       c == '.' || c == '_' || c == '-';
    if (!plain) return false;
  }
  return true;
}

std::runtime_error failure(const std::string& directory, const std::string& why) {
  return std::runtime_error("control directory " + printable(directory) + ": " + why);
}

}  // namespace

std::string controlDirectory() {
  const uid_t uid = geteuid();
  const std::string name = "/replicate-" + std::to_string(uid);
  const char* runtimeDirectory = std::getenv("XDG_RUNTIME_DIR");
  std::string directory;
  struct stat status {};
  if (runtimeDirectory && runtimeDirectory[0] == '/' && stat(runtimeDirectory, &status) == 0 &&
      S_ISDIR(status.st_mode)) {
    directory = runtimeDirectory + name;
  }
  if (directory.empty() || !usable(directory)) directory = "/tmp" + name;

  const bool created = mkdir(directory.c_str(), 0700) == 0;
  if (!created && errno != EEXIST) throw failure(directory, std::strerror(errno));
  // O_NOFOLLOW: a symbolic link planted by someone else must not be followed.
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) throw failure(directory, std::strerror(errno));
  std::string problem;
  if (fstat(fd, &status) != 0) {
    problem = std::strerror(errno);
  } else if (status.st_uid != uid) {
    problem = "owned by uid " + std::to_string(status.st_uid) + ", not by us; refusing to use it";
  } else if (created) {
    // The umask may have taken bits we need.
    if (fchmod(fd, 0700) != 0) problem = std::strerror(errno);
  } else if ((status.st_mode & 077) != 0) {
    problem = "open to other users; refusing to use it";
  }
  close(fd);
  if (!problem.empty()) throw failure(directory, problem);
  return directory;
}

std::string hostFileName(std::string_view kind, std::string_view host) {
  std::string name(kind);
  name += '-';
  for (const unsigned char c : host) {
    const bool plain = std::isalnum(c) || c == '.' || c == '-' || c == '_' || c == '@';
    if (plain) {
      name += char(c);
    } else {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%%%02x", c);
      name += hex;
    }
  }
  return name;
}

}  // namespace Replicate
