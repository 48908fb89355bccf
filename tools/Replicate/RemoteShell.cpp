#include "tools/Replicate/RemoteShell.h"

#include <cstdlib>
#include <stdexcept>

#include "tools/Replicate/ControlDirectory.h"
#include "tools/Replicate/ShellWords.h"

namespace Replicate {

RemoteShell RemoteShell::fromEnvironment() {
  RemoteShell shell;
  const char* custom = std::getenv("RSYNC_RSH");
  if (custom && *custom) {
    shell.command_ = custom;
    try {
      shell.words_ = splitShellWords(shell.command_);
    } catch (const std::invalid_argument& error) {
      throw std::runtime_error("RSYNC_RSH: " + std::string(error.what()));
    }
    if (shell.words_.empty()) throw std::runtime_error("RSYNC_RSH holds no command");
  } else {
    // Keep-alives and a connect time-out turn a dead host into an error
    // instead of a hang; connection sharing makes the runs after the first
    // one to a host cheap.
    shell.command_ =
        "ssh -o BatchMode=yes -o ConnectTimeout=10 -o ServerAliveInterval=10 -o ServerAliveCountMax=3"
        " -o ControlMaster=auto -o ControlPath=" +
        controlDirectory() + "/%C -o ControlPersist=60";
    shell.words_ = splitShellWords(shell.command_);
  }
  return shell;
}

std::vector<std::string> RemoteShell::argumentsFor(const HostAddress& host, const std::string& remoteCommand) const {
  std::vector<std::string> arguments = words_;
  // The same form rsync uses, so that $RSYNC_RSH sees one convention.
  if (!host.user().empty()) {
    arguments.push_back("-l");
    arguments.push_back(host.user());
  }
  arguments.push_back(host.machine());
  arguments.push_back(remoteCommand);
  return arguments;
}

}  // namespace Replicate
