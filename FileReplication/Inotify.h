#pragma once

#include <cstdint>
#include <ostream>

#include "runtime/Clock.h"
#include "runtime/Entity.h"
#include "runtime/FileDescriptor.h"
#include "runtime/LinkQueue.h"
#include "runtime/Name.h"
#include "runtime/NestedReactor.h"
#include "runtime/Strep.h"
#include "runtime/String.h"

namespace FileReplication {

// What the kernel reported about one object in a watched directory.
class InotifyEvent {
 public:
  enum Type : std::uint32_t { none = 0, modified = 1, created = 2, deleted = 3 };

  InotifyEvent() = default;
  InotifyEvent(Type eventType, bool isDirectory, std::uint32_t watchId, Kel::String fileName)
      : eventType_(eventType), isDirectory_(isDirectory), watchId_(watchId), fileName_(std::move(fileName)) {}
  // Reads the text form written by valueToStrep; attributes may come in any
  // order or be left out, and a repeated one overwrites the earlier.
  InotifyEvent(Kel::StrepIterator& it, Kel::StrepIterator end);

  // The kernel reports a full queue with watch id -1 and no type of ours.
  static constexpr std::uint32_t overflowWatchId = UINT32_MAX;

  Type eventType() const { return eventType_; }
  bool isDirectory() const { return isDirectory_; }
  std::uint32_t watchId() const { return watchId_; }
  // The kernel's queue overflowed: events were lost, and which is unknown.
  bool isOverflow() const { return eventType_ == none && watchId_ == overflowWatchId; }
  // Empty when the event concerns the watched path itself.
  Kel::String const& fileName() const { return fileName_; }

  void eventTypeIs(Type v) { eventType_ = v; }
  void isDirectoryIs(bool v) { isDirectory_ = v; }
  void watchIdIs(std::uint32_t v) { watchId_ = v; }
  void fileNameIs(Kel::String v) { fileName_ = std::move(v); }

  static Type TypeInstance(std::uint32_t v);
  static Type TypeInstance(Kel::String const& name);
  static Kel::String stringValue(Type t);

  static InotifyEvent sequenceToValue(Kel::StrepIterator& it, Kel::StrepIterator end);
  // The whole text must be one event.
  static InotifyEvent strepToValue(Kel::String const& text);

  friend bool operator==(InotifyEvent const& a, InotifyEvent const& b);
  friend bool operator!=(InotifyEvent const& a, InotifyEvent const& b) { return !(a == b); }

 private:
  Type eventType_ = none;
  bool isDirectory_ = false;
  std::uint32_t watchId_ = 0;
  Kel::String fileName_;
};

Kel::String valueToStrep(InotifyEvent::Type t);
Kel::String valueToStrep(InotifyEvent const& e);
std::ostream& operator<<(std::ostream& o, InotifyEvent::Type t);
std::ostream& operator<<(std::ostream& o, InotifyEvent const& e);

// One inotify instance: hands out watches and queues the events read from it
// for its readers, who learn of them through onInotifyEvent(index).
class InotifyMonitor : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeBase<InotifyMonitor> {
   public:
    // An event was enqueued, dequeued or deleted at index.
    virtual void onInotifyEvent(std::uint32_t) {}
    // The whole queue was deleted.
    virtual void onInotifyEvent() {}
  };
  using Notifiee = NotifieeConst;

  // Calls the monitor whenever the inotify descriptor is readable.
  class FileDescriptorReactor : public Kel::NestedReactor<InotifyMonitor, Kel::FileDescriptor::Notifiee> {
   public:
    using NestedReactor::NestedReactor;

    InotifyMonitor* inotifyMonitor() const { return owner(); }

    void onNotifier() override;
    void onReadableCount() override;
    void handleReadableCount();
  };

  struct InotifyEventMetadata {
    std::uint32_t head;
    std::uint32_t tail;
    std::uint64_t version;
  };

  // Sets up the inotify instance at once; failures throw Kel::ErrnoException.
  static Kel::Ptr<InotifyMonitor> InotifyMonitorIs(Kel::Name name);

  Kel::Name name() const { return name_; }
  // Null once the instance is closed.
  FileDescriptorReactor* fdReactor() const { return fdReactor_.get(); }

