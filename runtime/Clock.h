#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "runtime/Entity.h"

namespace Kel {

// The timer service. Each reactor holds at most one pending time; the clock
// keeps armed reactors in a binary heap keyed by (deadline, arming sequence),
// so arming, disarming and firing cost O(log n) and equal deadlines fire in
// arming order.
//
// Times given to and returned by the clock are wall-clock seconds since the
// epoch (Kel::now()). When a reactor is armed its deadline is also taken on
// CLOCK_MONOTONIC, so stepping the wall clock neither fires nor stalls it.
//
// Manual time, for tests: the clock stops following the system clocks and
// moves only through nowIs()/advance(); advancing fires every due timer in
// deadline order with now() stepping to each deadline.
class Clock : public Entity {
 public:
  static constexpr double never = std::numeric_limits<double>::infinity();

  class NotifieeConst : public NotifieeBase<Clock> {
   public:
    double timeMin() const { return timeMin_; }
    // The absolute time at which onTime() is next called; a time at or before
    // now fires on the next turn of the loop; +infinity disarms. Arming takes
    // effect only while the reactor is bound to a clock: a reactor unbound
    // keeps its timeMin and is armed with it when bound again. timeMin is
    // +infinity again by the time onTime() is called.
    void timeMinIs(double t);
    bool armed() const { return heapIndex_ != notArmed; }

    virtual void onTime() {}

   protected:
    ~NotifieeConst() override;
    // Arms the pending timeMin on the new clock.
    void notifierBound() override;

   private:
    friend class Clock;
    static constexpr std::size_t notArmed = std::numeric_limits<std::size_t>::max();
    double timeMin_ = never;
    double deadline_ = never;  // monotonic seconds, or virtual seconds on manual time
    std::uint64_t sequence_ = 0;
    std::size_t heapIndex_ = notArmed;
  };
  using Notifiee = NotifieeConst;

  static Ptr<Clock> ClockIs();

  double now() const;
  bool manualTime() const { return manual_; }
  // Switching to manual time freezes now() at the present wall-clock time.
  void manualTimeIs(bool manual);
  // Manual time only: sets now() without firing anything.
  void nowIs(double t);
  // Manual time only: moves now() forward by seconds, firing every timer that
  // falls due on the way, in deadline order, with now() at each deadline.
  void advance(double seconds);

  // Tests only: shifts the clock's view of the wall clock by seconds, as a
  // step of the system clock would.
  double wallClockOffset() const { return wallOffset_; }
  void wallClockOffsetIs(double seconds) { wallOffset_ = seconds; }

  std::size_t armedTimers() const { return heap_.size(); }
  // Seconds until the earliest deadline (0 when one is due), +infinity when
  // nothing is armed. On manual time: 0 when one is due at now(), else +infinity.
  double waitTime() const;
  // Fires the timers that were due when the call began; a timer armed for now
  // by one of them fires on the next call. Returns how many fired.
  std::size_t fireDue();

  void reactorDel(Reactor* r) const override;

 protected:
  Clock() = default;

 private:
  double wallNow() const;
  double monotonicNow() const;
  // Now on the scale of deadlines: monotonic, or virtual on manual time.
  double deadlineNow() const;
  void fire(NotifieeConst* r);
  void arm(NotifieeConst* r, double timeMin) const;
  void disarm(NotifieeConst* r) const;
  void siftUp(std::size_t i) const;
  void siftDown(std::size_t i) const;
  void place(std::size_t i, NotifieeConst* r) const;
  static bool earlier(NotifieeConst const* a, NotifieeConst const* b);

  bool manual_ = false;
  double manualNow_ = 0;
  double wallOffset_ = 0;
  mutable std::uint64_t nextSequence_ = 0;
  mutable std::vector<NotifieeConst*> heap_;
};

}  // namespace Kel
