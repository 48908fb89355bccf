#include "tools/Replicate/FileBatch.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/ChildStatus.h"
#include "tools/Replicate/DestinationBatch.h"
#include "tools/Replicate/DirectoriesInTheWay.h"
#include "tools/Replicate/Printable.h"
#include "tools/Replicate/RemoteDirectories.h"
#include "tools/Replicate/RemoteHosts.h"
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
                                                 const RemoteShell* shell, const std::function<bool(size_t)>& changed) {
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

void runToTheEnd(DestinationBatch& batch, const std::string& rsync, const std::vector<std::string>& names,
                 const std::string& targetRoot) {
  std::set<std::string> pruned;
  while (!batch.done()) {
    const ListFile list(names, batch.nextList());
    // Our stdout is for the outcome of each name.
    const ChildRun run = runCapturingErrors(rsync, batch.arguments(), {.input = list.fd(), .outputToStderr = true});
    if (!succeeded(run.status)) {
      const std::vector<std::string> inTheWay = directoriesInTheWay(run.errors, pruned);
      // A name rsync gives is pruned only when it could be one of ours.
      for (const std::string& name : inTheWay) {
        if (isPlainRelativeName(name)) pruneLocalDirectory(targetRoot + name);
      }
      if (!inTheWay.empty()) continue;
    }
    std::fwrite(run.errors.data(), 1, run.errors.size(), stderr);
    batch.finished(run.status, names);
  }
}

// runToTheEnd for a remote host, which also tells what became of the host.
HostOutcome copyToHost(const RemoteHosts& hosts, const HostAddress& host, DestinationBatch& batch,
                       const std::string& rsync, const CommandLine& line, const std::vector<std::string>& names) {
  bool madeDirectories = false;
  std::set<std::string> pruned;
  std::optional<RemoteFailure> last;
  std::optional<RemoteFailure> unreachable;
  while (!batch.done()) {
    const ListFile list(names, batch.nextList());
    const ChildRun run = runCapturingErrors(rsync, batch.arguments(), {.input = list.fd(), .outputToStderr = true});
    if (!succeeded(run.status) && !madeDirectories && missingRemoteDirectory(run)) {
      madeDirectories = true;
      if (const auto made = makeRemoteDirectories(rsync, line.rsyncOptions, hosts.shell(), host, line.target)) {
        if (succeeded(made->status)) continue;
        const std::optional<RemoteFailure> failure = hosts.examine(host, *made, RemoteCommand::rsync);
        batch.abandon(failure->message);
        hosts.record(host, failure);
        return HostOutcome::failed;
      }
    }
    if (!succeeded(run.status)) {
      const std::vector<std::string> inTheWay = directoriesInTheWay(run.errors, pruned);
      for (const std::string& name : inTheWay) {
        if (!isPlainRelativeName(name)) continue;
        pruneRemoteDirectory(rsync, line.rsyncOptions, hosts.shell(), host, withTrailingSlash(line.target) + name);
      }
      if (!inTheWay.empty()) continue;
    }
    const std::optional<RemoteFailure> failure = hosts.examine(host, run, RemoteCommand::rsync);
    batch.finished(run.status, names, failure ? failure->message : std::string());
    if (failure) last = failure;
    if (failure && failure->unreachable) unreachable = failure;
  }
  if (unreachable) {
    hosts.record(host, unreachable);
  } else {
    hosts.record(host, batch.failed().empty() ? std::nullopt : last);
  }
  return batch.failed().empty() ? HostOutcome::succeeded : HostOutcome::failed;
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
  std::optional<RemoteHosts> hosts;
  std::vector<DestinationBatch> destinations;
  try {
    rsync = findRsync();
    if (!line.remoteHosts.empty()) hosts.emplace(line);
    destinations = destinationBatches(line, files, hosts ? &hosts->shell() : nullptr, [&](size_t file) {
      return sourceChanged(sourceRoot + names[file], sources[file]);
    });
  } catch (const std::runtime_error& error) {
    report(error.what());
    for (const size_t file : files) copied[file] = false;
    return copied;
  }
  if (!hosts) {
    DestinationBatch& destination = destinations.front();
    try {
      makeDirectories(line.target);
      runToTheEnd(destination, rsync, names, withTrailingSlash(line.target));
    } catch (const std::runtime_error& error) {
      destination.abandon(error.what());
    }
    for (const size_t file : destination.failed()) copied[file] = false;
    return copied;
  }
  // No batch depends on another's.
  const std::vector<HostOutcome> outcomes = hosts->forEachHost([&](size_t i) {
    const HostAddress& host = hosts->hosts()[i];
    DestinationBatch& destination = destinations[i];
    try {
      if (const std::optional<HostOutcome> outcome = hosts->prepare(host)) {
        if (*outcome == HostOutcome::failed) destination.abandon({});
        return *outcome;
      }
      return copyToHost(*hosts, host, destination, rsync, line, names);
    } catch (const std::runtime_error& error) {
      destination.abandon(error.what());
      return HostOutcome::failed;
    }
  });
  // A file fails when a host that was tried did not get it.
  const bool noneTried =
      std::all_of(outcomes.begin(), outcomes.end(), [](HostOutcome o) { return o == HostOutcome::resting; });
  for (size_t i = 0; i < destinations.size(); ++i) {
    if (outcomes[i] == HostOutcome::failed && !destinations[i].done()) destinations[i].abandon({});
    for (const size_t file : destinations[i].failed()) copied[file] = false;
  }
  if (noneTried) {
    for (const size_t file : files) copied[file] = false;
  }
  return copied;
}

}  // namespace Replicate
