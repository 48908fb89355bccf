#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <utility>

#include "runtime/Collection.h"

namespace Kel {

// The keyed entries of an owner that tells its reactors of each key that
// comes, changes or goes. The owner hands in that notification as the hook;
// when a key is told, and what still stands then, is decided here once.
// Without a hook nobody is told. Keys of the mutators are taken by value: a
// caller may pass the entry's own key, which the change frees.
template <class K, class V>
class NotifyingCollection {
 public:
  using Hook = std::function<void(K const&)>;
  using const_iterator = typename Collection<K, V>::const_iterator;

  explicit NotifyingCollection(Hook tell = nullptr) : tell_(std::move(tell)) {}

  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }

  V const* find(K const& k) const { return entries_.find(k); }
  // The value under k; a null one when there is none.
  V value(K const& k) const {
    V const* v = entries_.find(k);
    return v ? *v : V();
  }

  // Adds k, or replaces its value in place; the value it has already is no
  // change and is told to nobody.
  void insert(K k, V v) {
    if (V const* present = entries_.find(k); present && *present == v) return;
    entries_.insert(k, std::move(v));
    tell(k);
  }

  // The value under k; without one, make(k)'s, added and told.
  template <class Make>
  V findOrInsert(K k, Make const& make) {
    if (V const* present = entries_.find(k)) return *present;
    V v = make(k);
    entries_.insert(k, v);
    tell(k);
    return v;
  }

  // The removed value lives until k has been told, and goes back to the
  // caller; empty when k was not there.
  std::optional<V> erase(K k) {
    std::optional<V> removed = entries_.erase(k);
    if (removed) tell(k);
    return removed;
  }

  // Removes every entry, oldest first and each as erase would: it is told,
  // and let go, while the rest still stand. Tells whether there was any.
  bool eraseAll() {
    bool const any = !empty();
    while (auto e = entries_.popFront()) tell(e->first);
    return any;
  }

  // Removes every entry at once and tells no key, for an owner whose
  // reactors hear only of the whole collection. Tells whether there was any.
  bool clear() { return !std::exchange(entries_, Collection<K, V>()).empty(); }

 private:
  void tell(K const& k) const {
    if (tell_) tell_(k);
  }

  Collection<K, V> entries_;
  Hook tell_;
};

}  // namespace Kel
