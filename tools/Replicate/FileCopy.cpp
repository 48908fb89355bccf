#include "tools/Replicate/FileCopy.h"

#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <set>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/ChildStatus.h"
#include "tools/Replicate/DirectoriesInTheWay.h"
#include "tools/Replicate/Printable.h"
#include "tools/Replicate/RemoteDirectories.h"
#include "tools/Replicate/RemoteHosts.h"
#include "tools/Replicate/Report.h"
#include "tools/Replicate/RsyncCommand.h"

namespace Replicate {

namespace {

// rsync's end; a copy that failed while the source changed under it is run
// again, a few times. Remote runs keep their stderr to be looked at.
ChildRun copyWhileChanging(const std::string& rsync, const std::vector<std::string>& arguments,
                           const std::string& source, SourceState& state, bool remote) {
  const auto run = [&] {
    return remote ? runCapturingErrors(rsync, arguments) : ChildRun{runChild(rsync, arguments), {}};
  };
  ChildRun copy = run();
  for (int retry = 0; retry < retriesWhileChanging && partialTransfer(copy.status) && sourceChanged(source, state);
       ++retry) {
    copy = run();
  }
  return copy;
}

// The last component of path; empty when it ends in a slash.
std::string baseName(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

// The directory that holds path, as a destination rsync copies into.
std::string directoryOf(const std::string& path) {
  const std::string parent = parentOf(path);
  if (!parent.empty()) return parent + "/";
  return path.front() == '/' ? "/" : "./";
}

}  // namespace

bool copyFile(const CommandLine& line) {
  const std::string rsync = findRsync();
  const SourceState source = checkSource(line.source);
  std::vector<std::string> arguments = rsyncArguments(line.rsyncOptions);

  if (line.remoteHosts.empty()) {
    // rsync would put the file inside the directory and call it done. One
    // that holds no file, as a tree's directory left once a file took its
    // name, makes way.
    if (struct stat target{}; stat(line.target.c_str(), &target) == 0 && S_ISDIR(target.st_mode)) {
      pruneLocalDirectory(line.target);
      if (stat(line.target.c_str(), &target) == 0 && S_ISDIR(target.st_mode)) {
        report("target " + printable(line.target) + " is a directory");
        return false;
      }
    }
    if (const std::string parent = parentOf(line.target); !parent.empty()) makeDirectories(parent);
    arguments.insert(arguments.end(), {"--", localPathForRsync(line.source), localPathForRsync(line.target)});
    SourceState state = source;
    const ChildRun copy = copyWhileChanging(rsync, arguments, line.source, state, false);
    if (succeeded(copy.status)) return true;
    report(describeRsyncFailure(copy.status));
    return false;
  }

  RemoteHosts hosts(line);
  addRemoteOptions(arguments, hosts.shell());
  // Sent into its directory under its own name, the file replaces a
  // directory in its way as rsync replaces any other file, where a target
  // that is a directory would have it copied inside. A file renamed on the
  // way can only be given the target itself.
  const std::string name = baseName(line.target);
  const bool sameName = !name.empty() && name == baseName(line.source);
  if (sameName) {
    const std::string sourcePath = localPathForRsync(line.source);
    std::string directory = sourcePath.substr(0, sourcePath.size() - name.size());
    // "./x" would have rsync say on stdout that it skips "."; "././x" not.
    if (directory.empty()) directory = "./";
    arguments.insert(arguments.end(), {"--relative", "--", directory + "./" + name});
  } else {
    arguments.insert(arguments.end(), {"--", localPathForRsync(line.source)});
  }
  const std::string destination = sameName ? directoryOf(line.target) : line.target;
  return allSucceeded(hosts.forEachHost([&](size_t i) {
    const HostAddress& host = hosts.hosts()[i];
    if (const std::optional<HostOutcome> outcome = hosts.prepare(host)) return *outcome;
    std::vector<std::string> toHost = arguments;
    toHost.push_back(host.rsyncDestination(destination));
    SourceState state = source;
    ChildRun copy = copyWhileChanging(rsync, toHost, line.source, state, true);
    if (!succeeded(copy.status) && missingRemoteDirectory(copy)) {
      if (const auto made =
              makeRemoteDirectories(rsync, line.rsyncOptions, hosts.shell(), host, parentOf(line.target))) {
        copy = succeeded(made->status) ? copyWhileChanging(rsync, toHost, line.source, state, true) : *made;
      }
    }
    if (std::set<std::string> done; !succeeded(copy.status) && !directoriesInTheWay(copy.errors, done).empty()) {
      const ChildRun pruned = pruneRemoteDirectory(rsync, line.rsyncOptions, hosts.shell(), host, line.target);
      if (succeeded(pruned.status)) copy = copyWhileChanging(rsync, toHost, line.source, state, true);
    }

    return hosts.settle(host, copy, RemoteCommand::rsync);
  }));
}

}  // namespace Replicate
