#include <gtest/gtest.h>

#include "FileReplication/FileReplicationSm.h"
#include "FileReplication/PeriodicModeSm.h"
#include "tests/FileReplication/SmTest.h"
#include "tests/support/TraceCapture.h"

namespace FileReplication {
namespace {

std::string const delaying =
    "void FileReplication::RemoteHostSm::handleRemoteHost(Kel::String): Delaying replication for ";

// A periodic requester whose period never comes during a test, so that every
// run after the first ones is the remote host machine's doing.
class RemoteHostSmTest : public SmTest {
 protected:
  void SetUp() override {
    rc_->remoteHostIs("h1");
    rc_->periodIs(1e6);
    for (char const* name : {"a", "b"}) {
      writeFile(path(name), name);
      rc_->newFile(Kel::Name(path(name)), "/dst/" + std::string(name), "");
    }
    rc_->enabledIs(true);
    sm_ = PeriodicRequesterConfigSm::PeriodicRequesterConfigSmIs("r", rc_, RequesterStatus::RequesterStatusIs("r"));
    endRunning();
  }
  void dropMachines() override { sm_ = nullptr; }
  RemoteHostSm& remoteHostSm() const { return *sm_->remoteHostSm(); }

  Kel::Ptr<RequesterConfig> rc_ = RequesterConfig::RequesterConfigIs("r", RequesterConfig::periodic);
  Kel::Ptr<PeriodicRequesterConfigSm> sm_;
};

TEST_F(RemoteHostSmTest, AddedHostsGetEveryFileOnceAfterTheDelay) {
  auto& rh = remoteHostSm();
  EXPECT_EQ(sm_.ptr(), rh.requesterConfigSmBase());
  EXPECT_EQ(Kel::Clock::never, rh.remoteHostReplicationTime());
  ASSERT_EQ(2u, children_.launches());

  Kel::TraceCapture trace("FileReplicationSm");
  clock()->advance(1);
  rc_->remoteHostIs("h2");
  EXPECT_EQ(start + 6, rh.remoteHostReplicationTime());
  EXPECT_EQ(std::vector<std::string>{delaying + "5sec"}, trace.messagesWith("Delaying"));
  EXPECT_EQ(2u, children_.launches()) << "a new host alone starts nothing at once";

  clock()->advance(2);
  rc_->remoteHostIs("h3");
  EXPECT_EQ(start + 8, rh.remoteHostReplicationTime()) << "a later addition moves the deadline";
  clock()->advance(5 - 1e-3);
  EXPECT_EQ(2u, children_.launches());
  clock()->advance(1e-3);
  ASSERT_EQ(4u, children_.launches()) << "one replication of each file for both additions";
  EXPECT_EQ("h1,h2,h3", children_.child(2).argv.at(4));
  EXPECT_EQ("h1,h2,h3", children_.child(3).argv.at(4));
  EXPECT_EQ(Kel::Clock::never, rh.remoteHostReplicationTime());
  endRunning();
  clock()->advance(100);
  EXPECT_EQ(4u, children_.launches()) << "the clock is not re-armed";
  EXPECT_FALSE(rh.initialized());

  // The delay is printed with twelve significant digits and no blank.
  trace.messages();
  rc_->remoteHostReplicationDelayIs(1.0 / 3);
  rc_->remoteHostIs("h4");
  rc_->remoteHostReplicationDelayIs(1234567.8912345);
  rc_->remoteHostIs("h5");
  EXPECT_EQ((std::vector<std::string>{delaying + "0.333333333333sec", delaying + "1234567.89123sec"}),
            trace.messagesWith("Delaying"));
  EXPECT_EQ(clock()->now() + 1234567.8912345, rh.remoteHostReplicationTime());
}

TEST_F(RemoteHostSmTest, RemovalsAndAHostOfADisabledRequesterReplicateNothing) {
  auto& rh = remoteHostSm();
  Kel::TraceCapture trace("FileReplicationSm");
  rc_->remoteHostDel("h1");
  EXPECT_EQ(Kel::Clock::never, rh.remoteHostReplicationTime());
  rc_->enabledIs(false);
  rc_->remoteHostIs("h2");
  EXPECT_EQ(Kel::Clock::never, rh.remoteHostReplicationTime());
  EXPECT_TRUE(trace.messagesWith("Delaying").empty());
  clock()->advance(100);
  EXPECT_EQ(2u, children_.launches());

  // Disabled between the addition and the expiry: the requester decides, and
  // a disabled one asks for nothing.
  rc_->enabledIs(true);
  endRunning();
  std::size_t const launches = children_.launches();
  rc_->remoteHostIs("h3");
  rc_->enabledIs(false);
  trace.messages();
  clock()->advance(5);
  EXPECT_EQ(1u, trace.messagesWith("handleRemoteHostReplicationClock()").size());
  EXPECT_TRUE(trace.messagesWith("Requesting replication").empty());
  EXPECT_EQ(launches, children_.launches());
}

TEST_F(RemoteHostSmTest, AnEqualMachineIsKeptAndADeletedOneFallsSilent) {
  auto const first = sm_->remoteHostSm();
  EXPECT_EQ(first, sm_->remoteHostSmIs(sm_.ptr(), rc_));
  auto const other = RequesterConfig::RequesterConfigIs("other", RequesterConfig::periodic);
  auto const second = sm_->remoteHostSmIs(sm_.ptr(), other);
  EXPECT_NE(first, second);
  EXPECT_EQ(second, sm_->remoteHostSm());
  EXPECT_TRUE(second->hasNotificationActive());
  EXPECT_EQ(second, sm_->remoteHostSmDel());
  EXPECT_EQ(nullptr, sm_->remoteHostSm());
  EXPECT_FALSE(second->hasNotificationActive());
}

}  // namespace
}  // namespace FileReplication
