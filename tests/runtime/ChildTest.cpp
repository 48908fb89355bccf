#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <sstream>

#include "runtime/ActivityManager.h"
#include "runtime/ChildManager.h"
#include "runtime/ChildSiginfo.h"
#include "runtime/Exception.h"
#include "tests/support/ScriptedChildren.h"

namespace Kel {
namespace {

class EndWatcher : public ChildSiginfo::NotifieeConst {
 public:
  explicit EndWatcher(Ptr<ChildSiginfo const> const& child) { notifierIs(child); }
  void onSignalCode() override {
    ++ends;
    if (then) then();
  }
  int ends = 0;
  std::function<void()> then;
};

using Argv = std::vector<std::string>;

Ptr<ChildSiginfo> runArgs(std::initializer_list<char const*> args) {
  std::vector<char const*> argv(args);
  argv.push_back(nullptr);
  return run(argv.data(), -1, -1, -1, -1);
}

bool ended(Ptr<ChildSiginfo const> const& child) { return child->signalCode() != ChildSiginfo::notEnded; }

// Turns until nothing is left to deliver.
void settle() {
  EventLoop& loop = activityManager()->loop();
  ASSERT_TRUE(loop.runUntil([&] { return loop.deferred() == 0; }, 10));
}

TEST(ChildTest, ScriptedChildIsRecordedAndEndsOnALaterTurn) {
  ScriptedChildren scripted;
  ChildManager& children = activityManager()->children();
  char program[] = "Replicate";
  char source[] = "/etc/x/y";
  char const* argv[] = {program, "--source", source, nullptr};
  Ptr<ChildSiginfo> child = run(argv, -1, -1, -1, -1);
  std::strcpy(program, "Overwrite");
  std::strcpy(source, "/tmp/z/w");

  ASSERT_EQ(scripted.launches(), 1u);
  EXPECT_EQ(scripted.last().argv, (Argv{"Replicate", "--source", "/etc/x/y"}));
  EXPECT_EQ(child->argv().strings(), scripted.last().argv);
  EXPECT_EQ(child->pid(), 1001);
  EXPECT_EQ(&scripted.child(child), &scripted.last());
  EXPECT_EQ(children.running(), 1u);

  Ptr<EndWatcher> watcher = new EndWatcher(child);
  scripted.endExited(child, 3);
  EXPECT_EQ(child->signalCode(), ChildSiginfo::notEnded);
  EXPECT_EQ(watcher->ends, 0);
  settle();
  EXPECT_EQ(child->signalCode(), ChildSiginfo::exited);
  EXPECT_EQ(child->exitStatus(), 3);
  EXPECT_EQ(watcher->ends, 1);
  EXPECT_EQ(children.running(), 0u);

  // An ended child is left alone, and a second end changes nothing.
  child->kill(SIGKILL);
  scripted.endKilled(child, SIGKILL);
  settle();
  EXPECT_TRUE(scripted.last().signals.empty());
  EXPECT_EQ(child->signalCode(), ChildSiginfo::exited);
  EXPECT_EQ(watcher->ends, 1);

  Ptr<ChildSiginfo> dumper = runArgs({"Replicate"});
  EXPECT_EQ(dumper->pid(), 1002);
  scripted.endDumped(dumper, SIGSEGV);
  settle();
  EXPECT_EQ(dumper->signalCode(), ChildSiginfo::dumped);
  EXPECT_EQ(dumper->exitStatus(), SIGSEGV);
}

TEST(ChildTest, KillIsRecordedAndEndsTheChildUnlessItIgnoresSignals) {
  ScriptedChildren scripted;
  Ptr<ChildSiginfo> obedient = runArgs({"Replicate"});
  obedient->kill(SIGTERM);
  EXPECT_EQ(scripted.child(obedient).signals, (std::vector<int>{SIGTERM}));
  EXPECT_FALSE(ended(obedient));
  settle();
  EXPECT_EQ(obedient->signalCode(), ChildSiginfo::killed);
  EXPECT_EQ(obedient->exitStatus(), SIGTERM);

  scripted.endOnKillIs(false);
  Ptr<ChildSiginfo> stubborn = runArgs({"Replicate"});
  stubborn->kill(SIGTERM);
  stubborn->kill(SIGKILL);
  settle();
  EXPECT_FALSE(ended(stubborn));
  EXPECT_EQ(scripted.child(stubborn).signals, (std::vector<int>{SIGTERM, SIGKILL}));
  scripted.endKilled(stubborn, SIGKILL);
  settle();
  EXPECT_EQ(stubborn->signalCode(), ChildSiginfo::killed);
  EXPECT_EQ(stubborn->exitStatus(), SIGKILL);

  EXPECT_THROW(stubborn->kill(0), RangeException);
  EXPECT_THROW(stubborn->kill(NSIG), RangeException);
  EXPECT_THROW(runArgs({}), RangeException);
  char const* argv[] = {"Replicate", nullptr};
  EXPECT_THROW(run(argv, -2, -1, -1, -1), RangeException);
}

TEST(ChildTest, FailedStartIsReportedExited127OnALaterTurn) {
  ScriptedChildren scripted;
  scripted.startFailsIs(true);
  Ptr<ChildSiginfo> child = runArgs({"Replicate"});
  Ptr<EndWatcher> watcher = new EndWatcher(child);
  EXPECT_EQ(child->pid(), 0);
  EXPECT_EQ(scripted.launches(), 1u);
  EXPECT_EQ(activityManager()->children().running(), 0u);
  EXPECT_FALSE(ended(child));
  // Killing a child that never ran changes nothing.
  child->kill(SIGKILL);
  settle();
  EXPECT_EQ(child->signalCode(), ChildSiginfo::exited);
  EXPECT_EQ(child->exitStatus(), 127);
  EXPECT_EQ(watcher->ends, 1);
  EXPECT_TRUE(scripted.last().signals.empty());
}

TEST(ChildTest, LimitQueuesChildrenFirstComeFirstServed) {
  ScriptedChildren scripted;
  ChildManager& children = activityManager()->children();
  children.maxRunningIs(1);
  Ptr<ChildSiginfo> first = runArgs({"first"});
  Ptr<ChildSiginfo> second = runArgs({"second"});
  Ptr<ChildSiginfo> third = runArgs({"third"});
  EXPECT_NE(first->pid(), 0);
  EXPECT_EQ(second->pid(), 0);
  EXPECT_EQ(third->pid(), 0);
  EXPECT_EQ(children.running(), 1u);
  EXPECT_EQ(children.waiting(), 2u);
  EXPECT_EQ(scripted.launches(), 1u);

  // The next child starts before the ended one is notified.
  Ptr<EndWatcher> watcher = new EndWatcher(first);
  pid_t secondPidAtNotification = -1;
  watcher->then = [&] { secondPidAtNotification = second->pid(); };
  scripted.endExited(first, 0);
  settle();
  EXPECT_NE(secondPidAtNotification, 0);
  EXPECT_EQ(scripted.last().argv, Argv{"second"});
  EXPECT_EQ(third->pid(), 0);

  // A waiting child that is killed never starts and ends on a later turn.
  third->kill(SIGTERM);
  EXPECT_EQ(children.waiting(), 0u);
  EXPECT_FALSE(ended(third));
  settle();
  EXPECT_EQ(third->signalCode(), ChildSiginfo::killed);
  EXPECT_EQ(third->exitStatus(), SIGTERM);
  EXPECT_EQ(third->pid(), 0);

  // Lifting the limit starts the waiting children at once.
  Ptr<ChildSiginfo> fourth = runArgs({"fourth"});
  EXPECT_EQ(fourth->pid(), 0);
  children.maxRunningIs(0);
  EXPECT_NE(fourth->pid(), 0);
  EXPECT_EQ(children.running(), 2u);
  EXPECT_EQ(scripted.launches(), 3u);
}

TEST(ChildTest, RemovingTheScriptRestoresTheLauncherAndDropsItsChildren) {
  ChildManager& children = activityManager()->children();
  ChildLauncher* const real = &children.launcher();
  Ptr<ChildSiginfo> running;
  Ptr<ChildSiginfo> waiting;
  Ptr<EndWatcher> watcher;
  {
    ScriptedChildren scripted;
    EXPECT_EQ(&children.launcher(), &scripted);
    children.maxRunningIs(1);
    running = runArgs({"running"});
    waiting = runArgs({"waiting"});
    watcher = new EndWatcher(running);
    scripted.endExited(running, 0);
  }
  EXPECT_EQ(&children.launcher(), real);
  EXPECT_EQ(children.maxRunning(), 0u);
  waiting->kill(SIGKILL);
  settle();
  EXPECT_EQ(watcher->ends, 0);
  EXPECT_FALSE(ended(waiting));
  EXPECT_EQ(waiting->pid(), 0);
}

TEST(ChildTest, PrintsSignalCodes) {
  std::ostringstream o;
  o << ChildSiginfo::notEnded << ' ' << ChildSiginfo::killed << ' ' << ChildSiginfo::dumped << ' '
    << ChildSiginfo::exited;
  EXPECT_EQ(o.str(), "notEnded killed dumped exited");
}

}  // namespace
}  // namespace Kel
