#include "runtime/EventLoop.h"

#include <errno.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdint>

#include "runtime/ActivityManager.h"
#include "runtime/Assert.h"
#include "runtime/Exception.h"
#include "runtime/String.h"

namespace Kel {

namespace {

// Readiness served per turn. Descriptors beyond it stay ready and are served
// by the next turn, which then does not block.
constexpr int maxEvents = 64;

// Longer waits are forever; the bound also keeps the timespec in range.
constexpr double longestWait = 1e9;

double monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Null for forever. Rounds up to the microsecond, so the loop wakes at or
// just after a deadline rather than spinning once more just before it.
timespec* timeoutOf(double seconds, timespec& ts) {
  if (!(seconds > 0)) seconds = 0;
  if (seconds >= longestWait) return nullptr;
  auto const micros = static_cast<std::int64_t>(std::ceil(seconds * 1e6));
  ts.tv_sec = static_cast<time_t>(micros / 1000000);
  ts.tv_nsec = static_cast<long>(micros % 1000000) * 1000;
  return &ts;
}

}  // namespace

EventLoop::EventLoop() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (epoll_ < 0) throw ErrnoException(errno, "epoll_create1");
}

EventLoop::~EventLoop() { close(epoll_); }

void EventLoop::sourceIs(int fd, Source* source, unsigned interest) {
  if (fd < 0 || !source || !(interest & (readable | writable)) || (interest & ~(readable | writable))) {
    throwRangeException("sourceIs needs a descriptor, a source and an interest");
  }
  auto const slot = static_cast<std::size_t>(fd);
  Registered const old = slot < registered_.size() ? registered_[slot] : Registered();
  if (old.source == source && old.interest == interest) return;
  epoll_event event{};
  event.events = (interest & readable ? EPOLLIN : 0u) | (interest & writable ? EPOLLOUT : 0u);
  event.data.fd = fd;
  int rc = epoll_ctl(epoll_, old.source ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event);
  // A closed descriptor leaves the epoll set and its number may come back
  // for another file, so the set can disagree with the table either way.
  if (rc < 0 && errno == ENOENT) rc = epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
  if (rc < 0 && errno == EEXIST) rc = epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &event);
  if (rc < 0) throw ErrnoException(errno, "epoll_ctl");
  if (slot >= registered_.size()) registered_.resize(slot + 1);
  if (!old.source) {
    ++sources_;
  } else if (old.source != source) {
    readyDel(fd);
  }
  registered_[slot] = {source, interest};
}

void EventLoop::sourceDel(int fd, Source* source) {
  auto const slot = static_cast<std::size_t>(fd);
  if (fd < 0 || slot >= registered_.size() || !source || registered_[slot].source != source) return;
  registered_[slot] = Registered();
  --sources_;
  readyDel(fd);
  // Fails only for a descriptor closed already, which left the set then.
  epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
}

void EventLoop::readyDel(int fd) {
  for (int i = 0; i < readyCount_; ++i) {
    if (ready_[i].fd == fd) ready_[i].source = nullptr;
  }
}

void EventLoop::serve(int index) {
  constexpr unsigned failed = EPOLLHUP | EPOLLERR;
  // Asked again after each call: a callback may delete the source or change
  // what it wants.
  auto const wants = [&](unsigned interest) {
    Ready const& ready = ready_[index];
    return ready.source && (registered_[static_cast<std::size_t>(ready.fd)].interest & interest);
  };
  if ((ready_[index].events & (EPOLLIN | failed)) && wants(readable)) ready_[index].source->onReadable();
  if ((ready_[index].events & (EPOLLOUT | failed)) && wants(writable)) ready_[index].source->onWritable();
}

void EventLoop::deferredIs(std::function<void()> work) { deferred_.push_back(std::move(work)); }

void EventLoop::turn(double maxWait) {
  bool const insideTurn = ready_ != nullptr;
  KEL_ASSERT_TEXT(!insideTurn, "!insideTurn");
  std::size_t const queued = deferred_.size();
  Ptr<Clock> const clock = activityManager()->clock();

  timespec ts;
  double const wait = queued ? 0 : std::fmin(maxWait, clock->waitTime());
  epoll_event events[maxEvents];
  int n = epoll_pwait2(epoll_, events, maxEvents, timeoutOf(wait, ts), nullptr);
  if (n < 0) {
    if (errno != EINTR) throw ErrnoException(errno, "epoll_pwait2");
    n = 0;
  }

  // Collected before the timers fire, so that a timer callback deleting a
  // source scrubs its readiness too.
  Ready ready[maxEvents];
  for (int i = 0; i < n; ++i) {
    int const fd = events[i].data.fd;
    ready[i] = {fd, registered_[static_cast<std::size_t>(fd)].source, events[i].events};
  }
  struct Serving {
    EventLoop& loop;
    ~Serving() {
      loop.ready_ = nullptr;
      loop.readyCount_ = 0;
    }
  } serving{*this};
  ready_ = ready;
  readyCount_ = n;

  clock->fireDue();
  for (int i = 0; i < readyCount_; ++i) serve(i);
  ready_ = nullptr;
  readyCount_ = 0;

  for (std::size_t i = 0; i < queued && !deferred_.empty(); ++i) {
    std::function<void()> work = std::move(deferred_.front());
    deferred_.pop_front();
    work();
  }
}

void EventLoop::run() {
  stopped_ = false;
  while (!stopped_) turn();
}

bool EventLoop::runUntil(std::function<bool()> const& done, double maxSeconds) {
  double const end = monotonicSeconds() + maxSeconds;
  while (!done()) {
    double const left = end - monotonicSeconds();
    if (!(left > 0)) return false;
    turn(left);
  }
  return true;
}

}  // namespace Kel
