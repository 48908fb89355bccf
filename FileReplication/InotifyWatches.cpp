#include "FileReplication/InotifyWatches.h"

#include <algorithm>

#include "runtime/ActivityManager.h"
#include "runtime/ClockReactor.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("FileReplicationInotify")

namespace FileReplication {

namespace {

// The fairness bound: events handled per turn of the event loop.
constexpr int eventBatch = 10;

InotifyWatches* shared = nullptr;

bool holds(std::vector<InotifyWatches::Subscriber*> const& holders, InotifyWatches::Subscriber* s) {
  return std::find(holders.begin(), holders.end(), s) != holders.end();
}

}  // namespace

class InotifyWatches::KelEventClock : public Kel::ClockReactor<InotifyWatches, &InotifyWatches::handleEventClock> {
 public:
  using ClockReactor::ClockReactor;
};

Kel::Ptr<InotifyWatches> InotifyWatches::instance() { return shared ? shared : new InotifyWatches; }

InotifyWatches* InotifyWatches::current() { return shared; }

InotifyWatches::InotifyWatches()
    : monitor_(InotifyMonitor::InotifyMonitorIs("inotifyWatches")), monitorReactor_(this), eventClock_(this) {
  monitorReactor_->notifierIs(monitor_);
  eventClock_->notifierIs(Kel::activityManager()->clock());
  shared = this;
}

InotifyWatches::~InotifyWatches() { shared = nullptr; }

double InotifyWatches::eventClockTime() const { return eventClock_->timeMin(); }

std::size_t InotifyWatches::holders(std::uint32_t watchId) const {
  auto const it = holders_.find(watchId);
  return it == holders_.end() ? 0 : it->second.size();
}

int InotifyWatches::watchIs(Kel::String const& path, Subscriber* subscriber) {
  int const wd = monitor_->watchIdOrError(path);
  if (wd < 0) return wd;
  auto& holders = holders_[std::uint32_t(wd)];
  if (!holds(holders, subscriber)) holders.push_back(subscriber);
  return wd;
}

void InotifyWatches::watchDel(std::uint32_t watchId, Subscriber* subscriber) {
  auto const it = holders_.find(watchId);
  if (it == holders_.end()) return;
  auto& holders = it->second;
  holders.erase(std::remove(holders.begin(), holders.end(), subscriber), holders.end());
  if (!holders.empty()) return;
  holders_.erase(it);
  monitor_->watchIdToDelIs(watchId);
}

void InotifyWatches::handleInotifyEventQueue() {
  if (monitor_->inotifyEvents() != 0) eventClock_->timeMinIs(Kel::now());
}

void InotifyWatches::handleEventClock() {
  // A subscriber may drop the last pointer to this instance.
  Kel::Ptr<InotifyWatches> const keep(this);
  for (int handled = 0; handled < eventBatch && monitor_->inotifyEvents() != 0; ++handled) {
    handleInotifyEvent(monitor_->inotifyEventDeq());
  }
  if (monitor_->inotifyEvents() != 0) eventClock_->timeMinIs(Kel::now());
}

void InotifyWatches::handleInotifyEvent(InotifyEvent const& event) {
  if (event.isOverflow()) {
    KEL_TRACE(6, "Inotify queue overflowed");
    ++overflows_;
    std::vector<Subscriber*> const all(subscribers_.begin(), subscribers_.end());
    for (Subscriber* s : all) {
      // One told earlier may have removed another.
      if (subscribers_.count(s)) s->onOverflow();
    }
    return;
  }
  auto const it = holders_.find(event.watchId());
  // A watch removed while its events were queued, or the kernel's last word
  // on a watch that is gone.
  if (it == holders_.end()) {
    KEL_TRACE(6, "No directory for watch id" << event.watchId());
    return;
  }
  std::vector<Subscriber*> const holders = it->second;
  bool const lost = event.eventType() == InotifyEvent::deleted && event.fileName().empty();
  if (lost) {
    // A directory moved away is still watched by the kernel; what happens in
    // it from now on is not about the configured path.
    holders_.erase(it);
    monitor_->watchIdToDelIs(event.watchId());
  }
  for (Subscriber* s : holders) {
    // One told earlier may have let go of the watch, or gone.
    if (!subscribers_.count(s)) continue;
    auto const now = holders_.find(event.watchId());
    if (lost || (now != holders_.end() && holds(now->second, s))) s->onWatchEvent(event);
  }
}

}  // namespace FileReplication
