#pragma once

#include <cstdint>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "FileReplication/Inotify.h"
#include "runtime/Clock.h"
#include "runtime/NestedReactor.h"
#include "runtime/Ptr.h"

namespace FileReplication {

// The process's one inotify instance, shared by every watch of every
// requester, so that a thousand requesters cost one instance of the kernel's
// small per-user allowance. The kernel gives one watch id per watched inode:
// two spellings of a directory, or two requesters watching it, hold the same
// id here, and the kernel watch goes when the last holder lets go.
//
// Events are handed out at most ten per turn of the event loop, so a flood
// cannot hold up the rest of it.
class InotifyWatches : public Kel::PtrInterface {
 public:
  class Subscriber {
   public:
    // An event on a watch this subscriber holds. When the watched path
    // itself is gone (deleted, moved away, unmounted: a `deleted` event with
    // no name), the watch has already been dropped for all its holders.
    virtual void onWatchEvent(InotifyEvent const&) {}
    // The kernel's queue overflowed: any event of any watch may be lost.
    virtual void onOverflow() {}

   protected:
    ~Subscriber() = default;
  };

  // The shared instance, made on first use and closed when its last user
  // lets go. Throws Kel::ErrnoException when the kernel refuses an instance.
  static Kel::Ptr<InotifyWatches> instance();
  // The shared instance if there is one, without making it.
  static InotifyWatches* current();

  Kel::Ptr<InotifyMonitor> inotifyMonitor() const { return monitor_; }
  // The next drain of the event queue, +infinity when none is due.
  double eventClockTime() const;
  // Distinct watch ids held.
  std::size_t watches() const { return holders_.size(); }
  std::size_t holders(std::uint32_t watchId) const;
  // Overflows seen so far, so that each user counts one once.
  std::uint64_t overflows() const { return overflows_; }

  // The watch id of the directory path, now held by the (registered)
  // subscriber too, or minus the errno of the kernel's refusal.
  int watchIs(Kel::String const& path, Subscriber* subscriber);
  void watchDel(std::uint32_t watchId, Subscriber* subscriber);
  // Every subscriber, holding a watch or not, registers here, hears of
  // overflows, and lets go before it is destroyed.
  void subscriberIs(Subscriber* subscriber) { subscribers_.insert(subscriber); }
  void subscriberDel(Subscriber* subscriber) { subscribers_.erase(subscriber); }

  void handleInotifyEventQueue();
  void handleEventClock();
  void handleInotifyEvent(InotifyEvent const& event);

 private:
  class KelEventClock;

  InotifyWatches();
  ~InotifyWatches() override;

  Kel::Ptr<InotifyMonitor> monitor_;
  Kel::Nested<InotifyQueueReactor<InotifyWatches>> monitorReactor_;
  Kel::Nested<KelEventClock> eventClock_;
  std::unordered_map<std::uint32_t, std::vector<Subscriber*>> holders_;
  std::unordered_set<Subscriber*> subscribers_;
  std::uint64_t overflows_ = 0;
};

}  // namespace FileReplication
