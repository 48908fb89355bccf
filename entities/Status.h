#pragma once

#include "entities/RequesterStatus.h"
#include "runtime/Collection.h"
#include "runtime/Entity.h"
#include "runtime/Name.h"

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

  using RequesterCollection = Kel::Collection<Kel::Name, Kel::Ptr<RequesterStatus>>;

  static Kel::Ptr<Status> StatusIs() { return new Status(); }

  Kel::Ptr<RequesterStatus> requester(Kel::Name name) const {
    auto const* r = requester_.find(name);
    return r ? *r : nullptr;
  }
  RequesterCollection const& requester() const { return requester_; }
  std::size_t requesters() const { return requester_.size(); }
  // Creates the entry, or returns the existing one as it stands.
  Kel::Ptr<RequesterStatus> requesterIs(Kel::Name name) {
    if (auto present = requester(name)) return present;
    auto r = RequesterStatus::RequesterStatusIs(name);
    requester_.insert(name, r);
    notify<NotifieeConst>(&NotifieeConst::onRequester, name);
    return r;
  }
  void requesterDel(Kel::Name name) {
    if (auto removed = requester_.erase(name)) notify<NotifieeConst>(&NotifieeConst::onRequester, name);
  }
  void requesterDelAll() {
    if (requester_.empty()) return;
    RequesterCollection removed;
    std::swap(removed, requester_);
    notify<NotifieeConst>(&NotifieeConst::onRequester);
  }

 protected:
  Status() = default;

 private:
  RequesterCollection requester_;
};

}  // namespace FileReplication
