#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

namespace Kel {

// Base of every reference-counted object. The count lives in the object, so a
// raw pointer can always be turned back into a Ptr. Destructors of counted
// classes are protected: only the last Ptr deletes.
class PtrInterface {
 public:
  PtrInterface() = default;
  PtrInterface(PtrInterface const&) = delete;
  PtrInterface& operator=(PtrInterface const&) = delete;

  std::uint32_t references() const { return references_; }
  void newRef() const { ++references_; }
  void deleteRef() const {
    if (--references_ == 0) {
      // The hook may notify observers; it must not resurrect the object.
      const_cast<PtrInterface*>(this)->zeroReferencesIs();
      delete this;
    }
  }

 protected:
  virtual ~PtrInterface() = default;
  // Called once when the last reference goes, before destruction.
  virtual void zeroReferencesIs() {}

 private:
  mutable std::uint32_t references_ = 0;
};

template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* p) : p_(p) { retain(); }
  Ptr(Ptr const& o) : p_(o.p_) { retain(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  Ptr(Ptr<U> const& o) : p_(o.ptr()) {
    retain();
  }
  ~Ptr() { release(); }

  Ptr& operator=(Ptr const& o) {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) {
    Ptr().swap(*this);
    return *this;
  }

  T* ptr() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }

  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  template <class U>
  bool operator==(Ptr<U> const& o) const {
    return p_ == o.ptr();
  }
  bool operator==(std::nullptr_t) const { return p_ == nullptr; }

 private:
  void retain() const {
    if (p_) p_->newRef();
  }
  void release() {
    // Clear first: the deletion may reach back into this pointer's owner.
    if (T* p = std::exchange(p_, nullptr)) p->deleteRef();
  }

  T* p_ = nullptr;
};

[[noreturn]] void throwNullValidPtr();

// A Ptr that is never null; making one from null throws "null ValidPtr".
template <class T>
class ValidPtr : public Ptr<T> {
 public:
  ValidPtr(T* p) : Ptr<T>(p) { check(); }
  template <class U>
  ValidPtr(Ptr<U> const& o) : Ptr<T>(o) {
    check();
  }

 private:
  void check() const {
    if (!this->ptr()) throwNullValidPtr();
  }
};

template <class T, class U>
Ptr<T> ptr_cast(Ptr<U> const& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

}  // namespace Kel

template <class T>
struct std::hash<Kel::Ptr<T>> {
  std::size_t operator()(Kel::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
