#include "tools/Replicate/FileBatch.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/DestinationBatch.h"
#include "tools/Replicate/Printable.h"
#include "tools/Replicate/RemoteShell.h"
#include "tools/Replicate/Report.h"
#include "tools/Replicate/RsyncCommand.h"
#include "tools/Replicate/UsageError.h"

namespace Replicate {

namespace {

std::runtime_error systemError(const char* what) {
  return std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

// A name must stay below both roots, and rsync must see it as a plain
// relative path: "." and ".." climb out, and "/./" would move the point
// from which rsync recreates the path.
bool isPlainRelativeName(std::string_view name) {
  if (name.empty() || name.front() == '/') return false;
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find('/', start);
    if (end == std::string_view::npos) end = name.size();
    const std::string_view component = name.substr(start, end - start);
    if (component.empty() || component == "." || component == "..") return false;
    start = end + 1;
  }
  return true;
}

std::string withTrailingSlash(const std::string& directory) {
  return directory.back() == '/' ? directory : directory + "/";
}

// The list for one run, as rsync's --files-from=- reads it. A file rather
// than a pipe: the whole list is there before rsync starts, so nobody waits
// on anybody. Each run gets its own, since runs sharing one would share its
// read offset.
class ListFile {
 public:
  ListFile(const std::vector<std::string>& names, const std::vector<size_t>& files)
      : fd_(memfd_create("Replicate-list", MFD_CLOEXEC)) {
    if (fd_ < 0) throw systemError("memfd_create");
    std::string list;
    for (const size_t file : files) {
      list += names[file];
      list.push_back('\0');
    }
    for (size_t written = 0; written < list.size();) {
      const ssize_t count = write(fd_, list.data() + written, list.size() - written);
      if (count < 0 && errno != EINTR) throw fail("writing the list of files");
      if (count > 0) written += static_cast<size_t>(count);
    }
    if (lseek(fd_, 0, SEEK_SET) != 0) throw fail("lseek");
  }
  ~ListFile() { close(fd_); }
  ListFile(const ListFile&) = delete;
  ListFile& operator=(const ListFile&) = delete;

  int fd() const { return fd_; }

 private:
  std::runtime_error fail(const char* what) {
    std::runtime_error error = systemError(what);
    close(fd_);
    return error;
  }

  int fd_;
};

std::vector<DestinationBatch> destinationBatches(const CommandLine& line, const std::vector<size_t>& files,
                                                const RemoteShell* shell,
                                                const std::function<bool(size_t)>& changed) {
  const std::string sourceRoot = localPathForRsync(withTrailingSlash(line.source));
  const std::string targetRoot = withTrailingSlash(line.target);
  std::vector<std::string> arguments = rsyncArguments(line.rsyncOptions);
  // Without --no-implied-dirs, rsync would give every directory on the way
  // to a file the owner and mode of its source at the destination: with
  // roots of "/", those of /etc and /usr.
  arguments.insert(arguments.end(), {"--from0", "--files-from=-", "--no-implied-dirs"});
  std::vector<DestinationBatch> destinations;
  if (line.remoteHosts.empty()) {
    arguments.insert(arguments.end(), {"--", sourceRoot, localPathForRsync(targetRoot)});
    destinations.emplace_back("", std::move(arguments), files, changed);
    return destinations;
  }
  addRemoteOptions(arguments, *shell);
  arguments.insert(arguments.end(), {"--", sourceRoot});
  for (const HostAddress& host : line.remoteHosts) {
    arguments.push_back(host.rsyncDestination(targetRoot));
    destinations.emplace_back("host " + host.text(), arguments, files, changed);
    arguments.pop_back();
  }
  return destinations;
}

void runToTheEnd(DestinationBatch& batch, const std::string& rsync, const std::vector<std::string>& names) {
  while (!batch.done()) {
    const ListFile list(names, batch.nextList());
    // Our stdout is for the outcome of each name.
    batch.finished(runChild(rsync, batch.arguments(), {.input = list.fd(), .outputToStderr = true}), names);
  }
}

}  // namespace

std::vector<std::string> readNameList(int fd) {
  std::string input;
  char buffer[65536];
  for (;;) {
    const ssize_t count = read(fd, buffer, sizeof buffer);
    if (count == 0) break;
    if (count > 0) {
      input.append(buffer, static_cast<size_t>(count));
    } else if (errno != EINTR) {
      throw systemError("reading the list of files");
    }
  }
  if (!input.empty() && input.back() != '\0') throw UsageError("the list of files does not end with a NUL byte");
  std::vector<std::string> names;
  for (size_t start = 0; start < input.size();) {
    const size_t end = input.find('\0', start);
    names.emplace_back(input, start, end - start);
    start = end + 1;
  }
  return names;
}

std::vector<bool> copyFiles(const CommandLine& line, const std::vector<std::string>& names) {
  std::vector<bool> copied(names.size(), true);
  const std::string sourceRoot = withTrailingSlash(line.source);
  std::vector<size_t> files;
  std::vector<SourceState> sources(names.size());
  for (size_t i = 0; i < names.size(); ++i) {
    try {
      if (!isPlainRelativeName(names[i])) {
        throw std::runtime_error("refusing name " + printable(names[i]) +
                                 ": it must be relative, without empty, \".\" or \"..\" components");
      }
      sources[i] = checkSource(sourceRoot + names[i]);
      files.push_back(i);
    } catch (const std::runtime_error& error) {
      report(error.what());
      copied[i] = false;
    }
  }
  if (files.empty()) return copied;

  std::string rsync;
  std::optional<RemoteShell> shell;
  std::vector<DestinationBatch> destinations;
  try {
    rsync = findRsync();
    if (!line.remoteHosts.empty()) shell = RemoteShell::fromEnvironment();
    destinations = destinationBatches(line, files, shell ? &*shell : nullptr,
                                      [&](size_t file) { return sourceChanged(sourceRoot + names[file], sources[file]); });
  } catch (const std::runtime_error& error) {
    report(error.what());
    for (const size_t file : files) copied[file] = false;
    return copied;
  }
  // One destination after the other; no batch depends on another's.
  for (size_t i = 0; i < destinations.size(); ++i) {
    DestinationBatch& destination = destinations[i];
    try {
      if (shell) shell->shareConnectionTo(line.remoteHosts[i]);
      if (line.remoteHosts.empty()) makeDirectories(line.target);
      runToTheEnd(destination, rsync, names);
    } catch (const std::runtime_error& error) {
      destination.abandon(error.what());
    }
    for (const size_t file : destination.failed()) copied[file] = false;
  }
  return copied;
}

}  // namespace Replicate
