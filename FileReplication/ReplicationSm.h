#pragma once

#include <cstdint>
#include <ostream>

#include "FileReplication/FileReplicationUtils.h"
#include "entities/FileConfig.h"
#include "entities/FileStatus.h"
#include "entities/RequesterConfig.h"
#include "entities/RequesterStatus.h"
#include "runtime/ChildSiginfo.h"
#include "runtime/Clock.h"
#include "runtime/Entity.h"
#include "runtime/NamedOperations.h"
#include "runtime/NestedReactor.h"
#include "runtime/String.h"

namespace FileReplication {

// Keeps one configured file replicated: runs at most one Replicate child at a
// time, bounds it with the replication time-out, waits retryInterval after a
// failure, folds requests that arrive during a run into one further run, and
// records each outcome in the file's FileStatus.
class ReplicationSm : public Kel::Entity {
 public:
  enum State : std::uint32_t { disabled = 0, replicating = 1, queued = 2, standby = 3, backoff = 4 };

  class NotifieeConst : public Kel::NotifieeBase<ReplicationSm> {
   public:
    virtual void onState() {}
    virtual void onReplicationCmd() {}
    virtual void onInitialized() {}
  };
  using Notifiee = NotifieeConst;

  // requesterStatus, when given, counts the runs.
  static Kel::Ptr<ReplicationSm> ReplicationSmIs(Kel::String8 name, Kel::Ptr<RequesterConfig const> requesterConfig,
                                                 Kel::Ptr<FileConfig const> fileConfig, Kel::Ptr<FileStatus> fileStatus,
                                                 Kel::Ptr<RequesterStatus> requesterStatus = nullptr);

  Kel::String8 const& name() const { return name_; }
  Kel::Ptr<RequesterConfig const> requesterConfig() const { return requesterConfig_; }
  Kel::Ptr<FileConfig const> fileConfig() const { return fileConfig_; }
  // An entry that replaced the file's configuration; its next run uses it.
  void fileConfigIs(Kel::Ptr<FileConfig const> const& fileConfig);
  Kel::Ptr<FileStatus> fileStatus() const { return fileStatus_; }
  Kel::Ptr<RequesterStatus> requesterStatus() const { return requesterStatus_; }
  State state() const { return state_; }
  Kel::Ptr<Kel::Clock const> replicationTimeoutClock() const { return replicationTimeoutClock_; }
  Kel::Ptr<Kel::Clock const> backoffClock() const { return backoffClock_; }
  Kel::Ptr<Kel::ChildSiginfo const> replicationCmd() const { return replicationCmd_; }
  bool initialized() const { return initialized_; }

  // Derived on every use, never cached.
  Kel::String8 path() const;
  Kel::String8 dstPath() const;
  Kel::String8 rsyncOptions() const;
  Kel::String8 remoteHostsString() const;
  bool enabled() const;
  double replicationTimeout() const;
  double retryInterval() const;
  std::uint32_t maxFilesPerRun() const;
  double deleteDelay() const;
  // Why changes of the file cannot be seen (its directory cannot be watched);
  // while set, the file is failed whatever its runs do. Empty: seen.
  Kel::String const& watchError() const { return watchError_; }
  void watchErrorIs(Kel::String const& why);

  // The pending times of the two timers (+infinity when disarmed).
  double replicationTimeoutTime() const;
  double backoffTime() const;

  virtual void stateIs(State s);
  virtual void replicationTimeoutClockIs(Kel::Ptr<Kel::Clock const> const& clock);
  virtual void backoffClockIs(Kel::Ptr<Kel::Clock const> const& clock);
  virtual void replicationCmdIs(Kel::Ptr<Kel::ChildSiginfo const> const& cmd);
  virtual void initializedIs(bool v);

  void replicate();
  void deleteFile();
  void enableReplication();
  void disableReplication();

  void startReplication();
  void stopReplication();
  void startReplicationTimeoutClock();
  void startBackoffClock();
  void updateFileStatus(FileStatus::Status status);
  // A failed run whose source was renamed away or over while it ran: the
  // failure says nothing of the hosts, once.
  bool sourceReplacedDuringRun();
  void reportOutcome(FileStatus::Status status);
  // " on HOSTS", or nothing for a local copy.
  std::string hostsText() const;

  void handleInitialized();
  void handleEnabled();
  void handleReplicationTimeout();
  void handleBackoffTimeout();
  void handleReplicationCmdSignalCode();
  // The child has started: it may have waited for a slot, which the time-out
  // does not count.
  void handleReplicationCmdPid();

  // replicate, deleteFile, enableReplication and disableReplication.
  static Kel::NamedOperations<ReplicationSm> const& operations();

 protected:
  ReplicationSm(Kel::String8 name, Kel::Ptr<RequesterConfig const> requesterConfig,
                Kel::Ptr<FileConfig const> fileConfig, Kel::Ptr<FileStatus> fileStatus,
                Kel::Ptr<RequesterStatus> requesterStatus);
  ~ReplicationSm() override;

 private:
  class KelRequesterConfig;
  class KelReplicationTimeoutClock;
  class KelBackoffClock;
  class KelReplicationCmd;

  void countRun(std::uint64_t (RequesterStatus::*counter)() const, void (RequesterStatus::*counterIs)(std::uint64_t));

  Kel::String8 name_;
  Kel::Ptr<RequesterConfig const> requesterConfig_;
  Kel::Ptr<FileConfig const> fileConfig_;
  Kel::Ptr<FileStatus> fileStatus_;
  Kel::Ptr<RequesterStatus> requesterStatus_;
  State state_ = disabled;
  Kel::Ptr<Kel::Clock const> replicationTimeoutClock_;
  Kel::Ptr<Kel::Clock const> backoffClock_;
  Kel::Ptr<Kel::ChildSiginfo const> replicationCmd_;
  bool initialized_ = false;
  // When a run first found the source missing; +infinity while it is there.
  double missingSince_ = Kel::Clock::never;
  // The source the running copy started from, and whether a run that lost it
  // to a rename has been run again at once since the last success or retry.
  Utils::FileId runSource_;
  bool rerunForReplacedSource_ = false;
  Kel::String watchError_;

  Kel::Nested<KelRequesterConfig> kelRequesterConfig_;
  Kel::Nested<KelReplicationTimeoutClock> kelReplicationTimeoutClock_;
  Kel::Nested<KelBackoffClock> kelBackoffClock_;
  Kel::Nested<KelReplicationCmd> kelReplicationCmd_;
};

std::ostream& operator<<(std::ostream& o, ReplicationSm::State state);

// Failed runs in a row that make a file one to alert on: the requester's
// syncErrorThreshold, at least 1.
inline std::uint32_t alertThreshold(RequesterConfig const& requester) {
  return std::uint32_t(requester.syncErrorThreshold() > 1 ? requester.syncErrorThreshold() : 1);
}

}  // namespace FileReplication
