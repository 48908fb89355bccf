#include "entities/Config.h"

#include "runtime/Exception.h"

namespace FileReplication {

using Notifiee = Config::NotifieeConst;

Kel::Ptr<RequesterConfig> Config::newRequester(Kel::Name name, RequesterConfig::Mode mode) {
  if (auto present = requester(name)) {
    if (present->mode() != mode) throw Kel::NameInUseException("requester " + name.str() + " exists with another mode");
    return present;
  }
  auto r = RequesterConfig::RequesterConfigIs(name, mode);
  requesterIs(r);
  return r;
}

void Config::requesterIs(Kel::Ptr<RequesterConfig> const& r) {
  auto const* present = requester_.find(r->name());
  if (present && *present == r) return;
  // The machines build a requester's machine when it arrives: the entry it
  // replaces leaves first, as a removal.
  if (present) requesterDel(r->name());
  requester_.insert(r->name(), r);
}

void Config::requesterDel(Kel::Name name) { requester_.erase(name); }

void Config::requesterDelAll() {
  // Each requester's machine goes with it, as for requesterDel.
  if (requester_.eraseAll()) notify<Notifiee>(&Notifiee::onRequester);
}

}  // namespace FileReplication
