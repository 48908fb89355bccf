#pragma once

#include <string>
#include <vector>

#include "tests/support/TestFiles.h"

// A stand-in for ssh, for $RSYNC_RSH: it runs the remote command on this
// machine through sh -c as sshd would, in hosts/<host>/ as the "home
// directory" of each host, and logs every [user@]host it is asked for. A
// host ending in ".invalid" fails the way ssh does for an unknown name.
class FakeSsh {
 public:
  explicit FakeSsh(const TempDir& directory);

  // The environment entries that make Replicate use it, with a runtime
  // directory of its own for the hosts' state.
  std::vector<std::string> environment() const { return {"RSYNC_RSH=" + script_, "XDG_RUNTIME_DIR=" + run_}; }
  // Where host's files land.
  std::string home(const std::string& host) const { return root_ + "/" + host; }
  // The hosts asked for so far, in order.
  std::vector<std::string> hostsContacted() const;

 private:
  std::string script_;
  std::string root_;
  std::string log_;
  std::string run_;
};
