#pragma once

#include "FileReplication/FileReplicationSm.h"
#include "entities/Config.h"
#include "entities/Status.h"
#include "runtime/Entity.h"
#include "runtime/NestedReactor.h"
#include "runtime/NotifyingCollection.h"

namespace FileReplication {

// The root machine: one requester machine per requester of the
// configuration, of the kind its mode asks for, and a RequesterStatus for
// each of them.
class ConfigSm : public Kel::Entity {
 public:
  using RequesterConfigSmCollection = Kel::NotifyingCollection<Kel::Name, Kel::Ptr<RequesterConfigSmBase>>;

  static Kel::Ptr<ConfigSm> ConfigSmIs(Kel::Ptr<Config const> config, Kel::Ptr<Status> status);

  Kel::Ptr<Config const> config() const;
  Kel::Ptr<Status> status() const { return status_; }
  Kel::Ptr<RequesterConfigSmBase> requesterConfigSm(Kel::Name name) const { return requesterConfigSm_.value(name); }
  RequesterConfigSmCollection const& requesterConfigSm() const { return requesterConfigSm_; }
  void requesterConfigSmIs(Kel::Ptr<RequesterConfigSmBase> const& sm);
  Kel::Ptr<RequesterConfigSmBase> requesterConfigSmDel(Kel::Name name);
  void requesterConfigSmDelAll();

  void handleRequesterConfig();
  void handleRequesterConfig(Kel::Name name);

  virtual void doCleanup();

 protected:
  ConfigSm(Kel::Ptr<Config const> config, Kel::Ptr<Status> status);
  ~ConfigSm() override;

 private:
  class KelConfig;

  Kel::Nested<KelConfig> config_;
  Kel::Ptr<Status> status_;
  RequesterConfigSmCollection requesterConfigSm_;
};

Kel::Ptr<ConfigSm> configSmFactory(Kel::Ptr<Config const> config, Kel::Ptr<Status> status);

}  // namespace FileReplication
