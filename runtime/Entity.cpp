#include "runtime/Entity.h"

namespace Kel {

static_assert(alignof(Reactor) > 1, "a reactor's address leaves its low bit for a flag");

Entity::~Entity() {
  for (Delivery* d = deliveries_; d; d = d->outer) d->notifierGone = true;
}

// A removed reactor leaves a hole, so positions stay put under a delivery in
// progress and order is kept; holes are squeezed out once they are the
// majority and no delivery is running, which keeps removal O(1) amortised.
void Entity::reactorDel(Reactor* r) const {
  std::size_t const slot = r->slot_;
  if (slot >= reactors_.size() || reactorOf(reactors_[slot]) != r) return;
  reactors_[slot] = 0;
  ++vacancies_;
  if (!deliveries_ && vacancies_ * 2 > reactors_.size()) compact();
}

void Entity::compact() const {
  std::size_t kept = 0;
  for (std::uintptr_t const entry : reactors_) {
    if (!entry) continue;
    reactorOf(entry)->slot_ = kept;
    reactors_[kept++] = entry;
  }
  reactors_.resize(kept);
  vacancies_ = 0;
}

void Entity::endDelivery(Delivery& d) const {
  deliveries_ = d.outer;
  if (!deliveries_ && vacancies_ * 2 > reactors_.size()) compact();
}

void Entity::zeroReferencesIs() { notify(&Reactor::onZeroReferences); }

}  // namespace Kel
