#include "tools/Replicate/FileCopy.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/ChildStatus.h"
#include "tools/Replicate/Printable.h"
#include "tools/Replicate/RemoteDirectories.h"
#include "tools/Replicate/RemoteHosts.h"
#include "tools/Replicate/Report.h"
#include "tools/Replicate/RsyncCommand.h"

namespace Replicate {

namespace {

// Removes directory and the directories below it when none of them holds
// anything but directories, as a tree's directory is left once a file took
// its name; one that holds anything else stays, with those above it.
void pruneLocalDirectory(const std::string& directory) {
  if (DIR* dir = opendir(directory.c_str())) {
    while (const dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      const std::string path = directory + "/" + name;
      struct stat status {};
      if (lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) pruneLocalDirectory(path);
    }
    closedir(dir);
  }
  rmdir(directory.c_str());
}

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
  arguments.insert(arguments.end(), {"--", localPathForRsync(line.source)});
  return allSucceeded(hosts.forEachHost([&](size_t i) {
    const HostAddress& host = hosts.hosts()[i];
    if (const std::optional<HostOutcome> outcome = hosts.prepare(host)) return *outcome;
    std::vector<std::string> toHost = arguments;
    toHost.push_back(host.rsyncDestination(line.target));
    SourceState state = source;
    ChildRun copy = copyWhileChanging(rsync, toHost, line.source, state, true);
    if (!succeeded(copy.status) && missingRemoteDirectory(copy)) {
      if (const auto made =
              makeRemoteDirectories(rsync, line.rsyncOptions, hosts.shell(), host, parentOf(line.target))) {
        copy = succeeded(made->status) ? copyWhileChanging(rsync, toHost, line.source, state, true) : *made;
      }
    }

    return hosts.settle(host, copy, RemoteCommand::rsync);
  }));
}

}  // namespace Replicate
