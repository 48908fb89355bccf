#pragma once

#include <type_traits>
#include <utility>

#include "runtime/Ptr.h"

namespace Kel {

// Base of a reactor that an owner keeps to hear from one notifier and that
// forwards each callback to a handler of the owner. The back pointer is raw:
// the owner holds the reactor through Nested, which cuts it off before the
// owner goes.
template <class Owner, class Notifiee>
class NestedReactor : public Notifiee {
 public:
  explicit NestedReactor(Owner* owner) : owner_(owner) {}

 protected:
  Owner* owner() const { return owner_; }

 private:
  Owner* owner_;
};

// An owner's hold on its nested reactor R. Letting go (destroyed, released or
// replaced) marks R for deletion and unbinds it, so that nothing reaches an
// owner that is gone. A delivery in progress holds R by Ptr, so an owner may
// go inside R's own callback: R lives until the callback returns.
template <class R>
class Nested {
 public:
  Nested() = default;
  template <class A, class... Args>
  requires(!std::is_same_v<std::remove_cvref_t<A>, Nested>) explicit Nested(A&& a, Args&&... args)
      : r_(new R(std::forward<A>(a), std::forward<Args>(args)...)) {}
  Nested(Nested&& o) noexcept = default;
  Nested& operator=(Nested&& o) noexcept {
    Nested(std::move(o)).swap(*this);
    return *this;
  }
  ~Nested() { release(); }

  void release() {
    Ptr<R> const r = std::move(r_);
    if (!r) return;
    r->markedForDeletionIs(true);
    r->notifierIs(nullptr);
  }

  R* get() const { return r_.ptr(); }
  R* operator->() const { return get(); }
  explicit operator bool() const { return bool(r_); }

 private:
  void swap(Nested& o) noexcept { r_.swap(o.r_); }

  Ptr<R> r_;
};

}  // namespace Kel
