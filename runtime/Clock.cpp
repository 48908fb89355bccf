#include "runtime/Clock.h"

#include <time.h>

#include <algorithm>
#include <cmath>

#include "runtime/Exception.h"

namespace Kel {

namespace {

double seconds(clockid_t id) {
  timespec ts;
  clock_gettime(id, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

}  // namespace

void Clock::NotifieeConst::timeMinIs(double t) {
  if (std::isnan(t)) throwRangeException("timeMin is not a number");
  timeMin_ = t;
  Ptr<Clock const> const clock = notifier();
  if (!clock) return;
  if (t == never) {
    if (armed()) clock->disarm(this);
  } else {
    clock->arm(this, t);
  }
}

void Clock::NotifieeConst::notifierBound() {
  if (timeMin_ != never) notifier()->arm(this, timeMin_);
}

// Unbinding here, while this is still a NotifieeConst, lets the clock take
// the reactor out of its heap.
Clock::NotifieeConst::~NotifieeConst() { notifierIs(nullptr); }

Ptr<Clock> Clock::ClockIs() { return new Clock(); }

double Clock::wallNow() const { return seconds(CLOCK_REALTIME) + wallOffset_; }

double Clock::monotonicNow() const { return seconds(CLOCK_MONOTONIC); }

double Clock::deadlineNow() const { return manual_ ? manualNow_ : monotonicNow(); }

double Clock::now() const { return manual_ ? manualNow_ : wallNow(); }

void Clock::manualTimeIs(bool manual) {
  if (manual == manual_) return;
  // Pending deadlines move to the other scale by one offset, which keeps
  // their order and so the heap.
  double offset;
  if (manual) {
    manualNow_ = wallNow();
    offset = manualNow_ - monotonicNow();
  } else {
    offset = monotonicNow() - manualNow_;
  }
  for (NotifieeConst* r : heap_) r->deadline_ += offset;
  manual_ = manual;
}

void Clock::nowIs(double t) {
  if (!manual_) throwRangeException("nowIs needs manual time");
  if (!std::isfinite(t)) throwRangeException("now must be finite");
  manualNow_ = t;
}

void Clock::advance(double seconds) {
  if (!manual_) throwRangeException("advance needs manual time");
  if (!(seconds >= 0) || !std::isfinite(seconds)) throwRangeException("advance needs finite seconds >= 0");
  Ptr<Clock> const self(this);
  double const target = manualNow_ + seconds;
  while (!heap_.empty() && heap_.front()->deadline_ <= target) {
    NotifieeConst* r = heap_.front();
    manualNow_ = std::max(manualNow_, r->deadline_);
    fire(r);
  }
  manualNow_ = target;
}

double Clock::waitTime() const {
  if (heap_.empty()) return never;
  double const deadline = heap_.front()->deadline_;
  if (manual_) return deadline <= manualNow_ ? 0 : never;
  return std::max(0.0, deadline - monotonicNow());
}

std::size_t Clock::fireDue() {
  if (heap_.empty()) return 0;
  Ptr<Clock> const self(this);
  double const limit = deadlineNow();
  std::uint64_t const armedBefore = nextSequence_;
  std::size_t fired = 0;
  // Arming never sets a deadline before the present, so a reactor armed by a
  // callback here sorts after every older one due by limit: the first such
  // reactor on top ends the pass.
  while (!heap_.empty()) {
    NotifieeConst* r = heap_.front();
    if (r->deadline_ > limit || r->sequence_ >= armedBefore) break;
    if (!r->markedForDeletion()) ++fired;
    fire(r);
  }
  return fired;
}

void Clock::fire(NotifieeConst* r) {
  disarm(r);
  r->timeMin_ = never;
  if (r->markedForDeletion()) return;
  // Keep the reactor alive through its callback, which may drop the last
  // reference to it. A reactor that is not counted (a plain member of its
  // owner) is left alone: counting it would delete it.
  Ptr<NotifieeConst> const keep(r->references() ? r : nullptr);
  r->onTime();
}

void Clock::reactorDel(Reactor* r) const {
  auto* n = static_cast<NotifieeConst*>(r);
  if (n->armed()) disarm(n);
  Entity::reactorDel(r);
}

void Clock::arm(NotifieeConst* r, double timeMin) const {
  // A time already past is due now: deadlines never lie before the present,
  // so timers fall due in the order they are found due and manual time never
  // steps back.
  double const present = deadlineNow();
  double const ahead = manual_ ? timeMin - manualNow_ : timeMin - wallNow();
  r->deadline_ = present + std::max(0.0, ahead);
  r->sequence_ = nextSequence_++;
  if (r->armed()) {
    // The new key may be earlier or later than the old one.
    siftDown(r->heapIndex_);
    siftUp(r->heapIndex_);
  } else {
    heap_.push_back(r);
    r->heapIndex_ = heap_.size() - 1;
    siftUp(r->heapIndex_);
  }
}

void Clock::disarm(NotifieeConst* r) const {
  std::size_t const i = r->heapIndex_;
  NotifieeConst* last = heap_.back();
  heap_.pop_back();
  r->heapIndex_ = NotifieeConst::notArmed;
  if (i == heap_.size()) return;
  place(i, last);
  siftDown(i);
  siftUp(last->heapIndex_);
}

bool Clock::earlier(NotifieeConst const* a, NotifieeConst const* b) {
  if (a->deadline_ != b->deadline_) return a->deadline_ < b->deadline_;
  return a->sequence_ < b->sequence_;
}

void Clock::place(std::size_t i, NotifieeConst* r) const {
  heap_[i] = r;
  r->heapIndex_ = i;
}

void Clock::siftUp(std::size_t i) const {
  NotifieeConst* r = heap_[i];
  while (i > 0) {
    std::size_t const parent = (i - 1) / 2;
    if (!earlier(r, heap_[parent])) break;
    place(i, heap_[parent]);
    i = parent;
  }
  place(i, r);
}

void Clock::siftDown(std::size_t i) const {
  NotifieeConst* r = heap_[i];
  std::size_t const n = heap_.size();
  for (;;) {
    std::size_t child = 2 * i + 1;
    if (child >= n) break;
    if (child + 1 < n && earlier(heap_[child + 1], heap_[child])) ++child;
    if (!earlier(heap_[child], r)) break;
    place(i, heap_[child]);
    i = child;
  }
  place(i, r);
}

}  // namespace Kel
