#include "FileReplication/InotifyModeSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "runtime/Exception.h"
#include "tests/FileReplication/SmTest.h"
#include "tests/support/TraceCapture.h"

namespace FileReplication {
namespace {

using Argv = std::vector<std::string>;
using Signals = std::vector<int>;

// Real inotify on a temporary tree: d1 holds the configured files a and b
// and an unconfigured neighbour, d2 a file c.
class InotifyModeSmIntegration : public SmTest {
 protected:
  void SetUp() override {
    d1_ = path("d1");
    d2_ = path("d2");
    std::filesystem::create_directory(d1_);
    std::filesystem::create_directory(d2_);
    for (auto const& p : {a(), b(), d1_ + "/neighbour", c()}) writeFile(p, "0");
    rc_->remoteHostIs("h1");
    rc_->newFile(Kel::Name(a()), "/dst/a", "");
    rc_->newFile(Kel::Name(b()), "/dst/b", "");
    rc_->enabledIs(true);
  }
  void dropMachines() override {
    sm_ = nullptr;
    turn();
    EXPECT_EQ(0u, rc_->reactors());
  }

  // Reads what the kernel queued, then lets the event clock drain it.
  static void settle() {
    for (int i = 0; i < 3; ++i) turn();
  }
  std::string a() const { return d1_ + "/a"; }
  std::string b() const { return d1_ + "/b"; }
  std::string c() const { return d2_ + "/c"; }

  InotifyRequesterConfigSm& make() {
    sm_ = InotifyRequesterConfigSm::InotifyRequesterConfigSmIs("r", rc_, rs_);
    return *sm_;
  }
  std::uint32_t watchOf(std::string const& dir) const { return sm_->dirSm(dir)->watchId(); }
  std::string lastSource() const { return children_.last().argv.at(6); }

