#include "bench/system/ScriptedLauncher.h"

#include <cmath>

namespace SystemBench {

class ScriptedLauncher::EndTimer : public Kel::Clock::NotifieeConst {
 public:
  explicit EndTimer(ScriptedLauncher* launcher) : launcher_(launcher) {}
  void onTime() override { launcher_->endDue(); }

 private:
  ScriptedLauncher* launcher_;
};

ScriptedLauncher::ScriptedLauncher(double runSeconds, Kel::ChildManager& manager)
    : manager_(manager), runSeconds_(runSeconds), timer_(new EndTimer(this)) {
  timer_->notifierIs(Kel::activityManager()->clock());
  manager_.launcherIs(this);
}

ScriptedLauncher::~ScriptedLauncher() {
  manager_.launcherIs(nullptr);
  timer_->notifierIs(nullptr);
}

pid_t ScriptedLauncher::launch(Kel::Ptr<Kel::ChildSiginfo> const& child, Kel::ChildSetup const&) {
  ++launches_;
  if (observer_) observer_(*child);
  if (runSeconds_ == 0) {
    manager_.reportEnd(child, Kel::ChildSiginfo::exited, 0);
  } else if (std::isfinite(runSeconds_)) {
    pending_.push_back({child, Kel::now() + runSeconds_});
    if (pending_.size() == 1) timer_->timeMinIs(pending_.front().endTime);
  }
  // Any positive number will do: nothing is ever signalled by it.
  return pid_t(1 + launches_ % 1000000000);
}

void ScriptedLauncher::kill(Kel::ChildSiginfo const& child, int signal) {
  // Only the manager's children come here, and it made them non-const.
  manager_.reportEnd(Kel::Ptr<Kel::ChildSiginfo>(const_cast<Kel::ChildSiginfo*>(&child)), Kel::ChildSiginfo::killed,
                     signal);
}

void ScriptedLauncher::endDue() {
  double const now = Kel::now();
  while (!pending_.empty() && pending_.front().endTime <= now) {
    manager_.reportEnd(pending_.front().child, Kel::ChildSiginfo::exited, 0);
    pending_.pop_front();
  }
  if (!pending_.empty()) timer_->timeMinIs(pending_.front().endTime);
}

}  // namespace SystemBench
