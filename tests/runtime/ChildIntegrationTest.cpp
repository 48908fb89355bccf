#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/ActivityManager.h"
#include "runtime/ChildManager.h"
#include "runtime/ChildSiginfo.h"
#include "runtime/SpawnLauncher.h"
#include "tests/support/TestProcess.h"

namespace Kel {
namespace {

Ptr<ChildSiginfo> runArgs(std::vector<char const*> argv, int stdoutFd = -1) {
  argv.push_back(nullptr);
  return run(argv.data(), -1, stdoutFd, -1, -1);
}

bool waitEnd(std::vector<Ptr<ChildSiginfo>> const& children) {
  return activityManager()->loop().runUntil(
      [&] {
        for (auto const& child : children) {
          if (child->signalCode() == ChildSiginfo::notEnded) return false;
        }
        return true;
      },
      10);
}

std::string readAll(int fd) {
  std::string text;
  char buffer[256];
  ssize_t n;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<std::size_t>(n));
  ::close(fd);
  return text;
}

// Puts the limit back even when an assertion returns early.
struct MaxRunning {
  explicit MaxRunning(std::size_t n) { activityManager()->children().maxRunningIs(n); }
  ~MaxRunning() { activityManager()->children().maxRunningIs(0); }
};

// Starts the real process, then fails once throws is set.
class ThrowingLauncher : public ChildLauncher {
 public:
  ThrowingLauncher(ChildManager& manager, EventLoop& loop) : real_(manager, loop) {}
  pid_t launch(Ptr<ChildSiginfo> const& child, ChildSetup const& setup) override {
    pid_t const pid = real_.launch(child, setup);
    if (throws) throw std::runtime_error("after the spawn");
    return pid;
  }
  void kill(ChildSiginfo const& child, int signal) override { real_.kill(child, signal); }
  void childDel(ChildSiginfo const& child) override { real_.childDel(child); }
  bool throws = false;

 private:
  SpawnLauncher real_;
};

TEST(ChildIntegration, ReportsExitStatusAndKillingSignal) {
  Ptr<ChildSiginfo> exiting = runArgs({"sh", "-c", "exit 7"});
  Ptr<ChildSiginfo> sleeping = runArgs({"sleep", "30"});
  EXPECT_GT(exiting->pid(), 0);
  EXPECT_GT(sleeping->pid(), 0);
  sleeping->kill(SIGKILL);
  ASSERT_TRUE(waitEnd({exiting, sleeping}));
  EXPECT_EQ(exiting->signalCode(), ChildSiginfo::exited);
  EXPECT_EQ(exiting->exitStatus(), 7);
  EXPECT_EQ(sleeping->signalCode(), ChildSiginfo::killed);
  EXPECT_EQ(sleeping->exitStatus(), SIGKILL);
  // Reaped: signalling it again reaches nothing.
  sleeping->kill(SIGKILL);
}

TEST(ChildIntegration, ProgramThatCannotStartExits127OnALaterTurn) {
  Ptr<ChildSiginfo> missing = runArgs({"filerep-no-such-program"});
  Ptr<ChildSiginfo> missingPath = runArgs({"/nonexistent/program"});
  Ptr<ChildSiginfo> notExecutable = runArgs({"/etc/passwd"});
  for (auto const& child : {missing, missingPath, notExecutable}) {
    EXPECT_EQ(child->pid(), 0);
    EXPECT_EQ(child->signalCode(), ChildSiginfo::notEnded);
  }
  ASSERT_TRUE(waitEnd({missing, missingPath, notExecutable}));
  for (auto const& child : {missing, missingPath, notExecutable}) {
    EXPECT_EQ(child->signalCode(), ChildSiginfo::exited);
    EXPECT_EQ(child->exitStatus(), 127);
  }
}

TEST(ChildIntegration, RedirectsStdioAndCopiesWhatAWaitingChildNeeds) {
  int in[2], out[2], err[2];
  ASSERT_EQ(::pipe2(in, O_CLOEXEC), 0);
  ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
  ASSERT_EQ(::pipe2(err, O_CLOEXEC), 0);
  ASSERT_EQ(::write(in[1], "hello\n", 6), 6);
  ::close(in[1]);
  char const* argv[] = {"sh", "-c", "cat; echo oops >&2", nullptr};
  Ptr<ChildSiginfo> child = run(argv, in[0], out[1], err[1], -1);
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  EXPECT_EQ(readAll(out[0]), "hello\n");
  EXPECT_EQ(readAll(err[0]), "oops\n");

  // A waiting child starts after the caller closed its descriptor and
  // overwrote its arguments.
  MaxRunning limit(1);
  Ptr<ChildSiginfo> blocker = runArgs({"sleep", "30"});
  char word[] = "queued";
  ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
  Ptr<ChildSiginfo> waiting = runArgs({"sh", "-c", "echo $1", "sh", word}, out[1]);
  ::close(out[1]);
  std::strcpy(word, "gone!!");
  EXPECT_EQ(waiting->pid(), 0);
  blocker->kill(SIGTERM);
  // The pipe holds the output; reading first would wait for a child that
  // starts only when the loop turns.
  ASSERT_TRUE(waitEnd({child, blocker, waiting}));
  EXPECT_EQ(readAll(out[0]), "queued\n");
  EXPECT_EQ(child->exitStatus(), 0);
  EXPECT_EQ(waiting->signalCode(), ChildSiginfo::exited);
  EXPECT_EQ(waiting->exitStatus(), 0);
  EXPECT_EQ(waiting->argv()[4], "queued");
}

TEST(ChildIntegration, CapturesStderrOfAChildAndOfOneThatWaitedForASlot) {
  ChildSetup setup;
  setup.captureStderr = true;
  char const* loud[] = {"sh", "-c", "echo out; echo first >&2; echo second >&2", nullptr};
  Ptr<ChildSiginfo> child = run(loud, setup);
  MaxRunning limit(1);
  char const* waits[] = {"sh", "-c", "echo later >&2; exit 3", nullptr};
  Ptr<ChildSiginfo> waiting = run(waits, setup);
  EXPECT_EQ(waiting->pid(), 0);
  ASSERT_TRUE(waitEnd({child, waiting}));
  EXPECT_EQ(child->errorOutput(), "first\nsecond\n");
  EXPECT_EQ(waiting->errorOutput(), "later\n");
  EXPECT_EQ(waiting->exitStatus(), 3);
}

TEST(ChildIntegration, ChildNeitherInheritsBlockedNorIgnoredSignals) {
  struct sigaction ignore {};
  struct sigaction previous {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGTERM, &ignore, &previous);
  sigset_t blocked, saved;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGINT);
  ::sigprocmask(SIG_BLOCK, &blocked, &saved);

