#pragma once

#include "entities/RequesterStatus.h"
#include "runtime/Entity.h"
#include "runtime/Name.h"
#include "runtime/NotifyingCollection.h"

namespace FileReplication {

// The status root.
class Status : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeBase<Status> {
   public:
    virtual void onRequester(Kel::Name) {}
    virtual void onRequester() {}
  };
  using Notifiee = NotifieeConst;

  using RequesterCollection = Kel::NotifyingCollection<Kel::Name, Kel::Ptr<RequesterStatus>>;

  static Kel::Ptr<Status> StatusIs() { return new Status(); }

  Kel::Ptr<RequesterStatus> requester(Kel::Name name) const { return requester_.value(name); }
  RequesterCollection const& requester() const { return requester_; }
  std::size_t requesters() const { return requester_.size(); }
  // Creates the entry, or returns the existing one as it stands.
  Kel::Ptr<RequesterStatus> requesterIs(Kel::Name name) {
    return requester_.findOrInsert(name, RequesterStatus::RequesterStatusIs);
  }
  void requesterDel(Kel::Name name) { requester_.erase(name); }
  void requesterDelAll() {
    if (requester_.clear()) notify<Notifiee>(&Notifiee::onRequester);
  }

 protected:
  Status() = default;

 private:
  RequesterCollection requester_{[this](Kel::Name const& name) { notify<Notifiee>(&Notifiee::onRequester, name); }};
};

}  // namespace FileReplication
