#include "FileReplication/ReplicationSm.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "tests/FileReplication/SmTest.h"
#include "tests/support/TraceCapture.h"

namespace FileReplication {
namespace {

using Argv = std::vector<std::string>;

class ReplicationSmTest : public SmTest {
 protected:
  void SetUp() override {
    source_ = path("source");
    writeFile(source_, "content");
    rc_ = RequesterConfig::RequesterConfigIs("r", RequesterConfig::periodic);
    rc_->remoteHostIs("h1");
    rc_->replicationTimeoutIs(60);
    rc_->retryIntervalIs(10);
    rc_->enabledIs(true);
    fc_ = FileConfig::FileConfigIs(Kel::Name(source_), "/dst/file", "-a");
    fs_ = FileStatus::FileStatusIs(Kel::Name(source_));
  }
  void dropMachines() override { sm_ = nullptr; }

  ReplicationSm& make() {
    sm_ = ReplicationSm::ReplicationSmIs(Kel::String8(source_), rc_, fc_, fs_);
    return *sm_;
  }
  Argv copyArgv() const {
    return {"Replicate", "--cmd",    "rsyncFile", "--remoteHosts",  "h1", "--source",
            source_,     "--target", "/dst/file", "--rsyncOptions", "-a"};
  }
  void end(std::size_t child, int status) {
    children_.endExited(children_.child(child).siginfo, status);
    turn();
  }

