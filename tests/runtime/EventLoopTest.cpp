#include "runtime/EventLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <vector>

#include "runtime/ActivityManager.h"
#include "tests/support/Pipe.h"

namespace Kel {
namespace {

double steadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A timer that runs action when it fires.
class Timer : public Clock::Notifiee {
 public:
  std::function<void()> action;
  void onTime() override { action(); }
};

class Recorder final : public EventLoop::Source {
 public:
  std::function<void()> action;
  int calls = 0;
  void onReadable() override {
    ++calls;
    if (action) action();
  }
};

TEST(EventLoopTest, DeferredWorkRunsInOrderAndWorkQueuedDuringATurnOnTheNext) {
  EventLoop loop;
  std::vector<int> ran;
  loop.deferredIs([&] {
    ran.push_back(1);
    loop.deferredIs([&] { ran.push_back(3); });
  });
  loop.deferredIs([&] { ran.push_back(2); });
  EXPECT_EQ(loop.deferred(), 2u);
  // Pending work keeps a turn from waiting.
  double const start = steadySeconds();
  loop.turn(10);
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
  EXPECT_EQ(loop.deferred(), 1u);
  loop.turn(10);
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(loop.deferred(), 0u);
  EXPECT_LT(steadySeconds() - start, 5);
}

TEST(EventLoopTest, StopEndsRunAfterTheCurrentTurnAndRunClearsIt) {
  EventLoop loop;
  std::vector<int> ran;
  loop.deferredIs([&] {
    ran.push_back(1);
    loop.stop();
  });
  loop.deferredIs([&] { ran.push_back(2); });
  loop.deferredIs([&] {
    ran.push_back(3);
    loop.deferredIs([&] {
      ran.push_back(4);
      loop.stop();
    });
  });
  loop.run();
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
  // Run again despite the earlier stop(): it turns until the next one.
  loop.run();
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3, 4}));
}

TEST(EventLoopTest, RunUntilTellsWhetherDoneHeld) {
  EventLoop loop;
  int steps = 0;
  std::function<void()> step = [&] {
    if (++steps < 3) loop.deferredIs(step);
  };
  loop.deferredIs(step);
  EXPECT_TRUE(loop.runUntil([&] { return steps == 3; }, 5));
  EXPECT_EQ(steps, 3);
  // done() is asked before any turn.
  loop.deferredIs(step);
  EXPECT_TRUE(loop.runUntil([] { return true; }, 5));
  EXPECT_EQ(steps, 3);
  EXPECT_TRUE(loop.runUntil([&] { return loop.deferred() == 0; }, 5));
}

TEST(EventLoopIntegration, RunUntilAndAnIdleTurnWaitTheirBoundAndNoLonger) {
  EventLoop loop;
  double start = steadySeconds();
  loop.turn(0.05);
  double elapsed = steadySeconds() - start;
  EXPECT_GE(elapsed, 0.05);
  EXPECT_LT(elapsed, 1);

  start = steadySeconds();
  EXPECT_FALSE(loop.runUntil([] { return false; }, 0.1));
  elapsed = steadySeconds() - start;
  EXPECT_GE(elapsed, 0.1);
  EXPECT_LT(elapsed, 1);
}

TEST(EventLoopIntegration, SourceDeletedEarlierInTheTurnIsNotCalled) {
  EventLoop loop;
  Pipe first, second;
  first.put("x");
  second.put("y");
  Recorder a, b;
  // Whichever is served first deletes the other.
  a.action = [&] { loop.sourceDel(second.readEnd(), &b); };
  b.action = [&] { loop.sourceDel(first.readEnd(), &a); };
  loop.sourceIs(first.readEnd(), &a);
  loop.sourceIs(second.readEnd(), &b);
  EXPECT_EQ(loop.sources(), 2u);
  loop.turn(0);
  EXPECT_EQ(a.calls + b.calls, 1);
  EXPECT_EQ(loop.sources(), 1u);

  // Level-triggered: the unread byte makes the next turn call it again.
  Recorder& survivor = a.calls ? a : b;
  survivor.action = nullptr;
  loop.turn(0);
  EXPECT_EQ(survivor.calls, 2);
  loop.sourceDel(a.calls ? first.readEnd() : second.readEnd(), &survivor);
  EXPECT_EQ(loop.sources(), 0u);
  loop.turn(0);
  EXPECT_EQ(a.calls + b.calls, 2);
}

TEST(EventLoopIntegration, TimerDeletingAReadySourceComesFirst) {
  EventLoop loop;
  Pipe pipe;
  pipe.put("x");
  Recorder source;
  loop.sourceIs(pipe.readEnd(), &source);
  Ptr<Timer> deleter = new Timer();
  bool fired = false;
  deleter->action = [&] {
    fired = true;
    loop.sourceDel(pipe.readEnd(), &source);
  };
  deleter->notifierIs(activityManager()->clock());
  deleter->timeMinIs(now());
  loop.turn(0);
  EXPECT_TRUE(fired);
  EXPECT_EQ(source.calls, 0);
  EXPECT_EQ(loop.sources(), 0u);
  EXPECT_EQ(activityManager()->clock()->armedTimers(), 0u);
}

TEST(EventLoopIntegration, ManualTimersFireInTheTurnAndOnesArmedThenOnTheNext) {
  Ptr<Clock> clock = activityManager()->clock();
  EventLoop& loop = activityManager()->loop();
  clock->manualTimeIs(true);
  std::vector<int> fired;
  Ptr<Timer> a = new Timer();
  Ptr<Timer> b = new Timer();
  a->action = [&] {
    fired.push_back(1);
    b->timeMinIs(clock->now());
  };
  b->action = [&] { fired.push_back(2); };
  a->notifierIs(clock);
  b->notifierIs(clock);
  a->timeMinIs(clock->now() + 1);
  // Manual time does not move by itself: the turn waits its bound only.
  loop.turn(0);
  EXPECT_TRUE(fired.empty());
  clock->nowIs(clock->now() + 1);
  // A due timer keeps a turn from waiting.
  double const start = steadySeconds();
  loop.turn(10);
  EXPECT_EQ(fired, (std::vector<int>{1}));
  loop.turn(10);
  EXPECT_EQ(fired, (std::vector<int>{1, 2}));
  EXPECT_LT(steadySeconds() - start, 5);
  clock->manualTimeIs(false);
  EXPECT_EQ(clock->armedTimers(), 0u);
}

}  // namespace
}  // namespace Kel
