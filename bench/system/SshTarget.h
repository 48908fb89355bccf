#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/system/Benches.h"
#include "bench/system/TempTree.h"

class TestSshd;

namespace SystemBench {

// The test sshd, reached as an operator would set it up: through ssh's own
// configuration, since RSYNC_RSH would also switch off the connections
// Replicate shares. ssh reads ~/.ssh/config from the home directory of the
// passwd entry, whatever $HOME says, so the benchmark's configuration goes
// in with -F, which a wrapper named ssh first on PATH adds. Only loopback
// addresses are ever named to it.
class SshTarget {
 public:
  // Where ssh learns the sshd's port and key: from that configuration, or
  // from whoever starts it (the agent's ssh settings, RSYNC_RSH).
  enum PortAndKey { inConfigFile, givenByCaller };
  // Throws when there is no sshd to test with.
  explicit SshTarget(Options const& options, PortAndKey portAndKey = inConfigFile);
  // Closes the connections Replicate left to share, which outlive the agent
  // by a minute.
  ~SshTarget();
  SshTarget(SshTarget const&) = delete;
  SshTarget& operator=(SshTarget const&) = delete;

  int port() const;
  std::string key() const;
  // count hosts, 127.0.0.1 and on, each an address of a test sshd, with
  // lines added to the configuration of every sshd.
  std::vector<std::string> hostsIs(int count, std::string const& sshdLines);

  // For the agent and for rsync: the real Replicate and the wrapper first on
  // PATH, with extra entries.
  std::vector<std::string> environment(std::vector<std::string> const& extra = {}) const;
  // The real ssh with the configuration, and arguments.
  std::vector<std::string> command(std::vector<std::string> const& arguments) const;
  // Short, for sockets.
  TempTree const& directory() const { return directory_; }

 private:
  Options options_;
  std::vector<std::unique_ptr<TestSshd>> sshds_;
  TempTree directory_;
  std::string program_;
  std::string config_;
};

// A target for bench, or null when there is no sshd to test with, which
// the bench's note then says.
std::unique_ptr<SshTarget> sshTarget(Options const& options, Report& report, std::string const& bench,
                                     SshTarget::PortAndKey portAndKey = SshTarget::inConfigFile);

}  // namespace SystemBench
