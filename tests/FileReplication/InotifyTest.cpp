#include "FileReplication/Inotify.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/ActivityManager.h"
#include "runtime/Exception.h"
#include "tests/support/TestFiles.h"
#include "tests/support/TraceCapture.h"
#include "tests/support/WhatOf.h"

namespace FileReplication {
namespace {

using Type = InotifyEvent::Type;

// The messages that contain part; TraceCapture hands each message out once.
std::vector<std::string> with(std::vector<std::string> const& messages, std::string const& part) {
  std::vector<std::string> out;
  for (auto const& m : messages) {
    if (m.find(part) != std::string::npos) out.push_back(m);
  }
  return out;
}

std::string const defaultText =
    "Value('FileReplication::InotifyEvent', ** {'eventType': 'none', 'isDirectory': false, 'watchId': 0, "
    "'fileName': ''})";

// InotifyEvent

TEST(InotifyEventTest, TextFormRoundTripsAndReadsLooseSpacing) {
  EXPECT_EQ(defaultText, valueToStrep(InotifyEvent()).str());
  std::ostringstream streamed;
  streamed << InotifyEvent(InotifyEvent::created, true, 7, "d");
  EXPECT_EQ(
      "Value('FileReplication::InotifyEvent', ** {'eventType': 'created', 'isDirectory': true, 'watchId': 7, "
      "'fileName': 'd'})",
      streamed.str());

  for (InotifyEvent const& e : {InotifyEvent(), InotifyEvent(InotifyEvent::modified, false, 4294967295u, "plain"),
                                InotifyEvent(InotifyEvent::deleted, true, 3, "it's a \\ back\\slash\nand 'quotes'"),
                                InotifyEvent(InotifyEvent::created, false, 1, "tab\there\x01})")}) {
    Kel::String const text = valueToStrep(e);
    EXPECT_EQ(e, InotifyEvent::strepToValue(text)) << text;
  }

  EXPECT_EQ(InotifyEvent(InotifyEvent::created, true, 2, "x"),
            InotifyEvent::strepToValue("  Value ( 'FileReplication::InotifyEvent' , **{'eventType':'created',"
                                       "\n'isDirectory' :true ,'watchId':  2,'fileName':'x' } )  "));

  // A text inside a longer input is read up to its end.
  std::string const two = defaultText + " rest";
  Kel::StrepIterator it = two.begin();
  EXPECT_EQ(InotifyEvent(), InotifyEvent::sequenceToValue(it, two.end()));
  EXPECT_EQ("rest", std::string(it, two.end()));

  // Attributes in any order, missing or repeated.
  std::string const prefix = "Value('FileReplication::InotifyEvent', ** {";
  EXPECT_EQ(InotifyEvent(InotifyEvent::deleted, true, 9, "n"),
            InotifyEvent::strepToValue(prefix +
                                       "'fileName': 'n', 'watchId': 9, 'isDirectory': true, 'eventType': 'deleted'})"));
  EXPECT_EQ(InotifyEvent(InotifyEvent::none, false, 5, ""), InotifyEvent::strepToValue(prefix + "'watchId': 5})"));
  EXPECT_EQ(InotifyEvent(), InotifyEvent::strepToValue(prefix + "})"));
  EXPECT_EQ(InotifyEvent(InotifyEvent::modified, false, 2, ""),
            InotifyEvent::strepToValue(prefix + "'watchId': 1, 'eventType': 'modified', 'watchId': 2})"));
}

TEST(InotifyEventTest, ParseErrorsSayWhatIsWrong) {
  std::string const prefix = "Value('FileReplication::InotifyEvent', ** {";
  EXPECT_EQ("premature end of value type InotifyEvent",
            whatOf<Kel::RangeException>([&] { InotifyEvent::strepToValue(prefix + "'watchId': 1 "); }));
  EXPECT_EQ("premature end of value type InotifyEvent",
            whatOf<Kel::RangeException>([&] { InotifyEvent::strepToValue(prefix); }));
  EXPECT_EQ("InotifyEvent has no such attribute: x",
            whatOf<Kel::RangeException>([&] { InotifyEvent::strepToValue(prefix + "'x': 1})"); }));
  EXPECT_EQ("Type",
            whatOf<Kel::RangeException>([&] { InotifyEvent::strepToValue(prefix + "'eventType': 'moved'})"); }));
  EXPECT_EQ("junk at column " + std::to_string(defaultText.size()) + " deserializing " + defaultText + "x",
            whatOf<Kel::RangeException>([&] { InotifyEvent::strepToValue(defaultText + "x"); }));
  EXPECT_EQ("expected \" 'FileReplication::InotifyEvent'\", found 'O'",
            whatOf<Kel::RangeException>([] { InotifyEvent::strepToValue("Value('Other', ** {})"); }));
  EXPECT_EQ("expected \", \", found '''",
            whatOf<Kel::RangeException>([&] { InotifyEvent::strepToValue(prefix + "'watchId': 1 'fileName': ''})"); }));
}

TEST(InotifyEventTest, TypeNamesAndNumbers) {
  std::vector<std::string> const names = {"none", "modified", "created", "deleted"};
  for (std::uint32_t v = 0; v < names.size(); ++v) {
    Type const t = InotifyEvent::TypeInstance(v);
    EXPECT_EQ(v, static_cast<std::uint32_t>(t));
    EXPECT_EQ(t, InotifyEvent::TypeInstance(Kel::String(names[v])));
    EXPECT_EQ(names[v], InotifyEvent::stringValue(t).str());
    EXPECT_EQ("'" + names[v] + "'", valueToStrep(t).str());
    std::ostringstream o;
    o << t;
    EXPECT_EQ(names[v], o.str());
  }
  EXPECT_EQ("InotifyEvent::Type", whatOf<Kel::RangeException>([] { InotifyEvent::TypeInstance(4u); }));
  EXPECT_EQ("Type", whatOf<Kel::RangeException>([] { InotifyEvent::TypeInstance(Kel::String("Created")); }));
  EXPECT_EQ("InotifyEvent::Type(4)", InotifyEvent::stringValue(Type(4)).str());
}

TEST(InotifyEventTest, EqualityLooksAtEveryField) {
  InotifyEvent const base(InotifyEvent::created, false, 3, "f");
  InotifyEvent same = base;
  EXPECT_TRUE(base == same);
  EXPECT_FALSE(base != same);
  std::vector<std::function<void(InotifyEvent&)>> const changes = {
      [](InotifyEvent& e) { e.eventTypeIs(InotifyEvent::modified); },
      [](InotifyEvent& e) { e.isDirectoryIs(true); },
      [](InotifyEvent& e) { e.watchIdIs(4); },
      [](InotifyEvent& e) { e.fileNameIs("g"); },
  };
  for (std::size_t i = 0; i < changes.size(); ++i) {
    InotifyEvent other = base;
    changes[i](other);
    EXPECT_FALSE(base == other) << i;
    EXPECT_TRUE(base != other) << i;
  }
}

// Reactor that records what the monitor tells it.
class MonitorRecorder : public InotifyMonitor::NotifieeConst {
 public:
  void onInotifyEvent(std::uint32_t index) override { indices.push_back(index); }
  void onInotifyEvent() override { ++wholeQueue; }

