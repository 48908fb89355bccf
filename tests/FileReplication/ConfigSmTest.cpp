#include "FileReplication/ConfigSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "FileReplication/InotifyModeSm.h"
#include "FileReplication/PeriodicModeSm.h"
#include "runtime/Exception.h"
#include "tests/FileReplication/SmTest.h"
#include "tests/support/TraceCapture.h"
#include "tests/support/WhatOf.h"

namespace FileReplication {
namespace {

using testing::HasSubstr;
using Signals = std::vector<int>;

// Ends the process normally as soon as a status entry is created, so that a
// death test tells an abort before the creation from one after it.
class ExitOnStatusEntry : public Status::NotifieeConst {
 public:
  using Status::NotifieeConst::onRequester;
  void onRequester(Kel::Name) override { _exit(0); }
};

class ConfigSmTest : public SmTest {
 protected:
  void dropMachines() override {
    sm_ = nullptr;
    config_ = nullptr;
    status_ = nullptr;
  }

  // An enabled requester with one existing file of its own, sent to h1.
  Kel::Ptr<RequesterConfig> requester(char const* name, RequesterConfig::Mode mode) {
    auto rc = RequesterConfig::RequesterConfigIs(name, mode);
    rc->remoteHostIs("h1");
    rc->enabledIs(true);
    writeFile(path(name), name);
    rc->newFile(Kel::Name(path(name)), "/dst/" + std::string(name), "");
    return rc;
  }

