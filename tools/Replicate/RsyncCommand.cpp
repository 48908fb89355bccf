#include "tools/Replicate/RsyncCommand.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/Printable.h"

namespace Replicate {

std::string findRsync() {
  std::string rsync = findOnPath("rsync");
  if (rsync.empty()) throw std::runtime_error("rsync not found on PATH");
  return rsync;
}

std::vector<std::string> rsyncArguments(const std::vector<std::string>& options) {
  std::vector<std::string> arguments = {"rsync"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  // The quick check on size and modification time would miss a file
  // changed twice within one second at the same size; the delta transfer
  // still sends only what differs.
  arguments.push_back("--ignore-times");
  // A source that is a symbolic link stands for what it points to: the link
  // itself would dangle on a host without its target.
  arguments.push_back("--copy-links");
  return arguments;
}

void addRemoteOptions(std::vector<std::string>& arguments, const RemoteShell& shell) {
  // Protected arguments reach the remote rsync through its protocol rather
  // than a remote shell command line, so no name is split or interpreted.
  // No --mkpath, which receivers before 3.2.3 refuse: missing directories
  // are made when a copy fails for want of them.
  arguments.insert(arguments.end(), {"--protect-args", "-e", shell.command()});
}

std::string localPathForRsync(const std::string& path) {
  // rsync takes "name:rest" for a remote file when no '/' comes before the
  // colon; "./" keeps a local name local.
  const size_t colon = path.find(':');
  if (colon != std::string::npos && path.find('/') > colon) return "./" + path;
  return path;
}

std::string parentOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return {};
  const size_t parentEnd = path.find_last_not_of('/', slash);
  if (parentEnd == std::string::npos) return {};
  return path.substr(0, parentEnd + 1);
}

void makeDirectories(const std::string& directory) {
  const auto failure = [&](int error) {
    return std::runtime_error("cannot create directory " + printable(directory) + ": " + std::strerror(error));
  };
  struct stat status {};
  if (stat(directory.c_str(), &status) == 0) {
    if (S_ISDIR(status.st_mode)) return;
    throw failure(ENOTDIR);
  }
  if (errno != ENOENT) throw failure(errno);
  if (const std::string parent = parentOf(directory); !parent.empty()) makeDirectories(parent);
  if (mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) throw failure(errno);
}

namespace {

SourceState stateOf(const struct stat& status) {
  return {status.st_ctim.tv_sec * 1000000000LL + status.st_ctim.tv_nsec, static_cast<long long>(status.st_size)};
}

}  // namespace

SourceState checkSource(const std::string& source) {
  struct stat status {};
  if (stat(source.c_str(), &status) != 0) {
    throw std::runtime_error("source " + printable(source) + ": " + std::strerror(errno));
  }
  if (S_ISDIR(status.st_mode)) throw std::runtime_error("source " + printable(source) + " is a directory");
  return stateOf(status);
}

bool sourceChanged(const std::string& source, SourceState& state) {
  struct stat status {};
  const SourceState now = stat(source.c_str(), &status) == 0 ? stateOf(status) : SourceState{};
  const bool changed = now != state;
  state = now;
  return changed;
}

bool partialTransfer(int waitStatus) {
  return WIFEXITED(waitStatus) && (WEXITSTATUS(waitStatus) == 23 || WEXITSTATUS(waitStatus) == 24);
}

}  // namespace Replicate
