#include "runtime/Clock.h"

#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "runtime/ActivityManager.h"
#include "runtime/Exception.h"

namespace Kel {
namespace {

struct Firing {
  int id;
  double at;
  bool operator==(Firing const&) const = default;
};

std::ostream& operator<<(std::ostream& o, Firing const& f) { return o << "#" << f.id << "@" << f.at; }

class Timer : public Clock::Notifiee {
 public:
  static Ptr<Timer> TimerIs(Ptr<Clock> const& clock, std::vector<Firing>* log, int id) {
    Ptr<Timer> t = new Timer(log, id);
    if (clock) t->notifierIs(clock);
    return t;
  }

  std::function<void()> onFire;
  int calls = 0;

  void onTime() override {
    log_->push_back({id_, notifier()->now()});
    if (onFire) onFire();
    ++calls;
  }

 private:
  Timer(std::vector<Firing>* log, int id) : log_(log), id_(id) {}
  std::vector<Firing>* log_;
  int id_;
};

double steadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

class ClockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    clock_->manualTimeIs(true);
    clock_->nowIs(1000);
  }
  void TearDown() override { clock_->manualTimeIs(false); }

  Ptr<Timer> timer(int id, double at) {
    Ptr<Timer> t = Timer::TimerIs(clock_, &fired_, id);
    t->timeMinIs(at);
    return t;
  }

  // The process's: what a test leaves armed on it fails the test.
  Ptr<Clock> clock_ = activityManager()->clock();
  std::vector<Firing> fired_;
};

TEST_F(ClockTest, FiresInDeadlineOrderThenArmingOrderWithNowAtEachDeadline) {
  auto t1 = timer(1, 1030);
  auto t2 = timer(2, 1010);
  auto t3 = timer(3, 1020);
  auto t4 = timer(4, 1010);
  auto t5 = timer(5, 1020);
  // Arming again at the same time counts as arming later.
  t2->timeMinIs(1010);
  EXPECT_EQ(clock_->armedTimers(), 5u);
  EXPECT_DOUBLE_EQ(clock_->waitTime(), Clock::never);

  clock_->advance(100);

  EXPECT_EQ(fired_, (std::vector<Firing>{{4, 1010}, {2, 1010}, {3, 1020}, {5, 1020}, {1, 1030}}));
  EXPECT_EQ(clock_->now(), 1100);
  for (auto const& t : {t1, t2, t3, t4, t5}) {
    EXPECT_EQ(t->timeMin(), Clock::never);
    EXPECT_FALSE(t->armed());
  }
}

TEST_F(ClockTest, ArmingReplacesThePendingTimeAndInfinityDisarms) {
  auto a = timer(1, 1010);
  a->timeMinIs(1020);
  EXPECT_EQ(a->timeMin(), 1020);
  clock_->advance(15);
  EXPECT_TRUE(fired_.empty());
  clock_->advance(10);
  EXPECT_EQ(fired_, (std::vector<Firing>{{1, 1020}}));

  // Moving a deadline earlier.
  a->timeMinIs(1040);
  a->timeMinIs(1030);
  clock_->advance(100);
  EXPECT_EQ(fired_, (std::vector<Firing>{{1, 1020}, {1, 1030}}));

  auto b = timer(2, 1200);
  b->timeMinIs(Clock::never);
  EXPECT_FALSE(b->armed());
  EXPECT_EQ(b->timeMin(), Clock::never);
  EXPECT_EQ(clock_->armedTimers(), 0u);
  clock_->advance(1000);
  EXPECT_EQ(fired_.size(), 2u);

  EXPECT_THROW(b->timeMinIs(std::nan("")), RangeException);
}

TEST_F(ClockTest, FiresAtTheDeadlineAndNotJustBefore) {
  double const deadline = 1010.25;
  auto a = timer(1, deadline);
  clock_->advance((deadline - 1e-6) - clock_->now());
  EXPECT_TRUE(fired_.empty());
  EXPECT_TRUE(a->armed());
  EXPECT_EQ(clock_->waitTime(), Clock::never);
  EXPECT_EQ(clock_->fireDue(), 0u);
  clock_->advance(deadline - clock_->now());
  EXPECT_EQ(fired_, (std::vector<Firing>{{1, deadline}}));

  // Setting now() fires nothing; the next pass does.
  a->timeMinIs(1020);
  clock_->nowIs(1020);
  EXPECT_TRUE(a->armed());
  EXPECT_EQ(clock_->waitTime(), 0);
  EXPECT_EQ(clock_->fireDue(), 1u);
  EXPECT_EQ(fired_.size(), 2u);
}