  std::string d1_, d2_;
  Kel::Ptr<RequesterConfig> rc_ = RequesterConfig::RequesterConfigIs("r", RequesterConfig::inotify);
  Kel::Ptr<RequesterStatus> rs_ = RequesterStatus::RequesterStatusIs("r");
  Kel::Ptr<InotifyRequesterConfigSm> sm_;
};

TEST_F(InotifyModeSmIntegration, FilesOfOneDirectoryShareOneWatch) {
  auto& sm = make();
  EXPECT_TRUE(sm.initialized());
  EXPECT_TRUE(sm.remoteHostSm());
  EXPECT_EQ(Kel::Name("r-inotifyMonitor"), sm.inotifyMonitor()->name());
  EXPECT_EQ(Kel::Clock::never, sm.eventClockTime());
  ASSERT_EQ(1u, sm.dirSm().size());
  auto const dir1 = sm.dirSm(d1_);
  ASSERT_TRUE(dir1);
  EXPECT_EQ(2u, dir1->replicationSms());
  ASSERT_EQ(1u, sm.dirName().size());
  ASSERT_TRUE(sm.dirName(dir1->watchId()));
  EXPECT_EQ(Kel::String(d1_), *sm.dirName(dir1->watchId()));
  ASSERT_TRUE(dir1->replicationSm("a"));
  EXPECT_EQ(Kel::String("a"), dir1->replicationSm("a")->name());
  EXPECT_EQ(Kel::String(a()), dir1->replicationSm("a")->path());
  EXPECT_EQ(rs_->file(Kel::Name(a())), dir1->replicationSm("a")->fileStatus());
  EXPECT_EQ(2u, rs_->files());
  EXPECT_EQ(2u, children_.launches()) << "each machine's own first run";

  EXPECT_EQ(dir1, sm.dirSmIs(d1_, dir1->watchId()));
  EXPECT_THROW(sm.dirSmIs(d1_, dir1->watchId() + 100), Kel::NameInUseException);

  rc_->newFile(Kel::Name(c()), "/dst/c", "");
  ASSERT_EQ(2u, sm.dirSm().size());
  EXPECT_NE(dir1->watchId(), watchOf(d2_));
  EXPECT_EQ(2u, sm.dirName().size());

  rc_->fileDel(Kel::Name(a()));
  EXPECT_EQ(dir1, sm.dirSm(d1_)) << "b still needs the watch";
  EXPECT_EQ(nullptr, dir1->replicationSm("a"));
  EXPECT_EQ(nullptr, rs_->file(Kel::Name(a())));
  EXPECT_EQ(Signals{SIGKILL}, children_.child(0).signals);
  rc_->fileDel(Kel::Name(b()));
  EXPECT_EQ(nullptr, sm.dirSm(d1_));
  EXPECT_EQ(nullptr, sm.dirName(dir1->watchId()));
  EXPECT_EQ(1u, sm.dirSm().size());
  EXPECT_EQ(1u, sm.dirName().size());

  // The kernel watch went too: a change in d1 is not reported any more.
  settle();
  Kel::TraceCapture trace("FileReplicationSm");
  std::ofstream(a(), std::ios::app) << "1";
  settle();
  EXPECT_TRUE(trace.messagesWith("No directory for watch id").empty());
}

TEST_F(InotifyModeSmIntegration, ARealChangeReplicatesThatFileOnly) {
  auto& sm = make();
  endRunning();
  settle();
  ASSERT_EQ(2u, children_.launches());

  std::ofstream(a(), std::ios::app) << "1";
  turn();
  EXPECT_EQ(2u, children_.launches()) << "events wait for the event clock";
  EXPECT_EQ(clock()->now(), sm.eventClockTime());
  turn();
  ASSERT_EQ(3u, children_.launches());
  EXPECT_EQ(a(), lastSource());
  EXPECT_EQ(0u, sm.inotifyMonitor()->inotifyEvents());
  endRunning();
  settle();

  Kel::TraceCapture trace("FileReplicationSm");
  std::ofstream(d1_ + "/neighbour", std::ios::app) << "1";
  settle();
  EXPECT_FALSE(trace.messagesWith("not one of our watched files").empty());
  EXPECT_EQ(3u, children_.launches());

  // An editor's save: a new file written beside it, renamed over it.
  std::ofstream(d1_ + "/.a.swp") << "saved";
  ASSERT_EQ(0, std::rename((d1_ + "/.a.swp").c_str(), a().c_str()));
  settle();
  ASSERT_EQ(4u, children_.launches());
  EXPECT_EQ(a(), lastSource());
}

TEST_F(InotifyModeSmIntegration, QueuedEventsAreHandledTenPerClockExpiry) {
  auto& sm = make();
  endRunning();
  settle();
  auto const monitor = sm.inotifyMonitor();
  std::uint32_t const wid = watchOf(d1_);
  Kel::TraceCapture trace("FileReplicationSm");
  for (int i = 0; i < 25; ++i) monitor->inotifyEventEnq(InotifyEvent(InotifyEvent::modified, false, wid, "a"));
  EXPECT_EQ(clock()->now(), sm.eventClockTime());
  for (std::uint32_t left : {15u, 5u, 0u}) {
    turn();
    EXPECT_EQ(left, monitor->inotifyEvents());
    EXPECT_EQ(left == 0 ? 5u : 10u, trace.messagesWith("Requesting replication").size()) << left << " left";
  }
  turn();
  EXPECT_TRUE(trace.messagesWith("Requesting replication").empty());
  EXPECT_EQ(3u, children_.launches()) << "one run, the other requests folded into it";
}

// More events than the kernel queues while the agent does not read: the
// overflow asks every file once, since any of them may have changed unseen.
TEST_F(InotifyModeSmIntegration, AQueueOverflowReplicatesEveryFileOnce) {
  auto& sm = make();
  endRunning();
  settle();
  Kel::TraceCapture trace("FileReplicationSm");
  std::ifstream limit("/proc/sys/fs/inotify/max_queued_events");
  int queued = 16384;
  limit >> queued;
  for (int i = 0; i <= queued; ++i) writeFile(d1_ + "/n" + std::to_string(i), "");
  auto& loop = Kel::activityManager()->loop();
  ASSERT_TRUE(loop.runUntil([&] { return rs_->overflows() == 1 && sm.inotifyMonitor()->inotifyEvents() == 0; }, 60));
  EXPECT_EQ(1u, trace.messagesWith("Inotify queue overflowed: replicating every file once").size());
  ASSERT_EQ(4u, children_.launches());
  EXPECT_EQ(b(), lastSource());
}

TEST_F(InotifyModeSmIntegration, EventsOfNoTypeUnknownWatchesAndOtherFilesAreDropped) {
  auto& sm = make();
  endRunning();
  settle();
  auto const monitor = sm.inotifyMonitor();
  std::uint32_t const wid = watchOf(d1_);
  Kel::TraceCapture trace("FileReplicationSm");

  monitor->inotifyEventEnq(InotifyEvent(InotifyEvent::none, false, 999, "a"));
  monitor->inotifyEventEnq(InotifyEvent(InotifyEvent::none, false, wid, "a"));
  turn();
  auto const messages = trace.messages();
  EXPECT_EQ(2, std::count_if(messages.begin(), messages.end(),
                             [](auto const& m) { return m.find("handleInotifyEvent(") != std::string::npos; }));
  for (char const* reaction : {"Requesting replication", "No directory", "not one of our watched files"}) {
    EXPECT_THAT(messages, testing::Not(testing::Contains(testing::HasSubstr(reaction))));
  }

  monitor->inotifyEventEnq(InotifyEvent(InotifyEvent::modified, false, 999, "a"));
  monitor->inotifyEventEnq(InotifyEvent(InotifyEvent::created, false, wid, "neighbour"));
  turn();
  EXPECT_EQ(std::vector<std::string>{"No directory for watch id999"}, trace.messagesWith("No directory"));
  EXPECT_EQ(2u, children_.launches());

  monitor->inotifyEventEnq(InotifyEvent(InotifyEvent::created, false, wid, "neighbour"));
  turn();
  EXPECT_EQ(1u, trace.messagesWith("not one of our watched files").size());

  // A deletion replicates like any change.
  monitor->inotifyEventEnq(InotifyEvent(InotifyEvent::deleted, false, wid, "b"));
  turn();
  ASSERT_EQ(3u, children_.launches());
  EXPECT_EQ(b(), lastSource());
}

TEST_F(InotifyModeSmIntegration, PeriodIsIgnoredHostsAndDisablingActOnEveryFile) {
  auto& sm = make();
  rc_->newFile(Kel::Name(c()), "/dst/c", "");
  endRunning();
  settle();
  std::size_t const armed = clock()->armedTimers();
  {
    Kel::TraceCapture trace("FileReplicationSm");
    rc_->periodIs(5);
    EXPECT_EQ(std::vector<std::string>{"virtual void FileReplication::RequesterConfigSmBase::handlePeriod(): "},
              trace.messages());
  }
  EXPECT_EQ(armed, clock()->armedTimers());
  clock()->advance(100);
  EXPECT_EQ(3u, children_.launches());

  // A new host: every file of every directory, once, after the delay.
  rc_->remoteHostIs("h2");
  clock()->advance(5);
  ASSERT_EQ(6u, children_.launches());
  endRunning();

  unlink(c().c_str());
  sm.deleteIfNotExist();
  EXPECT_EQ(6u, children_.launches()) << "an enabled requester deletes nothing";
  rc_->enabledIs(false);
  EXPECT_EQ(2u, sm.dirSm().size()) << "disabling keeps the watches";
  sm.deleteIfNotExist();
  ASSERT_EQ(7u, children_.launches()) << "only the file whose source is gone";
  EXPECT_EQ((Argv{"Replicate", "--cmd", "deleteFile", "--remoteHosts", "h1,h2", "--target", "/dst/c"}),
            children_.last().argv);
  EXPECT_TRUE(RequesterConfigSmBase::operations().invoke(sm, "replicateFiles"));
  EXPECT_EQ(7u, children_.launches());

  std::filesystem::create_directory(path("d3"));
  std::ofstream(path("d3/e")) << "e";
  rc_->newFile(Kel::Name(path("d3/e")), "/dst/e", "");
  EXPECT_EQ(nullptr, sm.dirSm(path("d3"))) << "a disabled requester takes no new file";
  EXPECT_EQ(nullptr, rs_->file(Kel::Name(path("d3/e"))));
}

TEST_F(InotifyModeSmIntegration, AMissingDirectoryOrADisabledAdditionAborts) {
  auto& sm = make();
  EXPECT_DEATH(rc_->newFile(Kel::Name(path("missing/f")), "/dst/f", ""),
               testing::HasSubstr("Assertion failed: Utils::exists( d )"));
  rc_->enabledIs(false);
  EXPECT_DEATH(sm.addWatch(c(), FileConfig::FileConfigIs(Kel::Name(c()), "/dst/c", ""), nullptr),
               testing::HasSubstr("Assertion failed: enabled()"));
}

}  // namespace
}  // namespace FileReplication
