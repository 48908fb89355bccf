#pragma once

#include "entities/Config.h"
#include "entities/RequesterConfig.h"
#include "entities/RequesterStatus.h"
#include "entities/Status.h"
#include "runtime/Clock.h"
#include "runtime/Collection.h"
#include "runtime/Entity.h"
#include "runtime/NamedOperations.h"

namespace FileReplication {

class RemoteHostSm;

// The mode-independent part of the machine of one requester: keeps the
// requester's FileStatus entries in step with its files while it is enabled,
// owns its RemoteHostSm, and declares what the periodic and inotify kinds
// override.
class RequesterConfigSmBase : public Kel::Entity {
 public:
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
  virtual Kel::Ptr<RemoteHostSm> remoteHostSmDel();
  virtual Kel::Ptr<RemoteHostSm> remoteHostSmIs(RequesterConfigSmBase* base,
                                                Kel::Ptr<RequesterConfig const> requesterConfig);
  // Marks the nested reactors for deletion, so nothing reaches a machine
  // that is being torn down.
  virtual void zombieReactorsDel();
  virtual void requesterConfigDel();
  virtual void requesterConfigIs(Kel::Ptr<RequesterConfig const> const& requesterConfig);

  // handleFile(name) for every configured file.
  void handleFile();

  // replicateFiles and deleteIfNotExist.
  static Kel::NamedOperations<RequesterConfigSmBase> const& operations();

 protected:
  RequesterConfigSmBase(Kel::Name name, Kel::Ptr<RequesterConfig const> requesterConfig,
                        Kel::Ptr<RequesterStatus> requesterStatus);
  ~RequesterConfigSmBase() override;

 private:
  class KelRequesterConfig;

  Kel::Name name_;
  Kel::Ptr<KelRequesterConfig> requesterConfig_;
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

  virtual void zombieReactorsDel();

 protected:
  RemoteHostSm(RequesterConfigSmBase* requesterConfigSmBase, Kel::Ptr<RequesterConfig const> requesterConfig);
  ~RemoteHostSm() override;

 private:
  class KelRequesterConfig;
  class KelRemoteHostReplicationClock;

  RequesterConfigSmBase* requesterConfigSmBase_;
  Kel::Ptr<KelRequesterConfig> requesterConfig_;
  Kel::Ptr<KelRemoteHostReplicationClock> remoteHostReplicationClock_;
  bool initialized_ = false;
};

// The root machine: one requester machine per requester of the
// configuration, of the kind its mode asks for, and a RequesterStatus for
// each of them.
class ConfigSm : public Kel::Entity {
 public:
  using RequesterConfigSmCollection = Kel::Collection<Kel::Name, Kel::Ptr<RequesterConfigSmBase>>;

  static Kel::Ptr<ConfigSm> ConfigSmIs(Kel::Ptr<Config const> config, Kel::Ptr<Status> status);

  Kel::Ptr<Config const> config() const;
  Kel::Ptr<Status> status() const { return status_; }
  Kel::Ptr<RequesterConfigSmBase> requesterConfigSm(Kel::Name name) const;
  RequesterConfigSmCollection const& requesterConfigSm() const { return requesterConfigSm_; }
  void requesterConfigSmIs(Kel::Ptr<RequesterConfigSmBase> const& sm);
  Kel::Ptr<RequesterConfigSmBase> requesterConfigSmDel(Kel::Name name);
  void requesterConfigSmDelAll();

  void handleRequesterConfig();
  void handleRequesterConfig(Kel::Name name);

  virtual void doCleanup();
  virtual void zombieReactorsDel();

 protected:
  ConfigSm(Kel::Ptr<Config const> config, Kel::Ptr<Status> status);
  ~ConfigSm() override;

 private:
  class KelConfig;

  Kel::Ptr<KelConfig> config_;
  Kel::Ptr<Status> status_;
  RequesterConfigSmCollection requesterConfigSm_;
};

Kel::Ptr<ConfigSm> configSmFactory(Kel::Ptr<Config const> config, Kel::Ptr<Status> status);
Kel::Ptr<RequesterConfigSmBase> requesterConfigSmBaseFactory(Kel::Name name,
                                                             Kel::Ptr<RequesterConfig const> requesterConfig,
                                                             Kel::Ptr<RequesterStatus> requesterStatus);

}  // namespace FileReplication