TEST_F(ClockTest, CallbackMayDisarmRearmOrDestroyReactorsDueInTheSamePass) {
  auto a = timer(1, 1010);
  auto b = timer(2, 1010);
  auto c = timer(3, 1010);
  auto d = timer(4, 1010);
  auto e = timer(5, 1010);
  auto f = timer(6, 1010);
  f->markedForDeletionIs(true);
  a->onFire = [&] {
    b->timeMinIs(Clock::never);
    c = nullptr;
    a = nullptr;  // the last reference to the reactor being called
  };
  d->onFire = [&] { e->timeMinIs(1020); };

  EXPECT_EQ(clock_->fireDue(), 0u);
  clock_->nowIs(1010);
  EXPECT_EQ(clock_->fireDue(), 2u);
  EXPECT_EQ(fired_, (std::vector<Firing>{{1, 1010}, {4, 1010}}));
  EXPECT_EQ(d->calls, 1);
  EXPECT_FALSE(f->armed());
  clock_->advance(100);
  EXPECT_EQ(fired_, (std::vector<Firing>{{1, 1010}, {4, 1010}, {5, 1020}}));
  EXPECT_EQ(f->calls, 0);
}

TEST_F(ClockTest, TimerArmedByACallbackFiresOnTheNextPass) {
  auto a = timer(1, 990);
  auto b = timer(2, 995);
  auto c = timer(3, Clock::never);
  a->onFire = [&] {
    if (a->calls) return;
    // A time already past is due now, after every timer due before.
    c->timeMinIs(980);
    a->timeMinIs(clock_->now());
  };
  EXPECT_EQ(clock_->fireDue(), 2u);
  EXPECT_EQ(fired_, (std::vector<Firing>{{1, 1000}, {2, 1000}}));
  EXPECT_EQ(clock_->waitTime(), 0);
  EXPECT_EQ(clock_->fireDue(), 2u);
  EXPECT_EQ(fired_, (std::vector<Firing>{{1, 1000}, {2, 1000}, {3, 1000}, {1, 1000}}));
  EXPECT_EQ(clock_->fireDue(), 0u);

  // advance() fires what its callbacks arm on the way, and never steps back.
  b->onFire = [&] { c->timeMinIs(500); };
  b->timeMinIs(1010);
  clock_->advance(20);
  EXPECT_EQ(fired_.back(), (Firing{3, 1010}));
  EXPECT_EQ(clock_->now(), 1020);
}

TEST_F(ClockTest, UnbindingOrDestroyingDisarmsAndBindingArmsThePendingTime) {
  auto r = Timer::TimerIs(nullptr, &fired_, 1);
  r->timeMinIs(1010);
  EXPECT_EQ(r->timeMin(), 1010);
  EXPECT_FALSE(r->armed());
  r->notifierIs(clock_);
  EXPECT_TRUE(r->armed());
  EXPECT_EQ(clock_->armedTimers(), 1u);

  r->notifierIs(nullptr);
  EXPECT_FALSE(r->armed());
  EXPECT_EQ(r->timeMin(), 1010);
  EXPECT_EQ(clock_->armedTimers(), 0u);

  Ptr<Clock> other = Clock::ClockIs();
  other->manualTimeIs(true);
  other->nowIs(1000);
  r->notifierIs(other);
  EXPECT_EQ(other->armedTimers(), 1u);
  r->notifierIs(clock_);
  EXPECT_EQ(other->armedTimers(), 0u);
  EXPECT_EQ(clock_->armedTimers(), 1u);

  auto s = timer(2, 1005);
  r = nullptr;
  s = nullptr;
  EXPECT_EQ(clock_->armedTimers(), 0u);
  clock_->advance(100);
  other->advance(100);
  EXPECT_TRUE(fired_.empty());
}