  Kel::Ptr<Config> config_ = Config::ConfigIs();
  Kel::Ptr<Status> status_ = Status::StatusIs();
  Kel::Ptr<ConfigSm> sm_;
};

TEST_F(ConfigSmTest, RequestersOfBothModesComeAndGoWithTheirStatus) {
  auto p = requester("p", RequesterConfig::periodic);
  auto i = requester("i", RequesterConfig::inotify);
  auto d = requester("d", RequesterConfig::periodic);
  d->enabledIs(false);
  config_->requesterIs(p);
  config_->requesterIs(i);
  config_->requesterIs(d);
  sm_ = configSmFactory(config_, status_);

  EXPECT_TRUE(sm_->hasNotificationActive());
  ASSERT_EQ(3u, sm_->requesterConfigSm().size());
  EXPECT_TRUE(Kel::ptr_cast<PeriodicRequesterConfigSm>(sm_->requesterConfigSm("p")));
  EXPECT_TRUE(Kel::ptr_cast<InotifyRequesterConfigSm>(sm_->requesterConfigSm("i")));
  EXPECT_TRUE(Kel::ptr_cast<PeriodicRequesterConfigSm>(sm_->requesterConfigSm("d")));
  EXPECT_EQ(Kel::Name("i"), sm_->requesterConfigSm("i")->name());
  ASSERT_EQ(3u, status_->requesters());
  EXPECT_EQ(status_->requester("p"), sm_->requesterConfigSm("p")->requesterStatus());
  EXPECT_EQ(1u, status_->requester("p")->files());
  EXPECT_EQ(0u, status_->requester("d")->files()) << "a disabled requester tracks no file yet";
  ASSERT_EQ(2u, children_.launches()) << "each enabled file starts its first run";
  auto const pStatus = status_->requester("p")->file(Kel::Name(path("p")));

  // Added later: a machine and a status entry of its own.
  config_->requesterIs(requester("q", RequesterConfig::inotify));
  EXPECT_TRUE(Kel::ptr_cast<InotifyRequesterConfigSm>(sm_->requesterConfigSm("q")));
  EXPECT_TRUE(status_->requester("q"));
  EXPECT_EQ(3u, children_.launches());

  // Removed: the machine goes with everything it ran and watched.
  config_->requesterDel("p");
  EXPECT_EQ(nullptr, sm_->requesterConfigSm("p"));
  EXPECT_EQ(nullptr, status_->requester("p"));
  EXPECT_EQ(Signals{SIGKILL}, children_.child(0).signals);
  EXPECT_EQ(FileStatus::failed, pStatus->status());
  EXPECT_EQ(0u, p->reactors()) << "nothing of the machine still watches its configuration";
  config_->requesterDel("i");
  EXPECT_EQ(Signals{SIGKILL}, children_.child(1).signals);
  EXPECT_EQ(0u, i->reactors());
  EXPECT_TRUE(children_.child(2).signals.empty()) << "other requesters run on";

  // A status entry removed beforehand is no obstacle.
  status_->requesterDel("d");
  config_->requesterDel("d");
  EXPECT_EQ(nullptr, sm_->requesterConfigSm("d"));
  EXPECT_EQ(0u, d->reactors());
  EXPECT_EQ(1u, sm_->requesterConfigSm().size());
  EXPECT_EQ(1u, status_->requesters());

  // All at once: every machine goes, and the name can come back.
  config_->requesterDelAll();
  EXPECT_EQ(0u, sm_->requesterConfigSm().size());
  config_->requesterIs(requester("q", RequesterConfig::periodic));
  EXPECT_TRUE(Kel::ptr_cast<PeriodicRequesterConfigSm>(sm_->requesterConfigSm("q")));

  // Replaced under its name: a machine of the new entry's kind takes over.
  auto q = requester("q", RequesterConfig::inotify);
  config_->requesterIs(q);
  EXPECT_TRUE(Kel::ptr_cast<InotifyRequesterConfigSm>(sm_->requesterConfigSm("q")));
  EXPECT_EQ(q, sm_->requesterConfigSm("q")->requesterConfig());
}

TEST_F(ConfigSmTest, ALeftOverRequesterStatusIsReusedAsItStands) {
  auto rs = status_->requesterIs("p");
  auto fs = rs->fileIs(Kel::Name(path("p")));
  fs->lastSynchronizedIs(42);
  auto stale = rs->fileIs("/not/configured/any/more");
  stale->statusIs(FileStatus::synchronized);
  config_->requesterIs(requester("p", RequesterConfig::periodic));
  sm_ = configSmFactory(config_, status_);
  EXPECT_EQ(rs, status_->requester("p"));
  EXPECT_EQ(fs, rs->file(Kel::Name(path("p"))));
  EXPECT_EQ(FileStatus::inProgress, fs->status()) << "the first run writes into the entry found";
  EXPECT_EQ(42, fs->lastSynchronized());
  EXPECT_EQ(stale, rs->file("/not/configured/any/more"));
  EXPECT_EQ(FileStatus::synchronized, stale->status());

  // The same on an addition after construction.
  auto rq = status_->requesterIs("q");
  auto fq = rq->fileIs(Kel::Name(path("q")));
  config_->requesterIs(requester("q", RequesterConfig::periodic));
  EXPECT_EQ(rq, status_->requester("q"));
  EXPECT_EQ(fq, rq->file(Kel::Name(path("q"))));
  EXPECT_EQ(1u, rq->files());
}

TEST_F(ConfigSmTest, DestructionRemovesEveryMachineAndAllStatus) {
  config_->requesterIs(requester("p", RequesterConfig::periodic));
  config_->requesterIs(requester("i", RequesterConfig::inotify));
  status_->requesterIs("stray");
  sm_ = configSmFactory(config_, status_);
  ASSERT_EQ(2u, children_.launches());
  ASSERT_EQ(3u, status_->requesters());

  sm_ = nullptr;
  EXPECT_EQ(0u, status_->requesters()) << "entries of no machine go too";
  EXPECT_EQ(Signals{SIGKILL}, children_.child(0).signals);
  EXPECT_EQ(Signals{SIGKILL}, children_.child(1).signals);
  EXPECT_EQ(0u, config_->reactors());
  EXPECT_EQ(0u, config_->requester("p")->reactors());
  EXPECT_EQ(0u, config_->requester("i")->reactors());
  config_->requesterIs(requester("late", RequesterConfig::periodic));
  EXPECT_EQ(0u, status_->requesters());
  EXPECT_EQ(2u, children_.launches());
}

TEST_F(ConfigSmTest, TracesNameTheRequester) {
  config_->requesterIs(requester("p", RequesterConfig::periodic));
  Kel::TraceCapture trace("FileReplicationSm");
  sm_ = configSmFactory(config_, status_);
  config_->requesterDel("p");
  EXPECT_EQ((std::vector<std::string>{
                "void FileReplication::ConfigSm::handleRequesterConfig(): ",
                "void FileReplication::ConfigSm::handleRequesterConfig(Kel::Name): p",
                "void FileReplication::ConfigSm::handleRequesterConfig(Kel::Name): p",
            }),
            trace.messagesWith("FileReplication::ConfigSm::"));
}

TEST_F(ConfigSmTest, BrokenContractsAbortAndANullMachineIsRefused) {
  config_->requesterIs(requester("p", RequesterConfig::periodic));
  sm_ = configSmFactory(config_, status_);

  // A requester that already has a machine is never updated in place.
  EXPECT_DEATH(sm_->handleRequesterConfig("p"), HasSubstr("Assertion failed: !requesterConfigSm( name )"));

  // A mode of neither kind aborts before a status entry exists.
  auto bad = RequesterConfig::RequesterConfigIs("bad", static_cast<RequesterConfig::Mode>(2));
  EXPECT_EXIT(
      {
        Kel::Ptr<ExitOnStatusEntry> watch = new ExitOnStatusEntry;
        watch->notifierIs(status_);
        config_->requesterIs(bad);
      },
      testing::KilledBySignal(SIGABRT), HasSubstr("Assertion failed: 0 && \"invalid mode\""));

  EXPECT_EQ(
      "null _requesterConfigSm parameter to mutator for FileReplication::ConfigSm::requesterConfigSm not allowed\"",
      whatOf<Kel::RangeException>([&] { sm_->requesterConfigSmIs(nullptr); }));
  EXPECT_EQ(1u, sm_->requesterConfigSm().size());
}

// The base on its own: what binding its configuration does before any
// subclass exists, and the file statuses it keeps.
class RequesterConfigSmBaseTest : public SmTest {
 protected:
  void SetUp() override {
    rc_->remoteHostIs("h1");
    rc_->newFile("/src/a", "/dst/a", "");
    rc_->newFile("/src/b", "/dst/b", "");
    rc_->enabledIs(true);
  }
  void dropMachines() override { rc_ = nullptr; }

