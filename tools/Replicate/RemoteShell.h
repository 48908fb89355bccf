#pragma once

#include <string>
#include <vector>

#include "tools/Replicate/HostAddress.h"

namespace Replicate {

// How remote hosts are reached: ssh with the user's options, then our own:
// batch mode, time-outs and shared connections. ssh takes the first value
// it is given for a setting, so the user's win and ours fill the rest.
// $RSYNC_RSH, when set, replaces the program; our options still follow when
// that is ssh, and nothing is added to any other program.
class RemoteShell {
 public:
  // sshOptions are the user's words for ssh; sockets of shared connections
  // go to controlDirectory. Throws std::runtime_error when $RSYNC_RSH cannot
  // be split into words.
  static RemoteShell fromEnvironment(const std::vector<std::string>& sshOptions, const std::string& controlDirectory);

  // The command line for rsync's -e, which rsync splits itself.
  const std::string& command() const { return command_; }
  // The program that command() starts.
  const std::string& program() const { return words_.front(); }
  // The argument vector that runs remoteCommand on host. The remote side
  // hands remoteCommand to a shell, so it must be quoted for one.
  std::vector<std::string> argumentsFor(const HostAddress& host, const std::string& remoteCommand) const;
  // Whether runs share connections through our options.
  bool sharesConnections() const { return sharesConnections_; }
  // ssh's time-out for connecting, in seconds, as the options set it.
  int connectTimeout() const { return connectTimeout_; }

 private:
  std::string command_;
  std::vector<std::string> words_;
  bool sharesConnections_ = false;
  int connectTimeout_ = 0;
};

// word as rsync's splitting of -e reads it back: it splits at blanks only,
// and a quote character doubled inside quotes stands for itself.
std::string quotedForRsync(const std::string& word);

}  // namespace Replicate