TEST_F(ClockTest, HundredThousandTimersFireInDeadlineThenArmingOrder) {
  constexpr int count = 100000;
  std::vector<Ptr<Timer>> timers;
  timers.reserve(count);
  fired_.reserve(count);
  std::uint32_t random = 12345;
  for (int i = 0; i < count; ++i) {
    random = random * 1664525u + 1013904223u;
    // Few distinct deadlines, so that many are equal.
    timers.push_back(timer(i, 1001 + (random >> 16) % 1000));
  }
  // Disarm and re-arm a slice to exercise removal from the middle of the heap.
  for (int i = 0; i < count; i += 7) timers[i]->timeMinIs(Clock::never);
  for (int i = 0; i < count; i += 14) timers[i]->timeMinIs(1500.5);
  auto const armed =
      static_cast<std::size_t>(std::count_if(timers.begin(), timers.end(), [](auto const& t) { return t->armed(); }));
  EXPECT_EQ(clock_->armedTimers(), armed);

  clock_->advance(1000);

  ASSERT_EQ(fired_.size(), armed);
  for (std::size_t i = 1; i < fired_.size(); ++i) {
    Firing const& p = fired_[i - 1];
    Firing const& q = fired_[i];
    ASSERT_TRUE(p.at < q.at || (p.at == q.at && p.id < q.id)) << p << " then " << q;
  }
  auto first = std::find_if(fired_.begin(), fired_.end(), [](Firing const& f) { return f.at == 1500.5; });
  ASSERT_NE(first, fired_.end());
  EXPECT_EQ(first->id, 0);
}

TEST(ClockManualTest, SwitchingTimeKeepsPendingTimersAheadByTheSameSpan) {
  Ptr<Clock> clock = Clock::ClockIs();
  EXPECT_THROW(clock->nowIs(5), RangeException);
  EXPECT_THROW(clock->advance(5), RangeException);
  std::vector<Firing> fired;
  auto t = Timer::TimerIs(clock, &fired, 1);
  t->timeMinIs(clock->now() + 60);

  clock->manualTimeIs(true);
  double const frozen = clock->now();
  EXPECT_NEAR(frozen, static_cast<double>(time(nullptr)), 2);
  EXPECT_EQ(clock->now(), frozen);
  EXPECT_THROW(clock->advance(-1), RangeException);
  EXPECT_EQ(clock->waitTime(), Clock::never);
  clock->advance(59.9);
  EXPECT_TRUE(fired.empty());
  clock->advance(0.2);
  ASSERT_EQ(fired.size(), 1u);
  EXPECT_NEAR(fired[0].at, frozen + 60, 0.01);

  t->timeMinIs(clock->now() + 30);
  clock->manualTimeIs(false);
  EXPECT_GT(clock->waitTime(), 29);
  // The span moves from one clock to the other, with a rounding error.
  EXPECT_LE(clock->waitTime(), 30 + 1e-6);
  t->timeMinIs(Clock::never);
  EXPECT_EQ(clock->armedTimers(), 0u);
}

// Restores the process clock's view of the wall clock, whatever the test does.
struct WallClockOffsetGuard {
  ~WallClockOffsetGuard() { activityManager()->clock()->wallClockOffsetIs(0); }
};

TEST(ClockIntegration, WallClockStepNeitherFiresNorStallsAPendingTimer) {
  Ptr<Clock> clock = activityManager()->clock();
  ASSERT_FALSE(clock->manualTime());
  WallClockOffsetGuard guard;
  std::vector<Firing> fired;
  auto t = Timer::TimerIs(clock, &fired, 1);
  double const start = steadySeconds();
  double const at = clock->now() + 0.2;
  t->timeMinIs(at);

  // An hour forward: were the deadline on the wall clock, it would be due.
  clock->wallClockOffsetIs(3600);
  EXPECT_NEAR(clock->now(), at + 3600, 1);
  EXPECT_EQ(clock->fireDue(), 0u);
  EXPECT_GT(clock->waitTime(), 0.1);
  EXPECT_LE(clock->waitTime(), 0.2);
  EXPECT_EQ(t->timeMin(), at);

  // An hour back: it would stall for an hour.
  clock->wallClockOffsetIs(-3600);
  EXPECT_GT(clock->waitTime(), 0.1);
  EXPECT_LE(clock->waitTime(), 0.2);
  EXPECT_TRUE(activityManager()->loop().runUntil([&] { return !fired.empty(); }, 5));
  double const elapsed = steadySeconds() - start;
  // Less a rounding of the wall-clock seconds.
  EXPECT_GE(elapsed, 0.2 - 1e-6);
  EXPECT_LT(elapsed, 5);

  // Arming after the step counts from the stepped wall clock.
  t->timeMinIs(clock->now() + 0.2);
  EXPECT_GT(clock->waitTime(), 0.1);
  EXPECT_LE(clock->waitTime(), 0.2);
}

}  // namespace
}  // namespace Kel
