#include "tools/Replicate/FileCopy.h"

#include <sys/stat.h>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/ChildStatus.h"
#include "tools/Replicate/Printable.h"
#include "tools/Replicate/RemoteShell.h"
#include "tools/Replicate/Report.h"
#include "tools/Replicate/RsyncCommand.h"

namespace Replicate {

bool copyFile(const CommandLine& line) {
  const std::string rsync = findRsync();
  checkSource(line.source);
  std::vector<std::string> arguments = rsyncArguments(line.rsyncOptions);

  if (line.remoteHosts.empty()) {
    // rsync would put the file inside the directory and call it done.
    if (struct stat target {}; stat(line.target.c_str(), &target) == 0 && S_ISDIR(target.st_mode)) {
      report("target " + printable(line.target) + " is a directory");
      return false;
    }
    if (const std::string parent = parentOf(line.target); !parent.empty()) makeDirectories(parent);
    arguments.insert(arguments.end(), {"--", localPathForRsync(line.source), localPathForRsync(line.target)});
    const int status = runChild(rsync, arguments);
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
