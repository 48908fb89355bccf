#pragma once

#include "entities/RequesterConfig.h"
#include "runtime/Entity.h"
#include "runtime/Name.h"
#include "runtime/NotifyingCollection.h"

namespace FileReplication {

// The configuration root.
class Config : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeBase<Config> {
   public:
    virtual void onRequester(Kel::Name) {}
    virtual void onRequester() {}
  };
  using Notifiee = NotifieeConst;

  using RequesterCollection = Kel::NotifyingCollection<Kel::Name, Kel::Ptr<RequesterConfig>>;

  static Kel::Ptr<Config> ConfigIs() { return new Config(); }

  Kel::Ptr<RequesterConfig> requester(Kel::Name name) const { return requester_.value(name); }
  RequesterCollection const& requester() const { return requester_; }
  std::size_t requesters() const { return requester_.size(); }
  // Creates and adds a requester; an existing one of that name and mode is
  // returned as it is, one of another mode is a NameInUseException.
  Kel::Ptr<RequesterConfig> newRequester(Kel::Name name, RequesterConfig::Mode mode);
  // Adds a requester built beforehand, or replaces the one of that name
  // (told as its removal, then its addition).
  void requesterIs(Kel::Ptr<RequesterConfig> const& r);
  void requesterDel(Kel::Name name);
  void requesterDelAll();

 protected:
  Config() = default;

 private:
  RequesterCollection requester_{[this](Kel::Name const& name) { notify<Notifiee>(&Notifiee::onRequester, name); }};
};

}  // namespace FileReplication
