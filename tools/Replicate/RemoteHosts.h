#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/CommandLine.h"
#include "tools/Replicate/HostState.h"
#include "tools/Replicate/RemoteFailure.h"
#include "tools/Replicate/RemoteShell.h"

namespace Replicate {

// What became of one host in a run. A resting host was left alone: it is
// down, and it counts neither as a success nor as a failure.
enum class HostOutcome { succeeded, failed, resting };

// The remote hosts of one run: how they are reached, what every run knows
// of them, and how what happens there is told and recorded.
class RemoteHosts {
 public:
  // Throws std::runtime_error for what concerns every host alike: an unsafe
  // control directory, or a $RSYNC_RSH that cannot be split.
  explicit RemoteHosts(const CommandLine& line);

  const RemoteShell& shell() const { return shell_; }
  const std::vector<HostAddress>& hosts() const { return hosts_; }
  // Where the remote shell's program is; empty when it is nowhere on PATH.
  const std::string& shellPath() const { return shellPath_; }

  // Calls work(i) for hosts()[i], for every host that is not resting (every
  // host with probing), several hosts at once. An exception from work fails
  // that host alone. When every host rests, says so on one line.
  std::vector<HostOutcome> forEachHost(const std::function<HostOutcome(size_t)>& work, bool probing = false);

  // With shared connections, makes sure one is up before a run uses it.
  // Runs that start together (a burst of shared runs after a quiet spell)
  // would otherwise each open a connection of their own, and sshd drops
  // those beyond its limit of connections still logging in. One run starts
  // the shared connection while the others wait for it; when it finds the
  // host unreachable, that is reported and recorded, and the runs that
  // waited leave the host alone. Other failures are left to the run itself.
  // Returns nothing when the run may go on, otherwise what became of host.
  std::optional<HostOutcome> prepare(const HostAddress& host);

  // Runs "true" on host, through the shared connection when there is one,
  // and reports and records what became of it.
  HostOutcome probe(const HostAddress& host);

  // What the end of a run on host says: nothing for a success. The run's
  // stderr goes on to ours unless the failure's message says it all.
  std::optional<RemoteFailure> examine(const HostAddress& host, const ChildRun& run, RemoteCommand command) const;

  // Records what runs on host came to: a success without failure.
  void record(const HostAddress& host, const std::optional<RemoteFailure>& failure) const;

  // examine, record, and the failure reported as "host H: ...": the whole
  // ending of a single run.
  HostOutcome settle(const HostAddress& host, const ChildRun& run, RemoteCommand command) const;

 private:
  std::string path(const char* kind, const HostAddress& host) const;

  std::vector<HostAddress> hosts_;
  std::string directory_;
  RemoteShell shell_;
  std::string shellPath_;
};

// Whether a run with these outcomes succeeded: none failed, and not every
// host was left alone.
bool allSucceeded(const std::vector<HostOutcome>& outcomes);

}  // namespace Replicate
