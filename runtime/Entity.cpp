#include "runtime/Entity.h"

#include <algorithm>

namespace Kel {

Entity::~Entity() {
  for (Delivery* d = deliveries_; d; d = d->outer) d->notifierGone = true;
}

void Entity::reactorDel(Reactor* r) const {
  auto it = std::find(reactors_.begin(), reactors_.end(), r);
  if (it == reactors_.end()) return;
  if (deliveries_) {
    // Compacting now would shift the slots under a delivery in progress.
    *it = nullptr;
    ++vacancies_;
  } else {
    reactors_.erase(it);
  }
}

void Entity::endDelivery(Delivery& d) const {
  deliveries_ = d.outer;
  if (!deliveries_ && vacancies_) {
    std::erase(reactors_, nullptr);
    vacancies_ = 0;
  }
}

void Entity::zeroReferencesIs() { notify(&Reactor::onZeroReferences); }

}  // namespace Kel
