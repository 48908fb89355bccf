#include "FileReplication/Inotify.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "runtime/ActivityManager.h"
#include "runtime/Assert.h"
#include "runtime/ClockReactor.h"
#include "runtime/Exception.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("FileReplicationInotify")

namespace FileReplication {

namespace {

// Changes of the objects inside a watched directory, and the directory's own
// deletion or move, after which the watch no longer stands for its path; mere
// access, open and close are left out.
constexpr std::uint32_t watchMask =
    IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;
static_assert(watchMask == 0xFC6);
// The watched path itself is gone, or its watch is: deleted, moved away,
// unmounted, or the watch removed.
constexpr std::uint32_t lostMask = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

constexpr std::size_t readBufferSize = 2576;

char const* const typeNames[] = {"none", "modified", "created", "deleted"};

InotifyEvent::Type typeOfMask(std::uint32_t mask) {
  // The first matching test wins: a record with both IN_MODIFY and
  // IN_CREATE is a modification.
  if (mask & (IN_MODIFY | IN_ATTRIB)) return InotifyEvent::modified;
  if (mask & IN_CREATE) return InotifyEvent::created;
  if (mask & IN_DELETE) return InotifyEvent::deleted;
  // A move out of the directory is a deletion for its readers, a move in a
  // creation.
  if (mask & IN_MOVED_FROM) return InotifyEvent::deleted;
  if (mask & IN_MOVED_TO) return InotifyEvent::created;
  // Such records carry no name: a deletion of the watched path itself.
  if (mask & lostMask) return InotifyEvent::deleted;
  return InotifyEvent::none;
}

}  // namespace

// InotifyEvent

InotifyEvent::InotifyEvent(Kel::StrepIterator& it, Kel::StrepIterator end) {
  Kel::needString(it, end, " Value");
  Kel::needString(it, end, " (");
  Kel::needString(it, end, " 'FileReplication::InotifyEvent'");
  Kel::needString(it, end, " ,");
  Kel::needString(it, end, " **");
  Kel::needString(it, end, " {");
  for (bool first = true;; first = false) {
    Kel::needString(it, end, " ");
    if (it == end) Kel::throwRangeException("premature end of value type InotifyEvent");
    if (*it == '}') {
      Kel::needString(it, end, "} ");
      Kel::needString(it, end, ") ");
      return;
    }
    if (!first) Kel::needString(it, end, ", ");
    Kel::String const name = Kel::strepToString(it, end);
    Kel::needString(it, end, " : ");
    if (name == "eventType") {
      eventType_ = TypeInstance(Kel::strepToString(it, end));
    } else if (name == "isDirectory") {
      isDirectory_ = Kel::strepToBool(it, end);
    } else if (name == "watchId") {
      watchId_ = Kel::strepToUnsigned(it, end);
    } else if (name == "fileName") {
      fileName_ = Kel::strepToString(it, end);
    } else {
      Kel::throwRangeException("InotifyEvent has no such attribute: " + name.str());
    }
  }
}

InotifyEvent::Type InotifyEvent::TypeInstance(std::uint32_t v) {
  if (v > deleted) Kel::throwRangeException("InotifyEvent::Type");
  return Type(v);
}

InotifyEvent::Type InotifyEvent::TypeInstance(Kel::String const& name) {
  for (std::uint32_t v = none; v <= deleted; ++v) {
    if (name == typeNames[v]) return Type(v);
  }
  Kel::throwRangeException("Type");
}

Kel::String InotifyEvent::stringValue(Type t) {
  if (t <= deleted) return typeNames[t];
  return "InotifyEvent::Type(" + std::to_string(static_cast<int>(t)) + ")";
}

InotifyEvent InotifyEvent::sequenceToValue(Kel::StrepIterator& it, Kel::StrepIterator end) {
  return InotifyEvent(it, end);
}

InotifyEvent InotifyEvent::strepToValue(Kel::String const& text) {
  return Kel::strepToValueWith(text, sequenceToValue);
}

bool operator==(InotifyEvent const& a, InotifyEvent const& b) {
  return a.eventType_ == b.eventType_ && a.isDirectory_ == b.isDirectory_ && a.watchId_ == b.watchId_ &&
         a.fileName_ == b.fileName_;
}

Kel::String valueToStrep(InotifyEvent::Type t) { return Kel::valueToStrep(InotifyEvent::stringValue(t)); }

Kel::String valueToStrep(InotifyEvent const& e) {
  return "Value('FileReplication::InotifyEvent', ** {'eventType': " + valueToStrep(e.eventType()) +
         ", 'isDirectory': " + Kel::valueToStrep(e.isDirectory()) + ", 'watchId': " + Kel::valueToStrep(e.watchId()) +
         ", 'fileName': " + Kel::valueToStrep(e.fileName()) + "})";
}

std::ostream& operator<<(std::ostream& o, InotifyEvent::Type t) { return o << InotifyEvent::stringValue(t); }

std::ostream& operator<<(std::ostream& o, InotifyEvent const& e) { return o << valueToStrep(e); }

// InotifyMonitor::FileDescriptorReactor

void InotifyMonitor::FileDescriptorReactor::onNotifier() { handleReadableCount(); }

void InotifyMonitor::FileDescriptorReactor::onReadableCount() { handleReadableCount(); }

void InotifyMonitor::FileDescriptorReactor::handleReadableCount() {
  KEL_TRACE(3, "FileDescriptorReactor::handleReadableCount");
  owner()->handleEvent();
}

// InotifyMonitor

Kel::Ptr<InotifyMonitor> InotifyMonitor::InotifyMonitorIs(Kel::Name name) { return new InotifyMonitor(name); }

Kel::Ptr<InotifyMonitor> inotifyMonitorFactory(Kel::Name name) { return InotifyMonitor::InotifyMonitorIs(name); }

InotifyMonitor::InotifyMonitor(Kel::Name name) : name_(name) { doInitFdReactor(); }

InotifyMonitor::~InotifyMonitor() { doDestroyFdReactor(); }

void InotifyMonitor::doInitFdReactor() {
  KEL_TRACE(6, "InotifyMonitor::initFdReactor");
  int const fd = inotify_init();
  if (fd < 0) throw Kel::ErrnoException(errno, "inotify_init");
  try {
    // Children are spawned from this process and must not inherit it.
    if (fcntl(fd, F_SETFD, FD_CLOEXEC) < 0) throw Kel::ErrnoException(errno, "fcntl F_SETFD");
    Kel::Ptr<Kel::FileDescriptor> const fileDescriptor = Kel::FileDescriptor::FileDescriptorIs("Pemsa-inotify");
    fileDescriptor->descriptorIs(fd);
    fileDescriptor->nonBlockingIs(true);
    fileDescriptor->notifyOnReadableIs(true);
    // Bound before the monitor holds it: the first call finds no descriptor to read yet.
    Kel::Nested<FileDescriptorReactor> reactor(this);
    reactor->notifierIs(fileDescriptor);
    fdReactor_ = std::move(reactor);
    fileDescriptor_ = fileDescriptor;
  } catch (...) {
    // The descriptor entity, if any, died with its last pointer and forgot fd.
    close(fd);
    throw;
  }
}

void InotifyMonitor::doDestroyFdReactor() {
  KEL_TRACE(6, "InotifyMonitor::destroyFdReactor");
  if (!fdReactor_) return;
  fdReactor_.release();
  Kel::Ptr<Kel::FileDescriptor> const fileDescriptor = std::move(fileDescriptor_);
  int const fd = fileDescriptor->descriptor();
  // The loop must let go of the number before the kernel can hand it out again.
  fileDescriptor->descriptorIs(-1);
  if (close(fd) != 0) KEL_TRACE(6, "Closing inotify instance FD failed.");
}

int InotifyMonitor::descriptor() const { return fileDescriptor_ ? fileDescriptor_->descriptor() : -1; }

InotifyEvent InotifyMonitor::inotifyEvent(std::uint32_t index) const {
  InotifyEvent const* e = inotifyEvent_.at(index);
  return e ? *e : InotifyEvent();
}

InotifyMonitor::InotifyEventMetadata InotifyMonitor::inotifyEventMetadata() const {
  return {inotifyEvent_.head(), inotifyEvent_.tail(), inotifyEvent_.version()};
}

void InotifyMonitor::inotifyEventEnq(InotifyEvent const& e) { inotifyEventEnq(InotifyEvent(e)); }

void InotifyMonitor::inotifyEventEnq(InotifyEvent&& e) {
  std::uint32_t const index = inotifyEvent_.enq(std::move(e));
  notify<NotifieeConst>(&NotifieeConst::onInotifyEvent, index);
}

InotifyEvent InotifyMonitor::inotifyEventDeq() {
  std::uint32_t const head = inotifyEvent_.head();
  std::optional<InotifyEvent> e = inotifyEvent_.deq();
  if (!e) return InotifyEvent();
  notify<NotifieeConst>(&NotifieeConst::onInotifyEvent, head);
  return std::move(*e);
}

void InotifyMonitor::inotifyEventDel(std::uint32_t index) {
  if (inotifyEvent_.del(index)) notify<NotifieeConst>(&NotifieeConst::onInotifyEvent, index);
}

void InotifyMonitor::inotifyEventDelAll() {
  if (inotifyEvent_.empty()) return;
  inotifyEvent_.delAll();
  notify<NotifieeConst>(&NotifieeConst::onInotifyEvent);
}

std::uint32_t InotifyMonitor::newWatchId(Kel::String const& path) const {
  KEL_TRACE(6, "InotifyMonitor::newWatchId");
  int const wd = watchIdOrError(path);
  if (wd < 0) throw Kel::ErrnoException(-wd, "inotify_add_watch " + path.str());
  return std::uint32_t(wd);
}

int InotifyMonitor::watchIdOrError(Kel::String const& path) const {
  // Only a directory: a path that became a file is as good as missing.
  int const wd = inotify_add_watch(descriptor(), path.charPtr(), watchMask | IN_ONLYDIR);
  return wd < 0 ? -errno : wd;
}

void InotifyMonitor::watchIdToDelIs(std::uint32_t wd) {
  KEL_TRACE(6, "InotifyMonitor::watchdIdToDelIs " << wd);
  if (inotify_rm_watch(descriptor(), static_cast<int>(wd)) == 0) return;
  if (errno != EINVAL) throw Kel::ErrnoException(errno, "inotify_rm_watch");
  KEL_TRACE(6, "Watch already deleted.");
}

void InotifyMonitor::handleEvent() {
  KEL_TRACE(3, "InotifyMonitor::handleEvent");
  int const fd = descriptor();
  if (fd < 0) return;
  // A reader may drop the last pointer to this monitor while it is told of
  // an event; the rest of the buffer is still queued.
  Kel::Ptr<InotifyMonitor> const keep(this);
  alignas(inotify_event) char buffer[readBufferSize];
  ssize_t const n = read(fd, buffer, sizeof buffer);
  if (n < 0) {
    if (errno == EAGAIN) return;
    throw Kel::ErrnoException(errno, "read inotify");
  }
  std::size_t const length = std::size_t(n);
  for (std::size_t offset = 0; offset + sizeof(inotify_event) <= length;) {
    inotify_event record;
    std::memcpy(&record, buffer + offset, sizeof record);
    char const* const name = buffer + offset + sizeof record;
    std::size_t const room = std::min<std::size_t>(record.len, length - offset - sizeof record);
    std::string_view const fileName(name, strnlen(name, room));
    KEL_TRACE(6, "Received inotify_event: wd=" << record.wd << "; mask=0x" << std::hex << record.mask << std::dec
                                               << "; len=" << record.len
                                               << "; name=" << (record.len ? fileName : std::string_view("(none)")));
    InotifyEvent e;
    e.eventTypeIs(typeOfMask(record.mask));
    e.isDirectoryIs((record.mask & IN_ISDIR) != 0);
    e.watchIdIs(std::uint32_t(record.wd));
    if (record.len) e.fileNameIs(Kel::String(fileName));
    inotifyEventEnq(std::move(e));
    offset += sizeof record + record.len;
  }
}

// Watcher

class Watcher::KelEventClock : public Kel::ClockReactor<Watcher, &Watcher::handleEventClock, Kel::OnBinding::handle> {
 public:
  using ClockReactor::ClockReactor;
};

Kel::Ptr<Watcher> Watcher::WatcherIs(Kel::String path) {
  Kel::Ptr<Watcher> const watcher = new Watcher(std::move(path));
  watcher->handleInitialized();
  return watcher;
}

Kel::Ptr<Watcher> watcherFactory(Kel::String path) { return Watcher::WatcherIs(std::move(path)); }

Watcher::Watcher(Kel::String path) : path_(std::move(path)), kelInotifyMonitor_(this), kelEventClock_(this) {}

Watcher::~Watcher() = default;

void Watcher::inotifyMonitorIs(Kel::Ptr<InotifyMonitor> const& monitor) {
  if (inotifyMonitor_ == monitor) return;
  inotifyMonitor_ = monitor;
  kelInotifyMonitor_->notifierIs(monitor);
}

void Watcher::eventClockIs(Kel::Ptr<Kel::Clock> const& clock) {
  if (eventClock_ == clock) return;
  eventClock_ = clock;
  kelEventClock_->notifierIs(clock);
}

void Watcher::handleInotifyEvent(InotifyEvent const&) { KEL_ASSERT_TEXT(false, "0 && \"abstract method called\""); }

void Watcher::handleInitialized() {
  KEL_TRACE(3, "virtual void FileReplication::Watcher::handleInitialized()");
  eventClockIs(Kel::activityManager()->clock());
  inotifyMonitorIs(InotifyMonitor::InotifyMonitorIs("Watcher::inotifyMonitor"));
  widIs(inotifyMonitor_->newWatchId(path_));
  initializedIs(true);
}

void Watcher::handleInotifyEventQueue() {
  KEL_TRACE(3, "void FileReplication::Watcher::handleInotifyEventQueue()");
  if (inotifyMonitor_ && inotifyMonitor_->inotifyEvents() > 0) kelEventClock_->timeMinIs(Kel::now());
}

void Watcher::handleEventClock() {
  KEL_TRACE(3, "void FileReplication::Watcher::handleEventClock()");
  if (!initialized_) return;
  // A handler may drop the last pointer to this watcher or its monitor.
  Kel::Ptr<Watcher> const keep(this);
  // Ten at a time, so that a burst does not hold up the rest of the loop.
  for (unsigned handled = 0; handled < 10 && inotifyMonitor_ && inotifyMonitor_->inotifyEvents() > 0; ++handled) {
    handleInotifyEvent(inotifyMonitor_->inotifyEventDeq());
  }
  if (inotifyMonitor_ && inotifyMonitor_->inotifyEvents() > 0) kelEventClock_->timeMinIs(Kel::now());
}

}  // namespace FileReplication
