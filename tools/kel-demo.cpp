// Shows the runtime at work: timers firing in deadline order, a child process
// started and reaped, and the loop idling in between.
#include <cstdio>
#include <vector>

#include "runtime/ActivityManager.h"
#include "runtime/ChildSiginfo.h"
#include "runtime/Clock.h"

namespace {

double const started = Kel::now();

class Timer : public Kel::Clock::NotifieeConst {
 public:
  explicit Timer(int n) : n_(n) {}
  void onTime() override { std::printf("%.3f s  timer %d fired\n", Kel::now() - started, n_); }

 private:
  int n_;
};

class ChildWatch : public Kel::ChildSiginfo::NotifieeConst {
 public:
  void onSignalCode() override {
    std::printf("%.3f s  child %d ended: %s, status %d\n", Kel::now() - started, int(notifier()->pid()),
                notifier()->signalCode() == Kel::ChildSiginfo::exited ? "exited" : "killed", notifier()->exitStatus());
    done = true;
  }
  bool done = false;
};

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  auto* manager = Kel::activityManager();
  std::vector<Kel::Ptr<Timer>> timers;
  for (int n : {3, 1, 2}) {
    Kel::Ptr<Timer> t(new Timer(n));
    t->notifierIs(manager->clock());
    t->timeMinIs(started + 0.1 * n);
    timers.push_back(t);
  }
  char const* argv[] = {"uname", "-sr", nullptr};
  auto child = Kel::run(argv, -1, -1, -1, -1);
  std::printf("%.3f s  started child %d: uname -sr\n", Kel::now() - started, int(child->pid()));
  Kel::Ptr<ChildWatch> watch(new ChildWatch);
  watch->notifierIs(child);
  bool const finished =
      manager->loop().runUntil([&] { return watch->done && manager->clock()->armedTimers() == 0; }, 10);
  std::printf("%s\n", finished ? "all done" : "timed out");
  return finished ? 0 : 1;
}
