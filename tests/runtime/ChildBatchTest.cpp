#include <gtest/gtest.h>

#include <csignal>

#include "runtime/ActivityManager.h"
#include "runtime/ChildBatcher.h"
#include "runtime/ChildManager.h"
#include "runtime/ChildSiginfo.h"
#include "tests/support/ScriptedChildren.h"

namespace Kel {
namespace {

using Argv = std::vector<std::string>;

// "copy KEY NAME" children of one key share a "copy-all KEY" process that
// reads their names, one a line, and prints "0" for each name it copied.
class CopyBatcher : public ChildBatcher {
 public:
  std::string batchKey(ChildArgs const& argv) const override { return std::string(argv[0] == "copy" ? argv[1] : ""); }
  Carrier carrierOf(std::vector<Ptr<ChildSiginfo>> const& members) const override {
    Carrier carrier{{"copy-all", std::string(members.front()->argv()[1])}, ""};
    for (auto const& member : members) (carrier.input += member->argv()[2]) += "\n";
    return carrier;
  }
  std::vector<End> endsOf(std::size_t members, End carrier, std::string_view output) const override {
    std::vector<End> ends(members, carrier);
    if (carrier.code != ChildSiginfo::exited || carrier.exitStatus != 1) return ends;
    for (std::size_t i = 0; i < members; ++i) {
      bool const copied = output.size() >= 2 * i + 2 && output.substr(2 * i, 2) == "0\n";
      ends[i] = {ChildSiginfo::exited, copied ? 0 : 1};
    }
    return ends;
  }
};

class PidWatcher : public ChildSiginfo::NotifieeConst {
 public:
  explicit PidWatcher(Ptr<ChildSiginfo const> const& child) { notifierIs(child); }
  void onPid() override { pids.push_back(notifier()->pid()); }
  std::vector<pid_t> pids;
};

class ChildBatchTest : public testing::Test {
 protected:
  ChildBatchTest() { children_.batcherIs(&batcher_); }
  ~ChildBatchTest() override { children_.batcherIs(nullptr); }

  static Ptr<ChildSiginfo> copy(char const* key, char const* name, std::uint32_t limit = 3) {
    char const* argv[] = {"copy", key, name, nullptr};
    ChildSetup setup;
    setup.batchLimit = limit;
    return run(argv, setup);
  }
  static void turn() { activityManager()->loop().turn(0); }
  static bool endedWith(Ptr<ChildSiginfo> const& child, ChildSiginfo::SignalCode code, int status) {
    return child->signalCode() == code && child->exitStatus() == status;
  }

  ChildManager& children_ = activityManager()->children();
  CopyBatcher batcher_;
  ScriptedChildren scripted_;
};

TEST_F(ChildBatchTest, WhatATurnAsksForSharesAProcessAndEachEndsOnItsOwn) {
  children_.maxRunningIs(2);
  auto const first = copy("k", "a");
  EXPECT_EQ(1001, first->pid()) << "the first of a turn starts at once, alone";
  EXPECT_EQ((Argv{"copy", "k", "a"}), scripted_.last().argv);

  auto const b = copy("k", "b");
  auto const c = copy("k", "c");
  auto const d = copy("k", "d");
  auto const e = copy("k", "e");
  auto const other = copy("other", "x");
  char const* plainArgv[] = {"copy", "k", "plain", nullptr};
  auto const plain = run(plainArgv, -1, -1, -1, -1);
  Ptr<PidWatcher> watcher = new PidWatcher(b);
  EXPECT_EQ(1u, scripted_.launches()) << "the rest of the turn waits for the next";

  turn();
  ASSERT_EQ(2u, scripted_.launches());
  EXPECT_EQ((Argv{"copy-all", "k"}), scripted_.last().argv);
  EXPECT_EQ("b\nc\nd\n", scripted_.last().input) << "up to the limit, oldest first";
  auto const carrier = scripted_.last().siginfo;
  for (auto const& member : {b, c, d}) EXPECT_EQ(1002, member->pid());
  EXPECT_EQ((std::vector<pid_t>{1002}), watcher->pids);
  EXPECT_EQ(2u, children_.running()) << "a shared process takes one slot";
  EXPECT_EQ(0, e->pid());

  // A slot frees: e is alone of its key now and runs as asked, then the
  // others in their order.
  scripted_.endExited(first, 0);
  turn();
  EXPECT_TRUE(endedWith(first, ChildSiginfo::exited, 0));
  EXPECT_EQ((Argv{"copy", "k", "e"}), scripted_.last().argv);

  // Each member ends as the process's output says; a missing line fails.
  scripted_.endExited(carrier, 1, "0\n1\n");
  turn();
  EXPECT_TRUE(endedWith(b, ChildSiginfo::exited, 0));
  EXPECT_TRUE(endedWith(c, ChildSiginfo::exited, 1));
  EXPECT_TRUE(endedWith(d, ChildSiginfo::exited, 1));
  EXPECT_EQ((Argv{"copy", "other", "x"}), scripted_.last().argv);
  scripted_.endExited(e, 0);
  turn();
  EXPECT_EQ((Argv{"copy", "k", "plain"}), scripted_.last().argv) << "a child that allows no merging runs alone";
  EXPECT_EQ(5u, scripted_.launches());
  EXPECT_NE(0, other->pid());
  EXPECT_NE(0, plain->pid());
}

TEST_F(ChildBatchTest, KillingAMemberSparesTheOthersUntilNoneIsLeft) {
  auto const alone = copy("k", "a");
  auto const members = std::vector<Ptr<ChildSiginfo>>{copy("k", "b"), copy("k", "c"), copy("k", "d")};
  scripted_.endExited(alone, 0);
  turn();
  auto const carrier = scripted_.last().siginfo;
  ASSERT_EQ((Argv{"copy-all", "k"}), carrier->argv().strings());

  members[0]->kill(SIGKILL);
  turn();
  EXPECT_TRUE(endedWith(members[0], ChildSiginfo::killed, SIGKILL));
  EXPECT_TRUE(scripted_.last().signals.empty()) << "the others still need the process";

  members[1]->kill(SIGKILL);
  members[2]->kill(SIGTERM);
  EXPECT_EQ((std::vector<int>{SIGTERM}), scripted_.last().signals) << "the last one out ends it";
  turn();
  turn();
  EXPECT_TRUE(endedWith(members[1], ChildSiginfo::killed, SIGKILL));
  EXPECT_TRUE(endedWith(members[2], ChildSiginfo::killed, SIGTERM));
  EXPECT_EQ(0u, children_.running());

  // A process killed from outside fails all its members alike.
  copy("k", "e");
  auto const rest = std::vector<Ptr<ChildSiginfo>>{copy("k", "f"), copy("k", "g")};
  turn();
  scripted_.endKilled(scripted_.last().siginfo, SIGSEGV);
  turn();
  for (auto const& member : rest) EXPECT_TRUE(endedWith(member, ChildSiginfo::killed, SIGSEGV));
}

}  // namespace
}  // namespace Kel
