#include "FileReplication/InotifyModeSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "FileReplication/InotifyWatches.h"
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

TEST_F(InotifyModeSmIntegration, FilesOfOneDirectoryShareOneWatchUnderEverySpelling) {
  auto& sm = make();
  EXPECT_TRUE(sm.initialized());
  EXPECT_TRUE(sm.remoteHostSm());
  EXPECT_EQ(Kel::Clock::never, sm.eventClockTime());
  ASSERT_EQ(1u, sm.dirSm().size());
  auto const dir1 = sm.dirSm(d1_);
  ASSERT_TRUE(dir1);
  EXPECT_EQ(2u, dir1->replicationSms());
  ASSERT_TRUE(dir1->replicationSm("a"));
  EXPECT_EQ(Kel::String(a()), dir1->replicationSm("a")->path());
  EXPECT_EQ(dir1->replicationSm("a"), sm.replicationSm(a()));
  EXPECT_EQ(rs_->file(Kel::Name(a())), dir1->replicationSm("a")->fileStatus());
  EXPECT_EQ(2u, rs_->files());
  EXPECT_EQ(2u, children_.launches()) << "each machine's own first run";
  EXPECT_EQ(dir1, sm.dirSmIs(d1_));

  // The same directory through a symbolic link: one kernel watch, and both
  // spellings hear of their files.
  std::filesystem::create_directory_symlink(d1_, path("link"));
  rc_->newFile(Kel::Name(path("link/neighbour")), "/dst/n", "");
  auto const viaLink = sm.dirSm(path("link"));
  ASSERT_TRUE(viaLink);
  std::uint32_t const wd = dir1->watchId();
  EXPECT_EQ(wd, viaLink->watchId());
  auto* const watches = InotifyWatches::current();
  EXPECT_EQ(2u, watches->holders(wd));
  endRunning();
  std::ofstream(d1_ + "/neighbour", std::ios::app) << "1";
  std::ofstream(a(), std::ios::app) << "1";
  settle();
  ASSERT_EQ(5u, children_.launches());
  EXPECT_EQ(path("link/neighbour"), children_.child(3).argv.at(6));
  EXPECT_EQ(a(), lastSource());

  rc_->fileDel(Kel::Name(path("link/neighbour")));
  EXPECT_EQ(1u, watches->holders(wd)) << "the other spelling keeps the watch";
  rc_->newFile(Kel::Name(c()), "/dst/c", "");
  EXPECT_NE(wd, watchOf(d2_));
  rc_->fileDel(Kel::Name(a()));
  EXPECT_EQ(dir1, sm.dirSm(d1_)) << "b still needs the watch";
  EXPECT_EQ(nullptr, rs_->file(Kel::Name(a())));
  rc_->fileDel(Kel::Name(b()));
  EXPECT_EQ(nullptr, sm.dirSm(d1_));
  EXPECT_EQ(0u, watches->holders(wd));
  EXPECT_EQ(1u, watches->watches());
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
  {
    Kel::TraceCapture trace("FileReplicationInotify");
    monitor->inotifyEventEnq(InotifyEvent(InotifyEvent::modified, false, 999, "a"));
    turn();
    EXPECT_EQ(std::vector<std::string>{"No directory for watch id999"}, trace.messagesWith("No directory"));
  }
  Kel::TraceCapture trace("FileReplicationSm");
  monitor->inotifyEventEnq(InotifyEvent(InotifyEvent::none, false, wid, "a"));
  monitor->inotifyEventEnq(InotifyEvent(InotifyEvent::created, false, wid, "neighbour"));
  turn();
  EXPECT_EQ(1u, trace.messagesWith("not one of our watched files").size());
  EXPECT_EQ(2u, children_.launches());

  monitor->inotifyEventEnq(InotifyEvent(InotifyEvent::modified, false, wid, "b"));
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

// A directory deleted, swapped or not there yet is watched again as soon as
// it is back, and each of its files is asked then; what happens in a
// directory moved away concerns the configuration no more.
TEST_F(InotifyModeSmIntegration, DirectoriesThatGoAndComeBackAreWatchedAgain) {
  rc_->deleteDelayIs(0);
  auto& sm = make();
  rc_->newFile(Kel::Name(path("later/sub/f")), "/dst/f", "");
  auto const later = sm.dirSm(path("later/sub"));
  EXPECT_EQ(0u, later->watchId());
  EXPECT_EQ(Kel::String(dir_.path()), later->dirWatch()->waitingOn());
  EXPECT_EQ(0, later->dirWatch()->error());
  endRunning();
  std::size_t launches = children_.launches();
  EXPECT_EQ("deleteFile", children_.last().argv.at(2)) << "a file not there is a deletion";

  std::filesystem::create_directories(path("later/sub"));
  writeFile(path("later/sub/f"), "f");
  settle();
  EXPECT_NE(0u, later->watchId());
  ASSERT_LT(launches, children_.launches());
  EXPECT_EQ(path("later/sub/f"), lastSource());
  endRunning();

  // Swapped as deploy tools do: the new directory's files are copied, and
  // edits in the old one are not ours.
  std::filesystem::create_directory(path("new"));
  writeFile(path("new/a"), "new");
  std::filesystem::rename(d1_, path("old"));
  std::filesystem::rename(path("new"), d1_);
  settle();
  endRunning();
  settle();
  launches = children_.launches();
  std::ofstream(path("old/a"), std::ios::app) << "1";
  settle();
  EXPECT_EQ(launches, children_.launches());
  std::ofstream(a(), std::ios::app) << "1";
  settle();
  ASSERT_EQ(launches + 1, children_.launches());
  EXPECT_EQ(a(), lastSource());
  endRunning();

  // Removed and made again.
  std::filesystem::remove_all(d1_);
  settle();
  endRunning();
  EXPECT_EQ(0u, watchOf(d1_));
  std::filesystem::create_directory(d1_);
  settle();
  endRunning();
  launches = children_.launches();
  writeFile(b(), "b");
  settle();
  ASSERT_EQ(launches + 1, children_.launches());
  EXPECT_EQ(b(), lastSource());
}

// A watch the kernel refuses fails the file, with the reason, and is tried
// again after retryInterval rather than at the next reload.
TEST_F(InotifyModeSmIntegration, AWatchRefusedFailsItsFilesAndIsRetried) {
  auto& sm = make();
  std::filesystem::create_directory_symlink("loop", path("loop"));
  rc_->newFile(Kel::Name(path("loop/f")), "/dst/f", "");
  auto const looped = sm.dirSm(path("loop"));
  EXPECT_EQ(ELOOP, looped->dirWatch()->error());
  endRunning();
  auto const status = rs_->file(Kel::Name(path("loop/f")));
  EXPECT_EQ(FileStatus::failed, status->status());
  EXPECT_THAT(status->lastError().str(), testing::HasSubstr("cannot watch the directory " + path("loop")));

  std::filesystem::remove(path("loop"));
  std::filesystem::create_directory(path("loop"));
  writeFile(path("loop/f"), "f");
  std::size_t const launches = children_.launches();
  clock()->advance(rc_->retryInterval());
  EXPECT_EQ(0, looped->dirWatch()->error());
  ASSERT_EQ(launches + 1, children_.launches());
  endRunning();
  EXPECT_EQ(FileStatus::synchronized, status->status());
}

// A source that is a symbolic link is replicated when what it points to
// changes, and follows the link when it is pointed elsewhere.
TEST_F(InotifyModeSmIntegration, ALinkedSourceFollowsItsTarget) {
  auto& sm = make();
  std::string const link = d2_ + "/link";
  std::filesystem::create_symlink(d1_ + "/neighbour", link);
  rc_->newFile(Kel::Name(link), "/dst/c", "");
  EXPECT_EQ(Kel::String(d1_ + "/neighbour"), *sm.linkTarget().find(link));
  endRunning();
  settle();
  std::size_t const launches = children_.launches();
  std::ofstream(d1_ + "/neighbour", std::ios::app) << "1";
  settle();
  ASSERT_EQ(launches + 1, children_.launches());
  EXPECT_EQ(link, lastSource());
  endRunning();

  writeFile(d2_ + "/other", "");
  std::filesystem::remove(link);
  std::filesystem::create_symlink(d2_ + "/other", link);
  settle();
  EXPECT_EQ(Kel::String(d2_ + "/other"), *sm.linkTarget().find(link));
  rc_->fileDel(Kel::Name(link));
  EXPECT_EQ(0u, sm.linkTarget().size());
  EXPECT_EQ(nullptr, sm.dirSm(d2_));
}

// One inotify instance serves every requester: more requesters than the
// kernel's default allowance of instances start.
TEST_F(InotifyModeSmIntegration, ManyRequestersShareOneInstance) {
  auto const instances = [] {
    int count = 0;
    for (auto const& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code ignored;
      count += std::filesystem::read_symlink(fd.path(), ignored) == "anon_inode:inotify";
    }
    return count;
  };
  make();
  std::vector<Kel::Ptr<InotifyRequesterConfigSm>> many;
  for (int i = 0; i < 140; ++i) {
    auto rc = RequesterConfig::RequesterConfigIs(Kel::Name("r" + std::to_string(i)), RequesterConfig::inotify);
    rc->newFile(Kel::Name(c()), "/dst/c" + std::to_string(i), "");
    rc->enabledIs(true);
    many.push_back(InotifyRequesterConfigSm::InotifyRequesterConfigSmIs(
        rc->name(), rc, RequesterStatus::RequesterStatusIs(rc->name())));
  }
  EXPECT_EQ(1, instances());
  EXPECT_EQ(140u, InotifyWatches::current()->holders(many.back()->dirSm(d2_)->watchId()));
  endRunning();
  many.clear();
  turn();
}

TEST_F(InotifyModeSmIntegration, AnAdditionToADisabledRequesterAborts) {
  auto& sm = make();
  rc_->enabledIs(false);
  EXPECT_DEATH(sm.addWatch(c(), FileConfig::FileConfigIs(Kel::Name(c()), "/dst/c", ""), nullptr),
               testing::HasSubstr("Assertion failed: enabled()"));
}

}  // namespace
}  // namespace FileReplication
