#pragma once

#include <string>
#include <vector>

#include "tools/Replicate/HostAddress.h"

namespace Replicate {

// How remote hosts are reached: $RSYNC_RSH when set, otherwise ssh in batch
// mode with shared connections.
class RemoteShell {
 public:
  // Throws std::runtime_error when $RSYNC_RSH cannot be split into words or
  // the directory for shared connections is unsafe.
  static RemoteShell fromEnvironment();

  // The command line for rsync's -e, which rsync splits itself.
  const std::string& command() const { return command_; }
  // The program that command() starts.
  const std::string& program() const { return words_.front(); }
  // The argument vector that runs remoteCommand on host. The remote side
  // hands remoteCommand to a shell, so it must be quoted for one.
  std::vector<std::string> argumentsFor(const HostAddress& host, const std::string& remoteCommand) const;

  // With our own ssh command, makes sure a shared connection to host is up
  // before a run uses it. Runs that start together (a burst of shared runs
  // after a quiet spell) would otherwise each open a connection of their
  // own, and sshd drops those beyond its limit of connections still logging
  // in. One run starts the shared connection while the others wait for it;
  // a host that could not be reached lately is left to each run. Failures
  // are left to the run itself.
  void shareConnectionTo(const HostAddress& host) const;

 private:
  std::string command_;
  std::vector<std::string> words_;
  // Empty with $RSYNC_RSH.
  std::string controlDirectory_;
};

}  // namespace Replicate