  std::vector<std::uint32_t> indices;
  int wholeQueue = 0;
};

std::vector<std::uint32_t> range(std::uint32_t from, std::uint32_t to) {
  std::vector<std::uint32_t> out;
  for (std::uint32_t i = from; i < to; ++i) out.push_back(i);
  return out;
}

InotifyEvent event(std::uint32_t watchId) { return InotifyEvent(InotifyEvent::modified, false, watchId, "f"); }

// InotifyMonitor, with events enqueued by the test

TEST(InotifyMonitorTest, QueueNotifiesEveryChangeWithItsIndex) {
  Kel::Ptr<InotifyMonitor> const monitor = inotifyMonitorFactory("monitor");
  EXPECT_EQ(Kel::Name("monitor"), monitor->name());
  Kel::Ptr<MonitorRecorder> const recorder = new MonitorRecorder;
  recorder->notifierIs(monitor);

  for (std::uint32_t i = 0; i < 4; ++i) monitor->inotifyEventEnq(event(i));
  EXPECT_EQ((std::vector<std::uint32_t>{0, 1, 2, 3}), recorder->indices);
  EXPECT_EQ(4u, monitor->inotifyEvents());
  EXPECT_EQ(event(2), monitor->inotifyEvent(2));
  EXPECT_EQ(InotifyEvent(), monitor->inotifyEvent(4));

  recorder->indices.clear();
  EXPECT_EQ(event(0), monitor->inotifyEventDeq());
  monitor->inotifyEventDel(2);
  monitor->inotifyEventDel(2);
  EXPECT_EQ((std::vector<std::uint32_t>{0, 2}), recorder->indices) << "a deleted index is told once";
  EXPECT_EQ(2u, monitor->inotifyEvents());
  EXPECT_EQ(InotifyEvent(), monitor->inotifyEvent(2));
  EXPECT_EQ(event(1), monitor->inotifyEventDeq());
  EXPECT_EQ(event(3), monitor->inotifyEventDeq()) << "the deleted member is skipped";
  auto const metadata = monitor->inotifyEventMetadata();
  EXPECT_EQ(4u, metadata.head);
  EXPECT_EQ(4u, metadata.tail);

  recorder->indices.clear();
  EXPECT_EQ(InotifyEvent(), monitor->inotifyEventDeq());
  EXPECT_TRUE(recorder->indices.empty()) << "an empty queue notifies nobody";
  EXPECT_EQ(metadata.version, monitor->inotifyEventMetadata().version);

  monitor->inotifyEventEnq(event(5));
  monitor->inotifyEventEnq(event(6));
  monitor->inotifyEventDelAll();
  EXPECT_EQ(0u, monitor->inotifyEvents());
  EXPECT_EQ(1, recorder->wholeQueue);
  monitor->inotifyEventDelAll();
  EXPECT_EQ(1, recorder->wholeQueue);
  recorder->notifierIs(nullptr);
}

TEST(InotifyMonitorTest, OwnsACloseOnExecDescriptorUntilItsLastPointerGoes) {
  Kel::TraceCapture trace("FileReplicationInotify");
  Kel::Ptr<InotifyMonitor> monitor = InotifyMonitor::InotifyMonitorIs("monitor");
  ASSERT_TRUE(monitor->fdReactor());
  EXPECT_EQ(monitor.ptr(), monitor->fdReactor()->inotifyMonitor());
  Kel::Ptr<Kel::FileDescriptor const> const fd = monitor->fdReactor()->notifier();
  ASSERT_TRUE(fd);
  EXPECT_EQ(Kel::Name("Pemsa-inotify"), fd->name());
  int const descriptor = fd->descriptor();
  EXPECT_TRUE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
  EXPECT_TRUE(fcntl(descriptor, F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(fd->notifyOnReadable());
  EXPECT_EQ(1u, trace.messagesWith("InotifyMonitor::initFdReactor").size());

  // Nothing to read: a quiet return.
  monitor->handleEvent();
  EXPECT_EQ(0u, monitor->inotifyEvents());

  monitor = nullptr;
  std::vector<std::string> const messages = trace.messages();
  EXPECT_EQ(1u, with(messages, "InotifyMonitor::destroyFdReactor").size());
  EXPECT_TRUE(with(messages, "Closing inotify instance FD failed.").empty());
  EXPECT_EQ(-1, fd->descriptor()) << "the loop no longer watches the closed number";
  EXPECT_EQ(-1, fcntl(descriptor, F_GETFD));
  EXPECT_EQ(EBADF, errno);
}

// Watcher, on manual time with events enqueued by the test

class RecordingWatcher : public Watcher {
 public:
  static Kel::Ptr<RecordingWatcher> RecordingWatcherIs(std::string const& path, bool initialize) {
    Kel::Ptr<RecordingWatcher> const w = new RecordingWatcher(path);
    if (initialize) w->handleInitialized();
    return w;
  }
  void handleInotifyEvent(InotifyEvent const& e) override { handled.push_back(e); }

  std::vector<InotifyEvent> handled;

 private:
  explicit RecordingWatcher(std::string const& path) : Watcher(Kel::String(path)) {}
};

class WatcherTest : public testing::Test {
 protected:
  void SetUp() override {
    clock()->manualTimeIs(true);
    clock()->nowIs(1000);
  }
  void TearDown() override { clock()->manualTimeIs(false); }
  static Kel::Ptr<Kel::Clock> clock() { return Kel::activityManager()->clock(); }

  // Handled events' watch ids, from...
  static std::vector<std::uint32_t> ids(std::vector<InotifyEvent> const& events, std::size_t from = 0) {
    std::vector<std::uint32_t> out;
    for (std::size_t i = from; i < events.size(); ++i) out.push_back(events[i].watchId());
    return out;
  }

  TempDir dir_;
};

TEST_F(WatcherTest, BurstIsHandledTenEventsPerFiring) {
  Kel::TraceCapture trace("FileReplicationInotify");
  Kel::Ptr<RecordingWatcher> watcher = RecordingWatcher::RecordingWatcherIs(dir_.path(), true);
  EXPECT_TRUE(watcher->initialized());
  EXPECT_EQ(clock(), watcher->eventClock());
  Kel::Ptr<InotifyMonitor> const monitor = watcher->inotifyMonitor();
  ASSERT_TRUE(monitor);
  EXPECT_EQ(Kel::Name("Watcher::inotifyMonitor"), monitor->name());
  EXPECT_GT(watcher->wid(), 0u);
  EXPECT_EQ(1u, trace.messagesWith("virtual void FileReplication::Watcher::handleInitialized()").size());

  for (std::uint32_t i = 0; i < 25; ++i) monitor->inotifyEventEnq(event(i));
  EXPECT_TRUE(watcher->handled.empty()) << "handled from the clock only";
  EXPECT_EQ(1u, clock()->armedTimers());

  EXPECT_FALSE(trace.messagesWith("void FileReplication::Watcher::handleInotifyEventQueue()").empty());
  EXPECT_EQ(1u, clock()->fireDue());
  EXPECT_FALSE(trace.messagesWith("void FileReplication::Watcher::handleEventClock()").empty());
  EXPECT_EQ(range(0, 10), ids(watcher->handled));
  EXPECT_EQ(1u, clock()->fireDue());
  EXPECT_EQ(range(10, 20), ids(watcher->handled, 10));
  EXPECT_EQ(1u, clock()->fireDue());
  EXPECT_EQ(range(20, 25), ids(watcher->handled, 20));
  EXPECT_EQ(1000, Kel::now()) << "no delay between slices";

  // Dequeuing re-arms the clock while events remain, so one more firing
  // finds the queue empty; that one handles nothing and does not re-arm.
  clock()->fireDue();
  EXPECT_EQ(25u, watcher->handled.size());
  EXPECT_EQ(0u, clock()->armedTimers());
  EXPECT_EQ(0u, clock()->fireDue());

  // Destroying the watcher unbinds it, disarming a pending firing.
  monitor->inotifyEventEnq(event(25));
  EXPECT_EQ(1u, clock()->armedTimers());
  watcher = nullptr;
  EXPECT_EQ(0u, monitor->reactors());
  EXPECT_EQ(0u, clock()->armedTimers());
}

TEST_F(WatcherTest, EventsQueuedBeforeInitialisationWait) {
  Kel::Ptr<InotifyMonitor> const monitor = InotifyMonitor::InotifyMonitorIs("scripted");
  for (std::uint32_t i = 0; i < 3; ++i) monitor->inotifyEventEnq(event(i));
  Kel::Ptr<RecordingWatcher> const watcher = RecordingWatcher::RecordingWatcherIs(dir_.path(), false);
  watcher->eventClockIs(clock());
  watcher->inotifyMonitorIs(monitor);
  EXPECT_EQ(1u, clock()->armedTimers()) << "binding a monitor with events catches up";

  EXPECT_EQ(1u, clock()->fireDue());
  EXPECT_TRUE(watcher->handled.empty());
  EXPECT_EQ(3u, monitor->inotifyEvents());
  EXPECT_EQ(0u, clock()->armedTimers());

  watcher->initializedIs(true);
  monitor->inotifyEventEnq(event(3));
  EXPECT_EQ(1u, clock()->fireDue());
  EXPECT_EQ(range(0, 4), ids(watcher->handled));
  clock()->fireDue();
  EXPECT_EQ(0u, clock()->armedTimers());

  watcher->inotifyMonitorDel();
  watcher->eventClockDel();
  EXPECT_EQ(0u, monitor->reactors());
  monitor->inotifyEventEnq(event(4));
  EXPECT_EQ(0u, clock()->armedTimers()) << "an unbound watcher hears nothing";
}

TEST_F(WatcherTest, BaseWatcherHasNoHandler) {
  Kel::Ptr<Watcher> const watcher = watcherFactory(Kel::String(dir_.path()));
  EXPECT_EQ(Kel::String(dir_.path()), watcher->path());
  watcher->inotifyMonitor()->inotifyEventEnq(event(1));
  EXPECT_DEATH(clock()->fireDue(), "Assertion failed: 0 && \"abstract method called\"");
  watcher->inotifyMonitor()->inotifyEventDelAll();
  clock()->fireDue();
}

// Real inotify in a temporary directory

class InotifyMonitorIntegration : public testing::Test {
 protected:
  void SetUp() override {
    monitor_ = InotifyMonitor::InotifyMonitorIs("integration");
    wd_ = monitor_->newWatchId(Kel::String(dir_.path()));
    recorder_ = new MonitorRecorder;
    recorder_->notifierIs(monitor_);
  }
  void TearDown() override { recorder_->notifierIs(nullptr); }

  // Serves the loop until the kernel's records for count events arrived.
  std::vector<InotifyEvent> await(std::size_t count) {
    Kel::activityManager()->loop().runUntil([&] { return monitor_->inotifyEvents() >= count; }, 10);
    return takeAll();
  }
  std::vector<InotifyEvent> takeAll() {
    std::vector<InotifyEvent> out;
    while (monitor_->inotifyEvents()) out.push_back(monitor_->inotifyEventDeq());
    return out;
  }
  InotifyEvent expected(Type type, std::string const& name, bool isDirectory = false) const {
    return InotifyEvent(type, isDirectory, wd_, Kel::String(name));
  }
  static void create(std::string const& path) {
    int const fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(1, write(fd, "x", 1));
    close(fd);
  }

  TempDir dir_;
  TempDir other_;
  Kel::Ptr<InotifyMonitor> monitor_;
  std::uint32_t wd_ = 0;
  Kel::Ptr<MonitorRecorder> recorder_;
};

TEST_F(InotifyMonitorIntegration, OneReadQueuesEveryRecordInKernelOrder) {
  Kel::TraceCapture trace("FileReplicationInotify");
  create(dir_ / "a");                                                // created, modified
  ASSERT_EQ(0, chmod((dir_ / "a").c_str(), 0600));                   // modified
  ASSERT_EQ(0, rename((dir_ / "a").c_str(), (dir_ / "b").c_str()));  // deleted a, created b
  ASSERT_EQ(0, unlink((dir_ / "b").c_str()));                        // deleted
  ASSERT_EQ(0, mkdir((dir_ / "d").c_str(), 0755));                   // created directory
  ASSERT_EQ(0, rmdir((dir_ / "d").c_str()));                         // deleted directory

  monitor_->handleEvent();
  std::vector<std::string> const messages = trace.messages();
  EXPECT_EQ(1u, with(messages, "InotifyMonitor::handleEvent").size());
  std::vector<InotifyEvent> const events = takeAll();
  std::vector<InotifyEvent> const wanted = {
      expected(InotifyEvent::created, "a"),       expected(InotifyEvent::modified, "a"),
      expected(InotifyEvent::modified, "a"),      expected(InotifyEvent::deleted, "a"),
      expected(InotifyEvent::created, "b"),       expected(InotifyEvent::deleted, "b"),
      expected(InotifyEvent::created, "d", true), expected(InotifyEvent::deleted, "d", true),
  };
  EXPECT_EQ(wanted, events);
  EXPECT_EQ(range(0, 8), std::vector<std::uint32_t>(recorder_->indices.begin(), recorder_->indices.begin() + 8));

  std::vector<std::string> const received = with(messages, "Received inotify_event");
  ASSERT_EQ(8u, received.size());
  EXPECT_EQ("Received inotify_event: wd=" + std::to_string(wd_) + "; mask=0x100; len=16; name=a", received[0]);
  EXPECT_EQ("Received inotify_event: wd=" + std::to_string(wd_) + "; mask=0x40000100; len=16; name=d", received[6]);

  // Nothing left: the next read would block and returns quietly.
  monitor_->handleEvent();
  EXPECT_EQ(0u, monitor_->inotifyEvents());
}

TEST_F(InotifyMonitorIntegration, MovesAcrossTheDirectoryAndChangesOfItself) {
  Kel::TraceCapture trace("FileReplicationInotify");
  create(other_ / "x");
  ASSERT_EQ(0, rename((other_ / "x").c_str(), (dir_ / "in").c_str()));
  EXPECT_EQ(std::vector<InotifyEvent>{expected(InotifyEvent::created, "in")}, await(1));
  ASSERT_EQ(0, rename((dir_ / "in").c_str(), (other_ / "out").c_str()));
  EXPECT_EQ(std::vector<InotifyEvent>{expected(InotifyEvent::deleted, "in")}, await(1));

  ASSERT_EQ(0, chmod(dir_.path().c_str(), 0750));
  EXPECT_EQ(std::vector<InotifyEvent>{expected(InotifyEvent::modified, "", true)}, await(1));
  std::vector<std::string> const messages = trace.messages();
  EXPECT_EQ(1u, with(messages, "; mask=0x40000004; len=0; name=(none)").size());
  EXPECT_FALSE(with(messages, "FileDescriptorReactor::handleReadableCount").empty()) << "read when readable";
}

TEST_F(InotifyMonitorIntegration, WatchesComeAndGo) {
  Kel::TraceCapture trace("FileReplicationInotify");
  monitor_->watchIdToDelIs(wd_);
  monitor_->handleEvent();
  EXPECT_EQ(std::vector<InotifyEvent>{expected(InotifyEvent::deleted, "")}, takeAll())
      << "the kernel's IN_IGNORED: the watched path is gone for us";
  EXPECT_TRUE(trace.messagesWith("Watch already deleted.").empty());

  EXPECT_NO_THROW(monitor_->watchIdToDelIs(wd_));
  std::vector<std::string> const messages = trace.messages();
  EXPECT_EQ(std::vector<std::string>({"InotifyMonitor::watchdIdToDelIs " + std::to_string(wd_)}),
            with(messages, "watchdIdToDelIs"));
  EXPECT_EQ(std::vector<std::string>{"Watch already deleted."}, with(messages, "already"));

  try {
    monitor_->newWatchId(Kel::String(dir_ / "missing"));
    ADD_FAILURE() << "no exception";
  } catch (Kel::ErrnoException const& e) {
    EXPECT_EQ(ENOENT, e.error());
    EXPECT_STREQ("No such file or directory", e.what());
  }

  // A watch on the same path again is a new one, and it reports.
  std::uint32_t const again = monitor_->newWatchId(Kel::String(dir_.path()));
  EXPECT_NE(wd_, again);
  create(dir_ / "f");
  std::vector<InotifyEvent> const events = await(2);
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(InotifyEvent(InotifyEvent::created, false, again, "f"), events[0]);
}

// The watch a watcher takes is the one the kernel reports its path's changes on.
TEST(WatcherIntegration, HandlesChangesOfItsPath) {
  TempDir dir;
  Kel::Ptr<RecordingWatcher> const watcher = RecordingWatcher::RecordingWatcherIs(dir.path(), true);
  writeFile(dir / "f", "");
  EXPECT_TRUE(Kel::activityManager()->loop().runUntil([&] { return !watcher->handled.empty(); }, 10));
  ASSERT_FALSE(watcher->handled.empty());
  EXPECT_EQ(InotifyEvent(InotifyEvent::created, false, watcher->wid(), "f"), watcher->handled[0]);
}

}  // namespace
}  // namespace FileReplication
