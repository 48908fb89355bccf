#pragma once

#include <limits>

#include "entities/RequesterConfig.h"
#include "entities/RequesterStatus.h"
#include "runtime/Clock.h"
#include "runtime/Collection.h"
#include "runtime/Entity.h"
#include "runtime/NamedOperations.h"
#include "runtime/NestedReactor.h"

namespace FileReplication {

class RemoteHostSm;
class ReplicationSm;

// The mode-independent part of the machine of one requester: keeps the
// requester's FileStatus entries in step with its files while it is enabled,
// owns its RemoteHostSm, and declares what the periodic and inotify kinds
// override.
class RequesterConfigSmBase : public Kel::Entity {
 public:
  // Directory -> why its changes cannot be seen now.
  using UnwatchedCollection = Kel::Collection<Kel::String, Kel::String>;

  static Kel::Ptr<RequesterConfigSmBase> RequesterConfigSmBaseIs(Kel::Name name,
                                                                 Kel::Ptr<RequesterConfig const> requesterConfig,
                                                                 Kel::Ptr<RequesterStatus> requesterStatus);

  Kel::Name name() const { return name_; }
  Kel::Ptr<RequesterConfig const> requesterConfig() const;
  Kel::Ptr<RequesterStatus> requesterStatus() const { return requesterStatus_; }
  Kel::Ptr<RemoteHostSm> remoteHostSm() const;
  // False without a configuration.
  bool enabled() const;

  virtual void handleEnabled();
  virtual void handleFile(Kel::Name name);
  virtual void handlePeriod();
  virtual void replicateFiles();
  virtual void deleteIfNotExist();
  // The machine of a configured file, by its full path; null for none.
  virtual Kel::Ptr<ReplicationSm> replicationSm(Kel::String const& path) const;
  // Empty for a mode that watches no directory.
  virtual UnwatchedCollection unwatchedDirectories() const;
  // When every file is next run on the requester's period; +infinity for a
  // mode without one.
  virtual double nextPeriodicRun() const { return std::numeric_limits<double>::infinity(); }
  virtual Kel::Ptr<RemoteHostSm> remoteHostSmDel();
  virtual Kel::Ptr<RemoteHostSm> remoteHostSmIs(RequesterConfigSmBase* base,
                                                Kel::Ptr<RequesterConfig const> requesterConfig);
  virtual void requesterConfigDel();
  virtual void requesterConfigIs(Kel::Ptr<RequesterConfig const> const& requesterConfig);

  // handleFile(name) for every configured file.
  void handleFile();

  // replicateFiles and deleteIfNotExist.
  static Kel::NamedOperations<RequesterConfigSmBase> const& operations();

 protected:
  // Unbound: each factory binds the configuration once the whole machine
  // exists, so that catching up reaches the subclass's handlers.
  RequesterConfigSmBase(Kel::Name name, Kel::Ptr<RequesterStatus> requesterStatus);
  ~RequesterConfigSmBase() override;

  // What a subclass's factory returns: sm bound, then initialised.
  template <class Sm>
  static Kel::Ptr<Sm> started(Sm* sm, Kel::Ptr<RequesterConfig const> const& requesterConfig) {
    Kel::Ptr<Sm> const held = sm;
    held->requesterConfigIs(requesterConfig);
    held->handleInitialized();
    return held;
  }

 private:
  class KelRequesterConfig;

  // remoteHostSmDel without the virtual call, for the destructor.
  Kel::Ptr<RemoteHostSm> releaseRemoteHostSm();

  Kel::Name name_;
  Kel::Nested<KelRequesterConfig> requesterConfig_;
  Kel::Ptr<RequesterStatus> requesterStatus_;
  Kel::Ptr<RemoteHostSm> remoteHostSm_;
};

// Replicates all files of a requester remoteHostReplicationDelay seconds
// after a remote host was added while it is enabled, so the new host gets
// them; further additions meanwhile move the deadline.
class RemoteHostSm : public Kel::Entity {
 public:
  static Kel::Ptr<RemoteHostSm> RemoteHostSmIs(RequesterConfigSmBase* requesterConfigSmBase,
                                               Kel::Ptr<RequesterConfig const> requesterConfig);

  RequesterConfigSmBase* requesterConfigSmBase() const { return requesterConfigSmBase_; }
  Kel::Ptr<RequesterConfig const> requesterConfig() const;
  // The pending replication time, +infinity when none.
  double remoteHostReplicationTime() const;
  // Never set: no handler consults it, so additions count from construction.
  bool initialized() const { return initialized_; }
  bool enabled() const;

  void handleInitialized();
  void handleRemoteHost(Kel::String hostOrIp);
  void handleRemoteHostReplicationClock();

 protected:
  RemoteHostSm(RequesterConfigSmBase* requesterConfigSmBase, Kel::Ptr<RequesterConfig const> requesterConfig);
  ~RemoteHostSm() override;

 private:
  class KelRequesterConfig;
  class KelRemoteHostReplicationClock;

  RequesterConfigSmBase* requesterConfigSmBase_;
  Kel::Nested<KelRequesterConfig> requesterConfig_;
  Kel::Nested<KelRemoteHostReplicationClock> remoteHostReplicationClock_;
  bool initialized_ = false;
};

Kel::Ptr<RequesterConfigSmBase> requesterConfigSmBaseFactory(Kel::Name name,
                                                             Kel::Ptr<RequesterConfig const> requesterConfig,
                                                             Kel::Ptr<RequesterStatus> requesterStatus);

}  // namespace FileReplication
