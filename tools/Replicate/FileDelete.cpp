#include "tools/Replicate/FileDelete.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/ChildStatus.h"
#include "tools/Replicate/Printable.h"
#include "tools/Replicate/RemoteShell.h"
#include "tools/Replicate/Report.h"
#include "tools/Replicate/ShellWords.h"

namespace Replicate {

namespace {

bool deleteLocally(const std::string& target) {
  if (unlink(target.c_str()) == 0 || errno == ENOENT) return true;
  const std::string why = errno == EISDIR ? "it is a directory" : std::strerror(errno);
  report("cannot delete " + printable(target) + ": " + why);
  return false;
}

}  // namespace

bool deleteFile(const CommandLine& line) {
  if (line.remoteHosts.empty()) return deleteLocally(line.target);

  const RemoteShell shell = RemoteShell::fromEnvironment();
  const std::string program = findOnPath(shell.program());
  if (program.empty()) throw std::runtime_error(shell.program() + " not found on PATH");
  // The remote side runs this through a shell whatever we do, so the name
  // goes quoted; rm -f succeeds for a file already gone and refuses a
  // directory.
  const std::string remoteCommand = "rm -f -- " + shellQuoted(line.target);
  bool allSucceeded = true;
  for (const HostAddress& host : line.remoteHosts) {
    shell.shareConnectionTo(host);
    const int status = runChild(program, shell.argumentsFor(host, remoteCommand));
    if (!succeeded(status)) {
      report("host " + host.text() + ": " + describeRemoteDeleteFailure(status));
      allSucceeded = false;
    }
  }
  return allSucceeded;
}

}  // namespace Replicate
