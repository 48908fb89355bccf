#include "FileReplication/PeriodicModeSm.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "tests/FileReplication/SmTest.h"
#include "tests/support/TraceCapture.h"

namespace FileReplication {
namespace {

using Argv = std::vector<std::string>;
using Signals = std::vector<int>;
constexpr double period = 30;

class PeriodicModeSmTest : public SmTest {
 protected:
  void SetUp() override {
    for (char const* name : {"a", "b", "c"}) writeFile(path(name), name);
    rc_->remoteHostIs("h1");
    rc_->periodIs(period);
    rc_->newFile(Kel::Name(path("a")), "/dst/a", "");
    rc_->newFile(Kel::Name(path("b")), "/dst/b", "");
    rc_->enabledIs(true);
  }
  void dropMachines() override {
    sm_ = nullptr;
    turn();
    EXPECT_EQ(0u, rc_->reactors()) << "nothing watches the configuration any more";
  }

  PeriodicRequesterConfigSm& make() {
    sm_ = PeriodicRequesterConfigSm::PeriodicRequesterConfigSmIs("r", rc_, rs_);
    return *sm_;
  }
  // The sources of the runs started from launch first on.
  std::vector<std::string> sources(std::size_t first) const {
    std::vector<std::string> out;
    for (std::size_t i = first; i < children_.launches(); ++i) out.push_back(children_.child(i).argv.at(6));
    return out;
  }

