#include "tools/Replicate/FileCopy.h"

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/ChildStatus.h"
#include "tools/Replicate/RemoteShell.h"
#include "tools/Replicate/Report.h"
#include "tools/Replicate/RsyncCommand.h"

namespace Replicate {

bool copyFile(const CommandLine& line) {
  const std::string rsync = findRsync();
  checkSource(line.source);
  std::vector<std::string> arguments = rsyncArguments(line.rsyncOptions);

  if (line.remoteHosts.empty()) {
    if (const std::string parent = parentOf(line.target); !parent.empty()) makeDirectories(parent);
    arguments.insert(arguments.end(), {"--", localPathForRsync(line.source), localPathForRsync(line.target)});
    const int status = runChild(rsync, arguments);
    if (succeeded(status)) return true;
    report(describeRsyncFailure(status));
    return false;
  }

  addRemoteOptions(arguments, RemoteShell::fromEnvironment());
  arguments.insert(arguments.end(), {"--", localPathForRsync(line.source)});
  bool allSucceeded = true;
  for (const HostAddress& host : line.remoteHosts) {
    arguments.push_back(host.rsyncDestination(line.target));
    const int status = runChild(rsync, arguments);
    arguments.pop_back();
    if (!succeeded(status)) {
      report("host " + host.text() + ": " + describeRsyncFailure(status));
      allSucceeded = false;
    }
  }
  return allSucceeded;
}

}  // namespace Replicate
