#pragma once

#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "runtime/ActivityManager.h"
#include "runtime/ChildLauncher.h"
#include "runtime/ChildManager.h"

namespace Kel {

// Stands in for the spawning launcher while it lives, so that a state
// machine test scripts each child instead of running a process: Kel::run
// records the child and gives it a fake pid, and the child ends when the
// test says, delivered on a later turn through the manager like a real end.
// The manager's limit on running children still applies.
//
// Installing and removing it drops whatever children the manager holds;
// removing also restores the previous launcher and limit.
class ScriptedChildren : public ChildLauncher {
 public:
  struct Child {
    Ptr<ChildSiginfo> siginfo;
    std::vector<std::string> argv;
    // 1000 + n for the n-th launch (from 1); 0 when the start was made to fail.
    pid_t pid = 0;
    // Every signal sent to the child while it ran, in order.
    std::vector<int> signals;
    // What it was given to read on stdin, and where it writes its stdout
    // (a copy, owned here; -1 when it inherits ours).
    std::string input;
    int stdoutFd = -1;
  };

  explicit ScriptedChildren(ChildManager& manager = activityManager()->children());
  ~ScriptedChildren() override;
  ScriptedChildren(ScriptedChildren const&) = delete;
  ScriptedChildren& operator=(ScriptedChildren const&) = delete;

  // Every launch, failed ones included, in order. References stay valid.
  std::size_t launches() const { return children_.size(); }
  Child const& child(std::size_t index) const { return children_.at(index); }
  // Throws std::invalid_argument for a child not launched here.
  Child const& child(Ptr<ChildSiginfo const> const& siginfo) const;
  Child const& last() const { return children_.back(); }

  // Ends a running child as the kernel would report it, on a later turn.
  // output is written to the child's stdout first.
  void endExited(Ptr<ChildSiginfo const> const& siginfo, int status, std::string_view output = {});
  void endKilled(Ptr<ChildSiginfo const> const& siginfo, int signal);
  void endDumped(Ptr<ChildSiginfo const> const& siginfo, int signal);

  // On (the default), a child sent a signal ends killed by it on a later
  // turn; off models a child that ignores signals until the test ends it.
  bool endOnKill() const { return endOnKill_; }
  void endOnKillIs(bool v) { endOnKill_ = v; }
  // On, every launch fails as a missing program does (exited 127, pid 0).
  bool startFails() const { return startFails_; }
  void startFailsIs(bool v) { startFails_ = v; }

  pid_t launch(Ptr<ChildSiginfo> const& child, ChildSetup const& setup) override;
  void kill(ChildSiginfo const& child, int signal) override;
  void childDel(ChildSiginfo const&) override {}

 private:
  std::size_t indexOf(ChildSiginfo const* siginfo) const;
  void end(Ptr<ChildSiginfo const> const& siginfo, ChildSiginfo::SignalCode code, int status);

  ChildManager& manager_;
  ChildLauncher* previous_;
  std::size_t previousMaxRunning_;
  bool endOnKill_ = true;
  bool startFails_ = false;
  std::deque<Child> children_;
  std::unordered_map<ChildSiginfo const*, std::size_t> index_;
};

}  // namespace Kel
