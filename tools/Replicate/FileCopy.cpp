#include "tools/Replicate/FileCopy.h"

#include <sys/stat.h>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/ChildStatus.h"
#include "tools/Replicate/Printable.h"
#include "tools/Replicate/RemoteShell.h"
#include "tools/Replicate/Report.h"
#include "tools/Replicate/RsyncCommand.h"

namespace Replicate {

namespace {

// rsync's wait status; a copy that failed while the source changed under
// it is run again, a few times.
int copyWhileChanging(const std::string& rsync, const std::vector<std::string>& arguments, const std::string& source,
                      SourceState& state) {
  int status = runChild(rsync, arguments);
  for (int retry = 0; retry < retriesWhileChanging && partialTransfer(status) && sourceChanged(source, state); ++retry) {
    status = runChild(rsync, arguments);
  }
  return status;
}

}  // namespace

bool copyFile(const CommandLine& line) {
  const std::string rsync = findRsync();
  SourceState source = checkSource(line.source);
  std::vector<std::string> arguments = rsyncArguments(line.rsyncOptions);

  if (line.remoteHosts.empty()) {
    // rsync would put the file inside the directory and call it done.
    if (struct stat target {}; stat(line.target.c_str(), &target) == 0 && S_ISDIR(target.st_mode)) {
      report("target " + printable(line.target) + " is a directory");
      return false;
    }
    if (const std::string parent = parentOf(line.target); !parent.empty()) makeDirectories(parent);
    arguments.insert(arguments.end(), {"--", localPathForRsync(line.source), localPathForRsync(line.target)});
    const int status = copyWhileChanging(rsync, arguments, line.source, source);
    if (succeeded(status)) return true;
    report(describeRsyncFailure(status));
    return false;
  }

  const RemoteShell shell = RemoteShell::fromEnvironment();
  addRemoteOptions(arguments, shell);
  arguments.insert(arguments.end(), {"--", localPathForRsync(line.source)});
  bool allSucceeded = true;
  for (const HostAddress& host : line.remoteHosts) {
    shell.shareConnectionTo(host);
    arguments.push_back(host.rsyncDestination(line.target));
    const int status = copyWhileChanging(rsync, arguments, line.source, source);
    arguments.pop_back();
    if (!succeeded(status)) {
      report("host " + host.text() + ": " + describeRsyncFailure(status));
      allSucceeded = false;
    }
  }
  return allSucceeded;
}

}  // namespace Replicate