  std::string source_;
  Kel::Ptr<RequesterConfig> rc_;
  Kel::Ptr<FileConfig> fc_;
  Kel::Ptr<FileStatus> fs_;
  Kel::Ptr<ReplicationSm> sm_;
};

TEST_F(ReplicationSmTest, ConstructionStartsARunAndSuccessRecordsTheTime) {
  auto& sm = make();
  EXPECT_TRUE(sm.initialized());
  EXPECT_EQ(ReplicationSm::replicating, sm.state());
  EXPECT_EQ(FileStatus::inProgress, fs_->status());
  ASSERT_EQ(1u, children_.launches());
  EXPECT_EQ(copyArgv(), children_.child(0).argv);
  EXPECT_EQ(start + 60, sm.replicationTimeoutTime()) << "armed before the child started";
  EXPECT_EQ(Kel::Clock::never, sm.backoffTime());

  clock()->advance(3);
  end(0, 0);
  EXPECT_EQ(ReplicationSm::standby, sm.state());
  EXPECT_EQ(FileStatus::synchronized, fs_->status());
  EXPECT_EQ(start + 3, fs_->lastSynchronized());
  EXPECT_EQ(nullptr, sm.replicationCmd());
  EXPECT_EQ(Kel::Clock::never, sm.replicationTimeoutTime());

  sm.replicate();  // standby: a new run at once
  EXPECT_EQ(ReplicationSm::replicating, sm.state());
  EXPECT_EQ(2u, children_.launches());
  EXPECT_EQ(start + 3, fs_->lastSynchronized()) << "only success moves lastSynchronized";
}

TEST_F(ReplicationSmTest, RequestsDuringARunFoldIntoOneFurtherRun) {
  auto& sm = make();
  sm.replicate();
  sm.replicate();
  sm.replicate();
  EXPECT_EQ(ReplicationSm::queued, sm.state());
  EXPECT_EQ(1u, children_.launches());
  end(0, 0);
  EXPECT_EQ(ReplicationSm::replicating, sm.state());
  EXPECT_EQ(FileStatus::inProgress, fs_->status()) << "the queued run started and wrote inProgress again";
  EXPECT_EQ(start, fs_->lastSynchronized());
  ASSERT_EQ(2u, children_.launches());
  end(1, 0);
  EXPECT_EQ(ReplicationSm::standby, sm.state());
  EXPECT_EQ(2u, children_.launches());
}

TEST_F(ReplicationSmTest, FailureBacksOffForTheRetryIntervalAndDropsRequests) {
  auto& sm = make();
  sm.replicate();  // queued
  clock()->advance(2);
  end(0, 1);
  EXPECT_EQ(ReplicationSm::backoff, sm.state()) << "a failure while queued does not start the queued run";
  EXPECT_EQ(FileStatus::failed, fs_->status());
  EXPECT_EQ(start + 12, sm.backoffTime());
  EXPECT_EQ(Kel::Clock::never, sm.replicationTimeoutTime());
  sm.replicate();
  EXPECT_EQ(ReplicationSm::backoff, sm.state());
  clock()->advance(10 - 1e-3);
  EXPECT_EQ(1u, children_.launches()) << "not before the interval";
  clock()->advance(1e-3);
  EXPECT_EQ(ReplicationSm::replicating, sm.state());
  ASSERT_EQ(2u, children_.launches());
  // Killed by a signal, or any non-zero status, is a failure too; the
  // interval is the same every time.
  children_.endKilled(children_.child(1).siginfo, SIGTERM);
  turn();
  EXPECT_EQ(ReplicationSm::backoff, sm.state());
  EXPECT_EQ(clock()->now() + 10, sm.backoffTime());

  // A save by rename under the run fails it for no fault of the host: run
  // again at once, but once, so that a dead host still backs off.
  clock()->advance(10);
  ASSERT_EQ(3u, children_.launches());
  replaceFile(source_, "saved");
  end(2, 23);
  EXPECT_EQ(ReplicationSm::replicating, sm.state());
  ASSERT_EQ(4u, children_.launches());
  replaceFile(source_, "again");
  end(3, 23);
  EXPECT_EQ(ReplicationSm::backoff, sm.state());
}

TEST_F(ReplicationSmTest, TimeOutKillsTheChildAndItsLateExitChangesNothing) {
  Kel::TraceCapture trace("FileReplicationSm");
  children_.endOnKillIs(false);
  auto& sm = make();
  sm.replicate();  // queued
  clock()->advance(60 - 1e-3);
  EXPECT_TRUE(children_.child(0).signals.empty());
  clock()->advance(1e-3);
  EXPECT_EQ((std::vector<int>{SIGKILL}), children_.child(0).signals);
  EXPECT_EQ(ReplicationSm::backoff, sm.state());
  EXPECT_EQ(FileStatus::failed, fs_->status());
  EXPECT_EQ(nullptr, sm.replicationCmd());
  EXPECT_EQ(start + 70, sm.backoffTime());
  end(0, 0);  // the killed child's exit, reported late, even as a success
  EXPECT_EQ(ReplicationSm::backoff, sm.state());
  EXPECT_EQ(FileStatus::failed, fs_->status());
  EXPECT_EQ(1u, trace.messagesWith(" to failed").size()) << "status failed is written once";
}

// Each run counts once, by how it ended: the late exit of a child killed by
// the time-out adds nothing, nor does a run stopped by disabling.
TEST_F(ReplicationSmTest, CountsEachRunOnceByItsOutcome) {
  auto const rs = RequesterStatus::RequesterStatusIs("r");
  children_.endOnKillIs(false);
  sm_ = ReplicationSm::ReplicationSmIs(Kel::String8(source_), rc_, fc_, fs_, rs);
  end(0, 0);
  sm_->replicate();
  end(1, 1);
  clock()->advance(10);
  clock()->advance(60);
  end(2, 0);
  clock()->advance(10);
  ASSERT_EQ(4u, children_.launches());
  rc_->enabledIs(false);
  EXPECT_EQ((std::vector<std::uint64_t>{4, 1, 1, 1}),
            (std::vector<std::uint64_t>{rs->runsStarted(), rs->runsSucceeded(), rs->runsFailed(), rs->runsTimedOut()}));
}

TEST_F(ReplicationSmTest, TimeOutCountsFromTheStartOfTheChildNotFromTheWaitForASlot) {
  Kel::activityManager()->children().maxRunningIs(1);
  auto slow = RequesterConfig::RequesterConfigIs("slow", RequesterConfig::periodic);
  slow->remoteHostIs("h1");
  slow->replicationTimeoutIs(1000);
  slow->enabledIs(true);
  writeFile(path("other"), "");
  auto fc2 = FileConfig::FileConfigIs(Kel::Name(path("other")), "/dst/other", "-a");
  auto first = ReplicationSm::ReplicationSmIs("other", slow, fc2, nullptr);
  auto& sm = make();
  EXPECT_EQ(ReplicationSm::replicating, sm.state());
  EXPECT_EQ(Kel::Clock::never, sm.replicationTimeoutTime()) << "waiting for a slot is not timed";
  clock()->advance(100);
  EXPECT_EQ(ReplicationSm::replicating, sm.state()) << "never killed for waiting";
  EXPECT_EQ(FileStatus::inProgress, fs_->status());
  end(0, 0);
  EXPECT_NE(0, sm.replicationCmd()->pid());
  EXPECT_EQ(start + 160, sm.replicationTimeoutTime());
  first = nullptr;
}

TEST_F(ReplicationSmTest, DisablingInEachStateStopsWhatIsRunning) {
  auto& sm = make();
  rc_->enabledIs(false);  // replicating: the child is killed
  EXPECT_EQ(ReplicationSm::disabled, sm.state());
  EXPECT_EQ((std::vector<int>{SIGKILL}), children_.child(0).signals);
  EXPECT_EQ(FileStatus::failed, fs_->status());
  EXPECT_EQ(0u, fs_->failuresInRow()) << "a stop is no failure to log or alert on";
  EXPECT_EQ("the run was stopped when replication was disabled", fs_->lastError().str());
  EXPECT_EQ(Kel::Clock::never, sm.replicationTimeoutTime());
  sm.replicate();
  EXPECT_EQ(ReplicationSm::disabled, sm.state()) << "requests while disabled are dropped";

  rc_->enabledIs(true);  // re-enabling starts a run at once
  EXPECT_EQ(ReplicationSm::replicating, sm.state());
  ASSERT_EQ(2u, children_.launches());
  end(1, 2);
  EXPECT_EQ(ReplicationSm::backoff, sm.state());
  {
    Kel::TraceCapture trace("FileReplicationSm");
    rc_->enabledIs(false);  // backoff: the timer is disarmed and never fires
    EXPECT_EQ(1u, trace.messagesWith(": Resetting backoff timer").size());
  }
  EXPECT_EQ(ReplicationSm::disabled, sm.state());
  EXPECT_EQ(Kel::Clock::never, sm.backoffTime());
  clock()->advance(100);
  EXPECT_EQ(2u, children_.launches());

  rc_->enabledIs(true);
  end(2, 0);
  EXPECT_EQ(ReplicationSm::standby, sm.state());
  rc_->enabledIs(false);
  EXPECT_EQ(ReplicationSm::disabled, sm.state());
  EXPECT_EQ(FileStatus::synchronized, fs_->status()) << "nothing was running";
}

TEST_F(ReplicationSmTest, LocalCopyOntoItselfIsNeverRunUntilAHostAppears) {
  rc_->remoteHostDelAll();
  fc_->dstPathIs(Kel::String8(source_));
  auto& sm = make();
  EXPECT_EQ(ReplicationSm::disabled, sm.state());
  EXPECT_EQ(0u, children_.launches());
  rc_->remoteHostIs("h2");
  EXPECT_EQ(ReplicationSm::replicating, sm.state());
  ASSERT_EQ(1u, children_.launches());
  EXPECT_EQ("h2", children_.child(0).argv[4]);
  rc_->remoteHostDel("h2");
  EXPECT_EQ(ReplicationSm::disabled, sm.state()) << "the host went: a copy onto itself again";

  // Other spellings of the same file are the same file.
  ASSERT_EQ(0, symlink(dir_.path().c_str(), path("link").c_str()));
  for (auto const& spelling : {dir_ / "./source", path("link") + "/source"}) {
    sm_ = nullptr;
    fc_->dstPathIs(Kel::String8(spelling));
    EXPECT_EQ(ReplicationSm::disabled, make().state()) << spelling;
  }
  EXPECT_EQ(1u, children_.launches());
}

TEST_F(ReplicationSmTest, LocalCopyAndDeletionOfAMissingSourceLeaveOutTheHosts) {
  rc_->remoteHostDelAll();
  auto& sm = make();
  EXPECT_EQ(
      (Argv{"Replicate", "--cmd", "rsyncFile", "--source", source_, "--target", "/dst/file", "--rsyncOptions", "-a"}),
      children_.child(0).argv);
  end(0, 0);
  // A rename-based save: the name is missing for a moment, and the copy is
  // not deleted meanwhile.
  unlink(source_.c_str());
  sm.replicate();
  EXPECT_EQ(1u, children_.launches()) << "a missing source waits deleteDelay";
  EXPECT_EQ(FileStatus::inProgress, fs_->status());
  clock()->advance(0.1);
  writeFile(source_, "saved");
  sm.replicate();
  ASSERT_EQ(2u, children_.launches());
  EXPECT_EQ("rsyncFile", children_.last().argv.at(2));
  end(1, 0);

  unlink(source_.c_str());
  sm.replicate();
  clock()->advance(rc_->deleteDelay() / 2);
  EXPECT_EQ(2u, children_.launches());
  clock()->advance(rc_->deleteDelay() / 2 + 1e-6);
  ASSERT_EQ(3u, children_.launches());
  EXPECT_EQ((Argv{"Replicate", "--cmd", "deleteFile", "--target", "/dst/file"}), children_.child(2).argv);
  end(2, 0);
  EXPECT_EQ(FileStatus::synchronized, fs_->status()) << "a deletion run is judged like a copy";
}

// Only a source that is not there is deleted: one that stat() cannot reach
// for another reason (here a loop of links, EACCES for anyone but root)
// fails the run, says why, and deletes nothing.
TEST_F(ReplicationSmTest, ASourceThatCannotBeStatedFailsTheRunAndDeletesNothing) {
  ASSERT_EQ(0, symlink("loop", path("loop").c_str()));
  fc_ = FileConfig::FileConfigIs(Kel::Name(path("loop/file")), "/dst/file", "-a");
  auto& sm = make();
  EXPECT_EQ(0u, children_.launches());
  EXPECT_EQ(ReplicationSm::backoff, sm.state());
  EXPECT_EQ(FileStatus::failed, fs_->status());
  EXPECT_EQ("cannot stat the source: Too many levels of symbolic links", fs_->lastError().str());
  EXPECT_EQ(start + 10, sm.backoffTime());
  sm.deleteFile();
  EXPECT_EQ(0u, children_.launches()) << "nor through deleteFile";

  ASSERT_EQ(0, unlink(path("loop").c_str()));
  clock()->advance(10 + rc_->deleteDelay());
  ASSERT_EQ(1u, children_.launches()) << "missing now: the retry deletes the copy";
  EXPECT_EQ("deleteFile", children_.last().argv.at(2));
  EXPECT_EQ("", fs_->lastError().str());
}

TEST_F(ReplicationSmTest, DeleteFileIsFireAndForgetAndOnlyWhenTheSourceIsGone) {
  auto& sm = make();
  end(0, 0);
  sm.deleteFile();
  EXPECT_EQ(1u, children_.launches()) << "the source exists";
  unlink(source_.c_str());
  sm.deleteFile();
  ASSERT_EQ(2u, children_.launches());
  EXPECT_EQ((Argv{"Replicate", "--cmd", "deleteFile", "--remoteHosts", "h1", "--target", "/dst/file"}),
            children_.child(1).argv);
  EXPECT_EQ(ReplicationSm::standby, sm.state());
  EXPECT_EQ(nullptr, sm.replicationCmd());
  EXPECT_EQ(Kel::Clock::never, sm.replicationTimeoutTime());
  end(1, 1);
  EXPECT_EQ(ReplicationSm::standby, sm.state());
  EXPECT_EQ(FileStatus::synchronized, fs_->status());
}

TEST_F(ReplicationSmTest, TracesOfARunFromStartToSuccess) {
  Kel::TraceCapture trace("FileReplicationSm");
  clock()->nowIs(1795383422.125);
  auto& sm = make();
  end(0, 0);
  std::string const sig = "void FileReplication::ReplicationSm::";
  std::string const status = sig + "updateFileStatus(FileReplication::FileStatus::Status)";
  EXPECT_EQ((std::vector<std::string>{
                sig + "handleInitialized(): ",
                sig + "handleEnabled(): State=disabled src=" + source_ +
                    " dst=/dst/file enabled=1 remoteHostsString=h1 noRemoteForSameDstPath=0",
                sig + "enableReplication(): State=disabled",
                sig + "enableReplication(): Changing state to replicating",
                sig + "startReplication(): State=replicating",
                status + ": ",
                status + "Updating status of " + source_ + " to inProgress",
                sig + "startReplication()hostsString=h1 path=" + source_ + " dstPath=/dst/file rsyncOptions=-a",
                sig + "startReplication(): Syncing file",
                sig + "handleReplicationCmdSignalCode(): State=replicating SignalCode=notEnded ExitStatus=0",
                sig + "handleReplicationCmdPid(): State=replicating",
                sig + "startReplicationTimeoutClock(): State=replicating",
                sig + "startReplicationTimeoutClock(): Setting replication timeout to 60sec",
                sig + "handleReplicationCmdSignalCode(): State=replicating SignalCode=exited ExitStatus=0",
                sig + "handleReplicationCmdSignalCode()Replication was successful",
                sig + "handleReplicationCmdSignalCode(): Changing state to standby",
                status + ": ",
                status + "Updating status of " + source_ + " to synchronized",
                status + source_ + " is synced at: 1795383422.12",
            }),
            trace.messages());
  EXPECT_EQ(ReplicationSm::standby, sm.state());
}

TEST_F(ReplicationSmTest, LateSuccessOutsideARunIsANoOpAndMissingStatusIsReported) {
  fs_ = nullptr;
  Kel::TraceCapture trace("FileReplicationSm");
  auto& sm = make();
  EXPECT_EQ(1u, trace.messagesWith("No file status for file: " + source_).size());
  end(0, 0);
  EXPECT_EQ(ReplicationSm::standby, sm.state());
  // An ended child bound in standby reports at once on binding.
  auto child = Kel::run(std::vector<char const*>{"Replicate", nullptr}.data(), -1, -1, -1, -1);
  children_.endExited(child, 0);
  turn();
  trace.messages();
  sm.replicationCmdIs(child);
  EXPECT_EQ(1u, trace.messagesWith("handleReplicationCmdSignalCode()NoOp").size());
  EXPECT_EQ(ReplicationSm::standby, sm.state());
}

TEST_F(ReplicationSmTest, OperationsByNameAndStateTextForms) {
  auto& sm = make();
  end(0, 0);
  EXPECT_TRUE(ReplicationSm::operations().invoke(sm, "replicate"));
  EXPECT_EQ(ReplicationSm::replicating, sm.state());
  EXPECT_TRUE(ReplicationSm::operations().invoke(sm, "disableReplication"));
  EXPECT_EQ(ReplicationSm::disabled, sm.state());
  EXPECT_TRUE(ReplicationSm::operations().invoke(sm, "enableReplication"));
  EXPECT_EQ(ReplicationSm::replicating, sm.state());
  EXPECT_FALSE(ReplicationSm::operations().invoke(sm, "format"));
  std::ostringstream text;
  for (int s = 0; s <= 5; ++s) text << static_cast<ReplicationSm::State>(s) << ' ';
  EXPECT_EQ("disabled replicating queued standby backoff ReplicationSm::State(5) ", text.str());
}

}  // namespace
}  // namespace FileReplication