  std::uint32_t inotifyEvents() const { return inotifyEvent_.members(); }
  // A default event when index holds none.
  InotifyEvent inotifyEvent(std::uint32_t index) const;
  InotifyEventMetadata inotifyEventMetadata() const;
  void inotifyEventEnq(InotifyEvent const& e);
  void inotifyEventEnq(InotifyEvent&& e);
  // A default event, and no notification, when the queue is empty.
  InotifyEvent inotifyEventDeq();
  void inotifyEventDel(std::uint32_t index);
  void inotifyEventDelAll();

  // Watches the directory path for changes of the objects in it and of
  // itself; returns the watch id. The kernel gives a directory watched
  // already, under any spelling, the id it has.
  std::uint32_t newWatchId(Kel::String const& path) const;
  // newWatchId, with minus the errno for a failure instead of an exception.
  int watchIdOrError(Kel::String const& path) const;
  // A watch the kernel already dropped is not an error.
  void watchIdToDelIs(std::uint32_t wd);

  // Reads once from the instance and queues what it got.
  void handleEvent();

  void doInitFdReactor();
  void doDestroyFdReactor();

 protected:
  explicit InotifyMonitor(Kel::Name name);
  ~InotifyMonitor() override;

 private:
  int descriptor() const;

  Kel::Name name_;
  // Writable, unlike the reactor's notifier: closing turns readability off.
  Kel::Ptr<Kel::FileDescriptor> fileDescriptor_;
  Kel::Nested<FileDescriptorReactor> fdReactor_;
  Kel::LinkQueue<InotifyEvent> inotifyEvent_;
};

Kel::Ptr<InotifyMonitor> inotifyMonitorFactory(Kel::Name name);

// Hands every news of a monitor's queue, and the queue found on binding, to
// the owner's handleInotifyEventQueue.
template <class Owner>
class InotifyQueueReactor : public Kel::NestedReactor<Owner, InotifyMonitor::NotifieeConst> {
 public:
  using Kel::NestedReactor<Owner, InotifyMonitor::NotifieeConst>::NestedReactor;
  void onNotifier() override { this->owner()->handleInotifyEventQueue(); }
  void onInotifyEvent(std::uint32_t) override { this->owner()->handleInotifyEventQueue(); }
  void onInotifyEvent() override { this->owner()->handleInotifyEventQueue(); }
};

// Watches one path with a monitor of its own and hands its events, one at a
// time, to handleInotifyEvent, which a concrete watcher overrides. A burst is
// handled at most ten events per turn of the event loop.
class Watcher : public Kel::PtrInterface {
 public:
  // Creates the watcher and initialises it: watching starts at once.
  static Kel::Ptr<Watcher> WatcherIs(Kel::String path);

  Kel::String const& path() const { return path_; }
  std::uint32_t wid() const { return wid_; }
  Kel::Ptr<InotifyMonitor> inotifyMonitor() const { return inotifyMonitor_; }
  Kel::Ptr<Kel::Clock> eventClock() const { return eventClock_; }
  bool initialized() const { return initialized_; }

  // Binding a monitor or a clock runs its handler once.
  void inotifyMonitorIs(Kel::Ptr<InotifyMonitor> const& monitor);
  void inotifyMonitorDel() { inotifyMonitorIs(nullptr); }
  void eventClockIs(Kel::Ptr<Kel::Clock> const& clock);
  void eventClockDel() { eventClockIs(nullptr); }
  void widIs(std::uint32_t wid) { wid_ = wid; }
  void initializedIs(bool v) { initialized_ = v; }

  virtual void handleInotifyEvent(InotifyEvent const& event);
  // Takes the clock, a monitor of its own and the watch on path.
  virtual void handleInitialized();
  void handleInotifyEventQueue();
  void handleEventClock();

 protected:
  // Not yet initialised: whoever creates the watcher calls handleInitialized.
  explicit Watcher(Kel::String path);
  ~Watcher() override;

 private:
  class KelEventClock;

  Kel::String path_;
  std::uint32_t wid_ = 0;
  Kel::Ptr<InotifyMonitor> inotifyMonitor_;
  Kel::Ptr<Kel::Clock> eventClock_;
  bool initialized_ = false;

  Kel::Nested<InotifyQueueReactor<Watcher>> kelInotifyMonitor_;
  Kel::Nested<KelEventClock> kelEventClock_;
};

Kel::Ptr<Watcher> watcherFactory(Kel::String path);

}  // namespace FileReplication
