#pragma once

#include <cstddef>

#include "runtime/Ptr.h"

namespace Kel {

class Entity;

// Base of every reactor (notifiee). A reactor is bound to at most one notifier
// and holds it by Ptr while bound, so a notifier outlives its reactors.
class Reactor : public PtrInterface {
 public:
  // A reactor marked for deletion receives no more callbacks.
  bool markedForDeletion() const { return markedForDeletion_; }
  void markedForDeletionIs(bool v) { markedForDeletion_ = v; }

  // Called inside the catch block when a callback of this reactor threw.
  // The default rethrows: the notifier finishes the fan-out to the other
  // reactors and then rethrows the first such exception to its caller.
  virtual void onNotificationException() { throw; }

  // The notifier's last reference went.
  virtual void onZeroReferences() {}

  // Whether this reactor is spared the notifications a notifier sends per
  // entry of a collection that may be large (Entity::notifyEntry). One of
  // many reactors on a notifier, a machine per file under its requester's
  // configuration, has no use for the other files' entries, and being
  // skipped costs nothing: adding a file then does not cost a call per file.
  // Takes effect when the reactor is bound.
  bool ignoresEntries() const { return ignoresEntries_; }
  void ignoresEntriesIs(bool v) { ignoresEntries_ = v; }

 protected:
  friend class Entity;
  ~Reactor() override = default;

 private:
  bool markedForDeletion_ = false;
  bool ignoresEntries_ = false;
  // Position in the bound notifier's list, so unbinding costs O(1).
  std::size_t slot_ = 0;
};

// Reactor bound to notifiers of type T; T::NotifieeConst derives from it and
// adds T's callbacks.
template <class T>
class NotifieeBase : public Reactor {
 public:
  using Notifier = T;

  Ptr<T const> notifier() const { return notifier_; }

  // Rebinding unregisters from the old notifier; null unbinds. Binding to a
  // non-null notifier calls onNotifier() so the owner can catch up.
  void notifierIs(Ptr<T const> const& n) {
    if (n == notifier_) return;
    Ptr<T const> old = notifier_;
    if (old) old->reactorDel(this);
    notifier_ = n;
    if (n) {
      n->reactorIs(this);
      notifierBound();
      if (!markedForDeletion()) onNotifier();
    }
  }

  virtual void onNotifier() {}

 protected:
  // For reactor kinds that keep state with their notifier (a clock reactor's
  // pending time); runs before onNotifier, which is the owner's to override.
  virtual void notifierBound() {}

 protected:
  ~NotifieeBase() override {
    if (notifier_) notifier_->reactorDel(this);
  }

 private:
  Ptr<T const> notifier_;
};

}  // namespace Kel
