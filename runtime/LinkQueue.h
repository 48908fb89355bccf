#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>

#include "runtime/Exception.h"

namespace Kel {

// An ordered queue whose members carry a 32-bit index. An enqueued member
// takes the tail index and the tail advances; a dequeue removes the head.
// Indices wrap modulo the index space (2^32 unless a smaller one is given).
template <class T>
class LinkQueue {
 public:
  static constexpr std::uint64_t fullIndexSpace = std::uint64_t(1) << 32;

  // Indices are 32 bits, so the space is at most 2^32, and it holds at
  // least the index given first.
  explicit LinkQueue(std::uint32_t firstIndex = 0, std::uint64_t indexSpace = fullIndexSpace)
      : space_(indexSpace), head_(firstIndex), tail_(firstIndex) {
    if (indexSpace == 0 || indexSpace > fullIndexSpace || firstIndex >= indexSpace) {
      throwRangeException("linkqueue index space " + std::to_string(indexSpace) + " with first index " +
                          std::to_string(firstIndex));
    }
  }

  std::uint32_t head() const { return head_; }
  std::uint32_t tail() const { return tail_; }
  // Bumped on every change, so a reader can tell the queue moved.
  std::uint64_t version() const { return version_; }
  std::uint32_t members() const { return members_; }
  bool empty() const { return members_ == 0; }

  // Returns the index the member took.
  std::uint32_t enq(T v) {
    std::uint32_t const next = advance(tail_);
    if (next == head_) throwRangeException("linkqueue index space full");
    slots_.emplace_back(std::move(v));
    std::uint32_t const index = tail_;
    tail_ = next;
    ++members_;
    ++version_;
    return index;
  }

  // Removes the head member; empty when there is none.
  std::optional<T> deq() {
    while (!slots_.empty()) {
      std::optional<T> v = std::move(slots_.front());
      popFront();
      if (v) {
        --members_;
        ++version_;
        return v;
      }
    }
    return std::nullopt;
  }

  T const* at(std::uint32_t index) const {
    std::uint64_t const offset = distance(head_, index);
    if (offset >= slots_.size() || !slots_[offset]) return nullptr;
    return &*slots_[offset];
  }

  bool del(std::uint32_t index) {
    std::uint64_t const offset = distance(head_, index);
    if (offset >= slots_.size() || !slots_[offset]) return false;
    slots_[offset].reset();
    --members_;
    ++version_;
    while (!slots_.empty() && !slots_.front()) popFront();
    return true;
  }

  void delAll() {
    while (!slots_.empty()) popFront();
    members_ = 0;
    ++version_;
  }

 private:
  std::uint32_t advance(std::uint32_t i) const { return std::uint32_t((std::uint64_t(i) + 1) % space_); }
  std::uint64_t distance(std::uint32_t from, std::uint32_t to) const {
    return (std::uint64_t(to) + space_ - from) % space_;
  }
  void popFront() {
    slots_.pop_front();
    head_ = advance(head_);
  }

  std::uint64_t space_;
  std::uint32_t head_;
  std::uint32_t tail_;
  std::uint32_t members_ = 0;
  std::uint64_t version_ = 0;
  // Slot i holds index head_ + i; a deleted member leaves an empty slot
  // until it reaches the head.
  std::deque<std::optional<T>> slots_;
};

}  // namespace Kel
