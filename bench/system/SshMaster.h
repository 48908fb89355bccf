#pragma once

#include <sys/types.h>

#include <string>

#include "bench/system/SshTarget.h"

namespace SystemBench {

// ssh as a master of shared connections to host, in the foreground of a
// child of ours, so that it ends with the benchmark: rsync through it pays
// for no login, the least a copy over ssh can cost. Port and key, when
// given, go on its command line; otherwise ssh's configuration names them.
class SshMaster {
 public:
  SshMaster(SshTarget const& ssh, std::string socket, std::string const& host, std::string const& log,
            bool portAndKey = false);
  ~SshMaster();
  SshMaster(SshMaster const&) = delete;
  SshMaster& operator=(SshMaster const&) = delete;

  std::string const& socket() const { return socket_; }
  // rsync's -e for copies through this master.
  std::string rsh() const { return "ssh -o ControlPath=" + socket_; }

 private:
  std::string socket_;
  pid_t pid_ = -1;
};

}  // namespace SystemBench
