#pragma once

#include "FileReplication/FileReplicationSm.h"
#include "FileReplication/ReplicationSm.h"
#include "runtime/Clock.h"
#include "runtime/NestedReactor.h"
#include "runtime/NotifyingCollection.h"

namespace FileReplication {

// The machine of a periodic requester: one ReplicationSm per configured
// file, all asked to replicate every period seconds while enabled.
class PeriodicRequesterConfigSm : public RequesterConfigSmBase {
 public:
  using ReplicationSmCollection = Kel::NotifyingCollection<Kel::String, Kel::Ptr<ReplicationSm>>;

  static Kel::Ptr<PeriodicRequesterConfigSm> PeriodicRequesterConfigSmIs(
      Kel::Name name, Kel::Ptr<RequesterConfig const> requesterConfig, Kel::Ptr<RequesterStatus> requesterStatus);

  // key is the file's full path.
  Kel::Ptr<ReplicationSm> replicationSm(Kel::String const& key) const override;
  ReplicationSmCollection const& replicationSm() const { return replicationSm_; }
  // Returns the existing machine under key, given fileConfig, or creates one.
  Kel::Ptr<ReplicationSm> replicationSmIs(Kel::String const& key, Kel::Ptr<RequesterConfig const> requesterConfig,
                                          Kel::Ptr<FileConfig const> fileConfig, Kel::Ptr<FileStatus> fileStatus);
  void replicationSmDel(Kel::String const& key);
  void replicationSmDelAll();

  Kel::Ptr<Kel::Clock const> clock() const;
  void clockIs(Kel::Ptr<Kel::Clock const> const& clock);
  void clockDel();
  // The next expiry, +infinity while parked.
  double clockTime() const;
  double nextPeriodicRun() const override { return clockTime(); }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleEnabled() override;
  void handleFile(Kel::Name name) override;
  void handlePeriod() override;
  void handleClock();
  void replicateFiles() override;
  void deleteIfNotExist() override;

 protected:
  PeriodicRequesterConfigSm(Kel::Name name, Kel::Ptr<RequesterStatus> requesterStatus);
  ~PeriodicRequesterConfigSm() override;

 private:
  class KelClock;

  ReplicationSmCollection replicationSm_;
  Kel::Nested<KelClock> clock_;
  bool initialized_ = false;
};

}  // namespace FileReplication
