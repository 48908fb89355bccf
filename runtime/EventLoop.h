#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <limits>
#include <vector>

namespace Kel {

// The process's one event loop, over epoll. A turn fires due timers, then
// serves ready descriptors, then runs deferred work (child exits among it).
// With nothing ready it blocks until the next deadline or event, so an idle
// process uses no CPU.
class EventLoop {
 public:
  static constexpr double forever = std::numeric_limits<double>::infinity();

  // What a source is watched for.
  enum Interest : unsigned { readable = 1, writable = 2 };

  // Something the loop watches, level-triggered. A hang-up or an error
  // counts as both readable and writable, so that the next read or write
  // tells what happened.
  class Source {
   public:
    virtual void onReadable() = 0;
    virtual void onWritable() {}

   protected:
    ~Source() = default;
  };

  EventLoop();
  ~EventLoop();
  EventLoop(EventLoop const&) = delete;
  EventLoop& operator=(EventLoop const&) = delete;

  // One source per descriptor: another source for fd replaces the first,
  // and the same one again takes the new interest. The descriptor stays
  // open until sourceDel, or the kernel may keep reporting it.
  void sourceIs(int fd, Source* source, unsigned interest = readable);
  // After this the source is not called again, not even for readiness the
  // current turn has already collected. Does nothing unless source is the
  // one registered for fd.
  void sourceDel(int fd, Source* source);
  std::size_t sources() const { return sources_; }

  // Runs work on a later turn, in the order given.
  void deferredIs(std::function<void()> work);
  std::size_t deferred() const { return deferred_.size(); }

  // One turn. With nothing ready it waits at most maxWait seconds, and never
  // past the next timer deadline. Not to be called from inside a turn's timer
  // or descriptor callbacks.
  void turn(double maxWait = forever);
  // Turns until stop(); the flag is cleared when run() starts.
  void run();
  // Turns until done() holds or maxSeconds of real time have passed; tells
  // whether done() held.
  bool runUntil(std::function<bool()> const& done, double maxSeconds);
  void stop() { stopped_ = true; }

 private:
  // Forgets readiness of fd that the turn in progress has collected.
  void readyDel(int fd);

  int epoll_;
  std::size_t sources_ = 0;
  bool stopped_ = false;
  std::deque<std::function<void()>> deferred_;
  struct Registered {
    Source* source = nullptr;
    unsigned interest = 0;
  };
  // The source registered on each descriptor, indexed by descriptor.
  std::vector<Registered> registered_;
  // Readiness collected by the turn in progress; sourceDel clears entries.
  struct Ready {
    int fd;
    Source* source;
    unsigned events;
  };

  // Calls the source of ready_[index] for what the turn found and the
  // source still wants.
  void serve(int index);
  Ready* ready_ = nullptr;
  int readyCount_ = 0;
};

}  // namespace Kel
