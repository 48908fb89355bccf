#include "runtime/FileDescriptor.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <stdexcept>

#include "runtime/ActivityManager.h"
#include "runtime/Exception.h"
#include "tests/support/Pipe.h"

namespace Kel {
namespace {

class Reader : public FileDescriptor::Notifiee {
 public:
  // Bytes read per call; 0 reads until the descriptor would block.
  int bytesPerCall = 1;
  int calls = 0;
  std::function<void()> action;

  void onReadableCount() override {
    ++calls;
    if (action) action();
    if (!notifier()) return;
    char c;
    for (int n = 0; bytesPerCall == 0 || n < bytesPerCall; ++n) {
      ssize_t const got = read(notifier()->descriptor(), &c, 1);
      if (got <= 0) {
        if (got < 0) lastError = errno;
        break;
      }
    }
  }
  int lastError = 0;
};

class Writer : public FileDescriptor::Notifiee {
 public:
  int readableCalls = 0;
  int writableCalls = 0;
  std::function<void()> onRead;
  void onReadableCount() override {
    ++readableCalls;
    if (onRead) onRead();
  }
  void onWritableCount() override { ++writableCalls; }
};

bool nonBlockingFlag(int fd) { return fcntl(fd, F_GETFL) & O_NONBLOCK; }

TEST(FileDescriptorIntegration, NotifiesWhileDataRemainsUntilReadToEagain) {
  EventLoop& loop = activityManager()->loop();
  std::size_t const sourcesBefore = loop.sources();
  Pipe pipe;
  Ptr<FileDescriptor> fd = FileDescriptor::FileDescriptorIs("pipe");
  EXPECT_EQ(fd->name(), Name("pipe"));
  fd->descriptorIs(pipe.readEnd());
  fd->nonBlockingIs(true);
  EXPECT_TRUE(nonBlockingFlag(pipe.readEnd()));
  fd->notifyOnReadableIs(true);
  EXPECT_EQ(loop.sources(), sourcesBefore + 1);
  Ptr<Reader> reader = new Reader();
  reader->notifierIs(fd);

  loop.turn(0);
  EXPECT_EQ(reader->calls, 0);
  pipe.put("abc");
  for (int turn = 1; turn <= 3; ++turn) {
    loop.turn(0);
    EXPECT_EQ(reader->calls, turn);
  }
  loop.turn(0);
  EXPECT_EQ(reader->calls, 3);
  EXPECT_EQ(fd->readableCount(), 3u);

  pipe.put("defg");
  reader->bytesPerCall = 0;
  loop.turn(0);
  loop.turn(0);
  EXPECT_EQ(reader->calls, 4);
  EXPECT_EQ(reader->lastError, EAGAIN);

  fd->nonBlockingIs(false);
  EXPECT_FALSE(nonBlockingFlag(pipe.readEnd()));
  reader = nullptr;
  fd = nullptr;
  EXPECT_EQ(loop.sources(), sourcesBefore);
  // The entity never closes what it was given.
  EXPECT_GE(fcntl(pipe.readEnd(), F_GETFD), 0);
}

TEST(FileDescriptorIntegration, NoDescriptorOrNotifyOffStopsNotifications) {
  EventLoop& loop = activityManager()->loop();
  std::size_t const sourcesBefore = loop.sources();
  Pipe pipe, other;
  pipe.put("x");
  other.put("y");
  Ptr<FileDescriptor> fd = FileDescriptor::FileDescriptorIs("pipe");
  Ptr<Reader> reader = new Reader();
  reader->bytesPerCall = 0;
  reader->notifierIs(fd);
  // Watching needs both a descriptor and notification on.
  fd->notifyOnReadableIs(true);
  EXPECT_EQ(loop.sources(), sourcesBefore);
  fd->nonBlockingIs(true);
  fd->descriptorIs(pipe.readEnd());
  EXPECT_TRUE(nonBlockingFlag(pipe.readEnd()));
  EXPECT_EQ(loop.sources(), sourcesBefore + 1);

  fd->descriptorIs(-1);
  EXPECT_EQ(loop.sources(), sourcesBefore);
  loop.turn(0);
  EXPECT_EQ(reader->calls, 0);

  // A new descriptor is watched in place of the old, and made non-blocking.
  fd->descriptorIs(other.readEnd());
  EXPECT_TRUE(nonBlockingFlag(other.readEnd()));
  loop.turn(0);
  EXPECT_EQ(reader->calls, 1);
  other.put("z");
  fd->notifyOnReadableIs(false);
  EXPECT_EQ(loop.sources(), sourcesBefore);
  loop.turn(0);
  EXPECT_EQ(reader->calls, 1);

  EXPECT_THROW(fd->descriptorIs(-2), RangeException);
  fd->descriptorIs(-1);
  int const closed = fcntl(pipe.readEnd(), F_DUPFD_CLOEXEC, 0);
  close(closed);
  try {
    fd->descriptorIs(closed);
    ADD_FAILURE() << "no exception";
  } catch (ErrnoException const& e) {
    EXPECT_EQ(e.error(), EBADF);
  }
  EXPECT_EQ(fd->descriptor(), -1);
}

TEST(FileDescriptorIntegration, WritableWhileThereIsRoomAndOnlyWhileAsked) {
  EventLoop& loop = activityManager()->loop();
  std::size_t const sourcesBefore = loop.sources();
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
  Ptr<FileDescriptor> fd = FileDescriptor::FileDescriptorIs("socket");
  fd->descriptorIs(ends[0]);
  Ptr<Writer> writer = new Writer();
  writer->notifierIs(fd);
  fd->notifyOnWritableIs(true);
  EXPECT_EQ(loop.sources(), sourcesBefore + 1);
  loop.turn(0);
  loop.turn(0);
  EXPECT_EQ(writer->writableCalls, 2);
  EXPECT_EQ(writer->readableCalls, 0);

  // A full socket is not reported until the peer makes room.
  char block[4096] = {};
  while (send(ends[0], block, sizeof block, MSG_NOSIGNAL) > 0) {
  }
  loop.turn(0);
  EXPECT_EQ(writer->writableCalls, 2);
  while (recv(ends[1], block, sizeof block, 0) > 0) {
  }
  loop.turn(0);
  EXPECT_EQ(writer->writableCalls, 3);

  // Both at once; writability turned off while reading is not reported
  // even though the turn found it.
  fd->notifyOnReadableIs(true);
  EXPECT_EQ(loop.sources(), sourcesBefore + 1);
  ASSERT_EQ(send(ends[1], "x", 1, MSG_NOSIGNAL), 1);
  writer->onRead = [&] { fd->notifyOnWritableIs(false); };
  loop.turn(0);
  EXPECT_EQ(writer->readableCalls, 1);
  EXPECT_EQ(writer->writableCalls, 3);
  fd->notifyOnReadableIs(false);
  EXPECT_EQ(loop.sources(), sourcesBefore);

  // A peer gone is reported as writable, so that the write tells it.
  fd->notifyOnWritableIs(true);
  close(ends[1]);
  loop.turn(0);
  EXPECT_EQ(writer->writableCalls, 4);
  EXPECT_EQ(fd->writableCount(), 4u);
  EXPECT_EQ(send(ends[0], "x", 1, MSG_NOSIGNAL), -1);
  EXPECT_EQ(errno, EPIPE);
  fd->descriptorIs(-1);
  EXPECT_EQ(loop.sources(), sourcesBefore);
  close(ends[0]);
}

TEST(FileDescriptorIntegration, ReactorMayDropTheEntityInItsCallback) {
  EventLoop& loop = activityManager()->loop();
  std::size_t const sourcesBefore = loop.sources();
  Pipe pipe;
  pipe.put("x");
  Ptr<FileDescriptor> fd = FileDescriptor::FileDescriptorIs("pipe");
  fd->descriptorIs(pipe.readEnd());
  fd->notifyOnReadableIs(true);
  Ptr<Reader> reader = new Reader();
  reader->notifierIs(fd);
  fd = nullptr;
  // Unbinding drops the last reference to the entity being served.
  reader->action = [&] { reader->notifierIs(nullptr); };
  loop.turn(0);
  EXPECT_EQ(reader->calls, 1);
  EXPECT_EQ(loop.sources(), sourcesBefore);
}

}  // namespace
}  // namespace Kel
