#pragma once

#include <cstddef>
#include <list>
#include <optional>
#include <unordered_map>
#include <utility>

namespace Kel {

// A keyed collection that iterates in insertion order. Lookup, insert and
// erase are O(1); erasing one entry leaves iterators to the others valid.
template <class K, class V>
class Collection {
 public:
  using Entry = std::pair<K const, V>;
  using iterator = typename std::list<Entry>::iterator;
  using const_iterator = typename std::list<Entry>::const_iterator;

  std::size_t size() const { return index_.size(); }
  bool empty() const { return index_.empty(); }

  V* find(K const& k) {
    auto it = index_.find(k);
    return it == index_.end() ? nullptr : &it->second->second;
  }
  V const* find(K const& k) const {
    auto it = index_.find(k);
    return it == index_.end() ? nullptr : &it->second->second;
  }

  // Adds k, or replaces the value of an existing k in place (keeping its
  // position). Tells whether the key is new.
  bool insert(K const& k, V v) {
    auto it = index_.find(k);
    if (it != index_.end()) {
      it->second->second = std::move(v);
      return false;
    }
    entries_.emplace_back(k, std::move(v));
    index_.emplace(k, std::prev(entries_.end()));
    return true;
  }

  // Removes k and hands its value back, so an owner can let it go after the
  // collection is consistent again.
  std::optional<V> erase(K const& k) {
    auto it = index_.find(k);
    if (it == index_.end()) return std::nullopt;
    auto entry = it->second;
    index_.erase(it);
    std::optional<V> v(std::move(entry->second));
    entries_.erase(entry);
    return v;
  }

  // Removes the oldest entry; empty when there is none.
  std::optional<Entry> popFront() {
    if (entries_.empty()) return std::nullopt;
    index_.erase(entries_.front().first);
    std::optional<Entry> e(std::move(entries_.front()));
    entries_.pop_front();
    return e;
  }

  iterator begin() { return entries_.begin(); }
  iterator end() { return entries_.end(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }

 private:
  std::list<Entry> entries_;
  std::unordered_map<K, iterator> index_;
};

}  // namespace Kel
