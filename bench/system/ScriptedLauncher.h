#pragma once

#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <functional>

#include "runtime/ActivityManager.h"
#include "runtime/ChildLauncher.h"
#include "runtime/ChildManager.h"
#include "runtime/Clock.h"

namespace SystemBench {

// Children without processes: each one "runs" for runSeconds on the loop's
// clock and then exits 0; one killed meanwhile ends killed at once. With a
// run time of 0 a child ends on the next turn; with Clock::never it runs
// until it is killed. Children end in the order they started.
//
// Takes over the manager's launching while it lives; installing and
// removing it drops whatever children the manager holds.
class ScriptedLauncher : public Kel::ChildLauncher {
 public:
  using StartObserver = std::function<void(Kel::ChildSiginfo const&)>;

  explicit ScriptedLauncher(double runSeconds, Kel::ChildManager& manager = Kel::activityManager()->children());
  ~ScriptedLauncher() override;
  ScriptedLauncher(ScriptedLauncher const&) = delete;
  ScriptedLauncher& operator=(ScriptedLauncher const&) = delete;

  double runSeconds() const { return runSeconds_; }
  void runSecondsIs(double seconds) { runSeconds_ = seconds; }
  std::size_t launches() const { return launches_; }
  // Timed children whose end is still to come.
  std::size_t pending() const { return pending_.size(); }
  // Called at every start, before the launch returns.
  void startObserverIs(StartObserver observer) { observer_ = std::move(observer); }

  pid_t launch(Kel::Ptr<Kel::ChildSiginfo> const& child, Kel::ChildSetup const& setup) override;
  void kill(Kel::ChildSiginfo const& child, int signal) override;
  // A dropped child's later end is ignored by the manager.
  void childDel(Kel::ChildSiginfo const&) override {}

 private:
  class EndTimer;
  struct Pending {
    Kel::Ptr<Kel::ChildSiginfo> child;
    double endTime;
  };

  void endDue();

  Kel::ChildManager& manager_;
  double runSeconds_;
  std::size_t launches_ = 0;
  std::deque<Pending> pending_;
  Kel::Ptr<EndTimer> timer_;
  StartObserver observer_;
};

}  // namespace SystemBench
