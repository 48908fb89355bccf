#pragma once

#include <cstdint>
#include <exception>
#include <type_traits>
#include <utility>
#include <vector>

#include "runtime/Ptr.h"
#include "runtime/Reactor.h"

namespace Kel {

// Base of every notifying object. Keeps the reactors bound to it and delivers
// notifications synchronously. A delivery goes to the reactors bound when it
// began; one unbound, destroyed or marked for deletion meanwhile gets nothing
// more, and the notifier itself may go away during delivery.
class Entity : public PtrInterface {
 public:
  // While off, the entity notifies nobody. On from construction; an owner
  // turns a machine's notifications off when it lets go of it.
  bool hasNotificationActive() const { return hasNotificationActive_; }
  virtual void hasNotificationActiveIs(bool v) { hasNotificationActive_ = v; }

  std::size_t reactors() const { return reactors_.size() - vacancies_; }

  // Registration, called by NotifieeBase::notifierIs. A notifier that keeps
  // per-reactor state (the clock's timers) extends reactorDel.
  void reactorIs(Reactor* r) const {
    r->slot_ = reactors_.size();
    reactors_.push_back(reinterpret_cast<std::uintptr_t>(r) | (r->ignoresEntries() ? ignoresEntries : 0));
  }
  virtual void reactorDel(Reactor* r) const;

 protected:
  ~Entity() override;

  // The callback's parameters are taken from the arguments, so that an
  // overloaded callback (onX(key) beside onX()) resolves by them.
  template <class N, class... Args>
  void notify(void (N::*callback)(std::type_identity_t<Args>...), Args const&... args) const {
    deliver<N>(0, callback, args...);
  }
  // The same for a notification about one entry of a collection that may be
  // large; reactors that ignore entries are passed over without being read.
  template <class N, class... Args>
  void notifyEntry(void (N::*callback)(std::type_identity_t<Args>...), Args const&... args) const {
    deliver<N>(ignoresEntries, callback, args...);
  }

  void zeroReferencesIs() override;

 private:
  struct Delivery {
    Delivery* outer;
    bool notifierGone = false;
  };

  // A bound reactor's entry: its address, with the low bit (free, as a
  // reactor is aligned) set when it ignores entries; 0 for a vacancy.
  static constexpr std::uintptr_t ignoresEntries = 1;
  static Reactor* reactorOf(std::uintptr_t entry) { return reinterpret_cast<Reactor*>(entry & ~ignoresEntries); }

  // skipped: entries with this bit get nothing.
  template <class N, class... Args>
  void deliver(std::uintptr_t skipped, void (N::*callback)(std::type_identity_t<Args>...), Args const&... args) const {
    if (reactors_.empty() || !hasNotificationActive_) return;
    Delivery d{deliveries_};
    deliveries_ = &d;
    std::exception_ptr failure;
    std::size_t const n = reactors_.size();
    for (std::size_t i = 0; i < n && !d.notifierGone; ++i) {
      std::uintptr_t const entry = reactors_[i];
      if (entry & skipped) continue;
      Reactor* r = reactorOf(entry);
      if (!r || r->markedForDeletion()) continue;
      // A callback may drop the last pointer to its own reactor and then
      // throw; the catch below still talks to it. A reactor that lives as a
      // plain member is counted by nobody, and its owner keeps it.
      Ptr<Reactor> const keep(r->references() ? r : nullptr);
      try {
        (static_cast<N*>(r)->*callback)(args...);
      } catch (...) {
        try {
          r->onNotificationException();
        } catch (...) {
          if (!failure) failure = std::current_exception();
        }
      }
    }
    if (!d.notifierGone) endDelivery(d);
    if (failure) std::rethrow_exception(failure);
  }
  void endDelivery(Delivery& d) const;
  void compact() const;

  bool hasNotificationActive_ = true;
  mutable std::vector<std::uintptr_t> reactors_;
  mutable std::uint32_t vacancies_ = 0;
  mutable Delivery* deliveries_ = nullptr;
};

// Assigns v to field and tells whether it changed; the notifying scalar
// mutators use it so that setting the present value notifies nobody.
template <class T>
bool changed(T& field, T const& v) {
  if (field == v) return false;
  field = v;
  return true;
}

}  // namespace Kel