  Ptr<ChildSiginfo> terminated = runArgs({"sleep", "30"});
  Ptr<ChildSiginfo> interrupted = runArgs({"sleep", "30"});
  char const* argv[] = {"sleep", "30", nullptr};
  Ptr<ChildSiginfo> leader = run(argv, -1, -1, -1, 0);
  ::sigaction(SIGTERM, &previous, nullptr);
  ::sigprocmask(SIG_SETMASK, &saved, nullptr);

  EXPECT_EQ(::getpgid(leader->pid()), leader->pid());
  EXPECT_EQ(::getpgid(terminated->pid()), ::getpgrp());
  terminated->kill(SIGTERM);
  interrupted->kill(SIGINT);
  leader->kill(SIGKILL);
  ASSERT_TRUE(waitEnd({terminated, interrupted, leader}));
  EXPECT_EQ(terminated->signalCode(), ChildSiginfo::killed);
  EXPECT_EQ(terminated->exitStatus(), SIGTERM);
  EXPECT_EQ(interrupted->signalCode(), ChildSiginfo::killed);
  EXPECT_EQ(interrupted->exitStatus(), SIGINT);
}

TEST(ChildIntegration, LeavesNoZombieAndNoDescriptor) {
  ChildManager& children = activityManager()->children();
  EventLoop& loop = activityManager()->loop();
  std::size_t const sources = loop.sources();
  // Handles are dropped at once: the manager still reaps every child.
  for (int i = 0; i < 200; ++i) runArgs({"true"});
  runArgs({"sleep", "30"})->kill(SIGKILL);
  runArgs({"filerep-no-such-program"});
  ASSERT_TRUE(loop.runUntil([&] { return children.running() == 0 && loop.deferred() == 0; }, 10));
  // Zombies and descriptors left fail any test when it ends.
  EXPECT_EQ(loop.sources(), sources);
}

TEST(ChildIntegration, ALauncherThrowingAfterTheSpawnLeavesNothingBehind) {
  {
    EventLoop loop;
    ChildManager manager(loop);
    ThrowingLauncher launcher(manager, loop);
    manager.launcherIs(&launcher);
    manager.maxRunningIs(1);
    auto blocker = manager.run({"sleep", "30"}, ChildSetup{});
    auto waiting = manager.run({"sleep", "30"}, ChildSetup{-1, STDERR_FILENO, -1, -1});
    launcher.throws = true;
    blocker->kill(SIGKILL);
    ASSERT_TRUE(loop.runUntil([&] { return blocker->signalCode() != ChildSiginfo::notEnded; }, 10));
    EXPECT_TRUE(childrenOf(getpid()).empty());
    waiting->kill(SIGKILL);
    auto direct = manager.run({"sleep", "30"}, ChildSetup{});
    EXPECT_TRUE(childrenOf(getpid()).empty());
    ASSERT_TRUE(loop.runUntil([&] { return loop.deferred() == 0; }, 10));
    for (auto const& child : {waiting, direct}) {
      EXPECT_EQ(child->signalCode(), ChildSiginfo::exited);
      EXPECT_EQ(child->exitStatus(), 127);
    }
    manager.launcherIs(nullptr);
  }
}

TEST(ChildIntegration, DestroyedManagerKillsAndReapsItsChildren) {
  Ptr<ChildSiginfo> running;
  Ptr<ChildSiginfo> waiting;
  {
    EventLoop loop;
    ChildManager manager(loop);
    manager.maxRunningIs(1);
    running = manager.run({"sleep", "30"}, ChildSetup{});
    waiting = manager.run({"sleep", "30"}, ChildSetup{-1, STDERR_FILENO, -1, -1});
    EXPECT_GT(running->pid(), 0);
    EXPECT_EQ(manager.waiting(), 1u);
  }
  EXPECT_EQ(running->signalCode(), ChildSiginfo::notEnded);
  running->kill(SIGKILL);
  waiting->kill(SIGKILL);
  EXPECT_EQ(waiting->pid(), 0);
}

}  // namespace
}  // namespace Kel
