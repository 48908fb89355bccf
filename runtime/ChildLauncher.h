#pragma once

#include <sys/types.h>

#include <cstdint>

#include "runtime/ChildSiginfo.h"

namespace Kel {

// Where a child's standard streams go and which process group it joins.
struct ChildSetup {
  // -1 inherits ours.
  int stdinFd = -1;
  int stdoutFd = -1;
  int stderrFd = -1;
  // -1: our group; 0: a new group led by the child; otherwise that group.
  int processGroup = -1;
  // How many children, this one included, may share one process when the
  // manager's batcher gives them one key; 1: this child runs alone.
  std::uint32_t batchLimit = 1;
  // With stderrFd -1: what the child writes on stderr is kept for
  // ChildSiginfo::errorOutput() instead of reaching ours, where it could not
  // be told apart from any other child's.
  bool captureStderr = false;
};

// The one place that starts and signals child processes. The manager holds
// the children and enforces the limit on running ones; a launcher only
// starts them and tells when they end. Tests install a scripted launcher so
// that no process is spawned.
class ChildLauncher {
 public:
  virtual ~ChildLauncher() = default;

  // Starts child->argv() and returns its pid, or 0 when the program cannot
  // be started (the manager then reports it exited with status 127). The
  // end of a started child is told once through ChildManager::reportEnd,
  // unless childDel comes first. Throwing counts as 0, after a childDel.
  virtual pid_t launch(Ptr<ChildSiginfo> const& child, ChildSetup const& setup) = 0;

  // Sends signal to a started child. The manager may call it until the end
  // is delivered, so a launcher must leave alone a child it already reaped.
  virtual void kill(ChildSiginfo const& child, int signal) = 0;

  // Forgets a started child, whose end must then never be reported. A real
  // process still running is killed and reaped first, so none is left behind.
  virtual void childDel(ChildSiginfo const& child) = 0;
};

}  // namespace Kel