  Kel::Ptr<RequesterConfig> rc_ = RequesterConfig::RequesterConfigIs("r", RequesterConfig::periodic);
};

TEST_F(RequesterConfigSmBaseTest, ConstructionCatchesUpThroughTheBaseHandlers) {
  std::string const base = "virtual void FileReplication::RequesterConfigSmBase::";
  auto rs = RequesterStatus::RequesterStatusIs("r");
  {
    Kel::TraceCapture trace("FileReplicationSm");
    auto sm = requesterConfigSmBaseFactory("r", rc_, rs);
    EXPECT_EQ((std::vector<std::string>{
                  base + "handleEnabled(): ",
                  base + "handleFile(Kel::Name): /src/a",
                  base + "handleFile(Kel::Name): /src/b",
                  base + "handlePeriod(): ",
              }),
              trace.messages());
    EXPECT_TRUE(rs->file("/src/a"));
    EXPECT_TRUE(rs->file("/src/b"));
    EXPECT_EQ(nullptr, sm->remoteHostSm()) << "only a subclass creates it";
    EXPECT_TRUE(sm->enabled());
    sm->deleteIfNotExist();
    EXPECT_EQ((std::vector<std::string>{base + "deleteIfNotExist(): "}), trace.messages());
  }
  {
    auto sm = requesterConfigSmBaseFactory("r", rc_, rs);
    EXPECT_DEATH(sm->replicateFiles(), HasSubstr("Assertion failed: 0 && \"abstract method is called\""));
    EXPECT_DEATH(RequesterConfigSmBase::operations().invoke(*sm, "replicateFiles"),
                 HasSubstr("Assertion failed: 0 && \"abstract method is called\""));
  }

  // A subclass is bound whole: the catch-up reaches its own handlers, which
  // wait for handleInitialized to do the work once.
  {
    auto ps = RequesterStatus::RequesterStatusIs("r");
    Kel::TraceCapture trace("FileReplicationSm");
    auto sm = PeriodicRequesterConfigSm::PeriodicRequesterConfigSmIs("r", rc_, ps);
    auto messages = trace.messages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ("virtual void FileReplication::PeriodicRequesterConfigSm::handleEnabled()", messages.front());
    EXPECT_EQ(1, std::count(messages.begin(), messages.end(), base + "handleEnabled(): "));
    EXPECT_EQ(2u, ps->files());
  }

  // Without a configuration it is disabled and does nothing.
  auto none = RequesterStatus::RequesterStatusIs("n");
  auto sm = requesterConfigSmBaseFactory("n", nullptr, none);
  EXPECT_FALSE(sm->enabled());
  EXPECT_EQ(0u, none->files());
}

TEST_F(RequesterConfigSmBaseTest, FileStatusesFollowTheFilesOnlyWhileEnabled) {
  auto rs = RequesterStatus::RequesterStatusIs("r");
  auto sm = requesterConfigSmBaseFactory("r", rc_, rs);
  rc_->newFile("/src/c", "/dst/c", "");
  EXPECT_TRUE(rs->file("/src/c"));
  rc_->fileDel("/src/a");
  EXPECT_EQ(nullptr, rs->file("/src/a"));
  EXPECT_EQ(2u, rs->files());

  rc_->enabledIs(false);
  EXPECT_EQ(2u, rs->files()) << "disabling removes nothing";
  rc_->newFile("/src/d", "/dst/d", "");
  rc_->fileDel("/src/b");
  EXPECT_EQ(nullptr, rs->file("/src/d"));
  EXPECT_TRUE(rs->file("/src/b"));

  rc_->enabledIs(true);
  EXPECT_TRUE(rs->file("/src/d")) << "enabling walks the configured files";
  EXPECT_TRUE(rs->file("/src/b")) << "a removal missed while disabled is not made up";
  EXPECT_EQ(3u, rs->files());
  EXPECT_EQ(0u, children_.launches());
}

// Real files copied by the real Replicate, in both modes, through the
// whole machine tree.

TEST(ConfigSmIntegration, RealReplicateKeepsCopiesInStepInBothModes) {
  std::string const oldPath = getenv("PATH");
  setenv("PATH", (std::string(REPLICATE_DIR) + ":" + oldPath).c_str(), 1);
  TempDir d;
  std::filesystem::create_directory(d / "src");
  // Names that would run as code in a shell reach rsync whole.
  std::string const periodicSource = d / "src/periodic", watchedSource = d / "src/it's a $(file); x";
  std::string const periodicTarget = d / "dst/periodic", watchedTarget = d / "dst/watched";
  writeFile(periodicSource, "one");
  writeFile(watchedSource, "one");

  auto config = Config::ConfigIs();
  auto periodic = config->newRequester("p", RequesterConfig::periodic);
  periodic->periodIs(0.2);
  periodic->newFile(Kel::Name(periodicSource), periodicTarget, "");
  periodic->enabledIs(true);
  auto watched = config->newRequester("i", RequesterConfig::inotify);
  watched->newFile(Kel::Name(watchedSource), watchedTarget, "");
  watched->enabledIs(true);
  auto status = Status::StatusIs();
  auto sm = configSmFactory(config, status);
  auto& loop = Kel::activityManager()->loop();

  auto watchedStatus = status->requester("i")->file(Kel::Name(watchedSource));
  ASSERT_TRUE(loop.runUntil(
      [&] { return readFile(periodicTarget) == "one" && watchedStatus->status() == FileStatus::synchronized; }, 20));
  EXPECT_EQ("one", readFile(watchedTarget));

  writeFile(periodicSource, "the second version");
  EXPECT_TRUE(loop.runUntil([&] { return readFile(periodicTarget) == "the second version"; }, 20));
  writeFile(watchedSource, "the second version");
  EXPECT_TRUE(loop.runUntil([&] { return readFile(watchedTarget) == "the second version"; }, 20));
  // A source that is gone is deleted on the target too.
  std::filesystem::remove(periodicSource);
  EXPECT_TRUE(loop.runUntil([&] { return !std::filesystem::exists(periodicTarget); }, 20));

  sm = nullptr;
  EXPECT_EQ(0u, status->requesters());
  auto& children = Kel::activityManager()->children();
  EXPECT_TRUE(loop.runUntil([&] { return children.running() == 0; }, 20)) << "every child is reaped";
  setenv("PATH", oldPath.c_str(), 1);
}

}  // namespace
}  // namespace FileReplication