  Kel::Ptr<RequesterConfig> rc_ = RequesterConfig::RequesterConfigIs("r", RequesterConfig::periodic);
  Kel::Ptr<RequesterStatus> rs_ = RequesterStatus::RequesterStatusIs("r");
  Kel::Ptr<PeriodicRequesterConfigSm> sm_;
};

TEST_F(PeriodicModeSmTest, AllFilesAreAskedEveryPeriodFromEachHandledExpiry) {
  auto& sm = make();
  EXPECT_TRUE(sm.initialized());
  EXPECT_TRUE(sm.remoteHostSm());
  EXPECT_EQ(clock(), sm.clock());
  ASSERT_EQ(2u, sm.replicationSm().size());
  EXPECT_EQ(Kel::String(path("a")), sm.replicationSm(path("a"))->name());
  EXPECT_EQ(rs_->file(Kel::Name(path("a"))), sm.replicationSm(path("a"))->fileStatus());
  EXPECT_EQ(2u, rs_->files());
  EXPECT_EQ((std::vector<std::string>{path("a"), path("b")}), sources(0)) << "each machine's own first run";
  EXPECT_EQ(start + period, sm.clockTime());
  endRunning();

  Kel::TraceCapture trace("FileReplicationSm");
  clock()->advance(period - 1e-3);
  EXPECT_EQ(2u, children_.launches());
  clock()->advance(1e-3);
  EXPECT_EQ((std::vector<std::string>{path("a"), path("b")}), sources(2));
  EXPECT_EQ(2u, trace.messagesWith("Requesting replication").size());
  EXPECT_EQ(start + 2 * period, sm.clockTime());
  endRunning();

  // Handled late, an expiry counts the next period from when it ran.
  clock()->nowIs(start + 2 * period + 7);
  EXPECT_EQ(4u, children_.launches());
  turn();
  EXPECT_EQ(6u, children_.launches());
  EXPECT_EQ(start + 3 * period + 7, sm.clockTime());
}

TEST_F(PeriodicModeSmTest, DisablingParksTheClockAndEnablingCatchesUp) {
  auto& sm = make();
  endRunning();
  clock()->advance(10);
  rc_->enabledIs(false);
  EXPECT_EQ(Kel::Clock::never, sm.clockTime());
  EXPECT_EQ(2u, sm.replicationSm().size()) << "nothing is torn down";
  rc_->newFile(Kel::Name(path("c")), "/dst/c", "");
  EXPECT_EQ(nullptr, sm.replicationSm(path("c")));
  EXPECT_EQ(nullptr, rs_->file(Kel::Name(path("c"))));
  clock()->advance(10 * period);
  EXPECT_EQ(2u, children_.launches());

  rc_->enabledIs(true);
  double const enabledAt = start + 10 + 10 * period;
  EXPECT_EQ(enabledAt + period, sm.clockTime());
  ASSERT_TRUE(sm.replicationSm(path("c")));
  EXPECT_TRUE(rs_->file(Kel::Name(path("c"))));
  EXPECT_EQ(3u, sm.replicationSm().size());
  EXPECT_EQ(5u, children_.launches()) << "the two re-enabled and the new machine start a run";
  endRunning();
  clock()->advance(period);
  EXPECT_EQ(8u, children_.launches());
}

TEST_F(PeriodicModeSmTest, APeriodChangeRestartsTheWaitAndZeroAsksOnEveryPass) {
  auto& sm = make();
  endRunning();
  clock()->advance(20);
  rc_->periodIs(50);
  EXPECT_EQ(start + 70, sm.clockTime());
  clock()->advance(50 - 1e-3);
  EXPECT_EQ(2u, children_.launches());
  clock()->advance(1e-3);
  EXPECT_EQ(4u, children_.launches());
  endRunning();

  Kel::TraceCapture trace("FileReplicationSm");
  rc_->periodIs(0);
  EXPECT_EQ(clock()->now(), sm.clockTime());
  for (int pass = 1; pass <= 3; ++pass) {
    turn();
    EXPECT_EQ(2u, trace.messagesWith("Requesting replication").size()) << "pass " << pass;
    EXPECT_EQ(clock()->now(), sm.clockTime());
  }
  EXPECT_EQ(6u, children_.launches()) << "later requests fold into the running ones";
  rc_->periodIs(period);
  turn();
  EXPECT_TRUE(trace.messagesWith("Requesting replication").empty());
  EXPECT_EQ(clock()->now() + period, sm.clockTime());
}

TEST_F(PeriodicModeSmTest, RemovingAFileStopsItsMachineAtOnceReplacingItRedirectsTheNextRun) {
  auto& sm = make();
  auto const aStatus = rs_->file(Kel::Name(path("a")));
  rc_->fileDel(Kel::Name(path("a")));
  EXPECT_EQ(nullptr, sm.replicationSm(path("a")));
  EXPECT_EQ(nullptr, rs_->file(Kel::Name(path("a"))));
  EXPECT_EQ(Signals{SIGKILL}, children_.child(0).signals);
  EXPECT_EQ(FileStatus::failed, aStatus->status());
  EXPECT_TRUE(children_.child(1).signals.empty());
  endRunning();
  clock()->advance(period);
  EXPECT_EQ((std::vector<std::string>{path("b")}), sources(2));
  endRunning();
  rc_->fileIs(FileConfig::FileConfigIs(Kel::Name(path("b")), "/dst/b2", ""));
  clock()->advance(period);
  EXPECT_EQ("/dst/b2", children_.last().argv.at(8));

  // Destruction stops the rest and deletes nothing remotely.
  unlink(path("b").c_str());
  sm_ = nullptr;
  EXPECT_EQ(Signals{SIGKILL}, children_.last().signals);
  EXPECT_EQ(4u, children_.launches());
}

TEST_F(PeriodicModeSmTest, OperationsByNameAndTheirSenseWhenDisabled) {
  auto& sm = make();
  endRunning();
  auto const& operations = RequesterConfigSmBase::operations();
  EXPECT_EQ((std::vector<Kel::Name>{"replicateFiles", "deleteIfNotExist"}), operations.names());
  Kel::TraceCapture trace("FileReplicationSm");
  EXPECT_TRUE(operations.invoke(sm, "replicateFiles"));
  EXPECT_EQ((std::vector<std::string>{path("a"), path("b")}), sources(2));
  EXPECT_EQ(2u, trace.messagesWith("Requesting replication").size());
  endRunning();

  unlink(path("a").c_str());
  EXPECT_TRUE(operations.invoke(sm, "deleteIfNotExist"));
  EXPECT_EQ(4u, children_.launches()) << "an enabled requester deletes nothing";

  rc_->enabledIs(false);
  trace.messages();
  EXPECT_TRUE(operations.invoke(sm, "replicateFiles"));
  EXPECT_EQ(4u, children_.launches());
  EXPECT_TRUE(trace.messagesWith("Requesting replication").empty());
  EXPECT_TRUE(operations.invoke(sm, "deleteIfNotExist"));
  ASSERT_EQ(5u, children_.launches()) << "only the file whose source is gone";
  EXPECT_EQ((Argv{"Replicate", "--cmd", "deleteFile", "--remoteHosts", "h1", "--target", "/dst/a"}),
            children_.last().argv);
  EXPECT_FALSE(operations.invoke(sm, "replicate"));
}

}  // namespace
}  // namespace FileReplication
