#include "runtime/FileDescriptor.h"

#include <errno.h>
#include <fcntl.h>

#include "runtime/ActivityManager.h"
#include "runtime/Exception.h"
#include "runtime/String.h"

namespace Kel {

namespace {

void setNonBlocking(int fd, bool v) {
  int const flags = fcntl(fd, F_GETFL);
  if (flags < 0) throw ErrnoException(errno, "fcntl F_GETFL");
  int const wanted = v ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
  if (wanted != flags && fcntl(fd, F_SETFL, wanted) < 0) throw ErrnoException(errno, "fcntl F_SETFL");
}

}  // namespace

Ptr<FileDescriptor> FileDescriptor::FileDescriptorIs(Name name) { return new FileDescriptor(name); }

FileDescriptor::~FileDescriptor() {
  if (watched_) activityManager()->loop().sourceDel(descriptor_, this);
}

void FileDescriptor::descriptorIs(int fd) {
  if (fd == descriptor_) return;
  if (fd < -1) throwRangeException("descriptor must be -1 or a descriptor");
  if (fd >= 0 && nonBlocking_) setNonBlocking(fd, true);
  if (watched_) {
    activityManager()->loop().sourceDel(descriptor_, this);
    watched_ = 0;
  }
  descriptor_ = fd;
  watchUpdate();
}

void FileDescriptor::nonBlockingIs(bool v) {
  if (v == nonBlocking_) return;
  if (descriptor_ >= 0) setNonBlocking(descriptor_, v);
  nonBlocking_ = v;
}

void FileDescriptor::notifyOnReadableIs(bool v) {
  notifyOnReadable_ = v;
  watchUpdate();
}

void FileDescriptor::notifyOnWritableIs(bool v) {
  notifyOnWritable_ = v;
  watchUpdate();
}

void FileDescriptor::watchUpdate() {
  unsigned const wanted =
      descriptor_ < 0 ? 0u
                      : (notifyOnReadable_ ? EventLoop::readable : 0u) | (notifyOnWritable_ ? EventLoop::writable : 0u);
  if (wanted == watched_) return;
  if (wanted) {
    activityManager()->loop().sourceIs(descriptor_, this, wanted);
  } else {
    activityManager()->loop().sourceDel(descriptor_, this);
  }
  watched_ = wanted;
}

void FileDescriptor::onReadable() {
  // A reactor may drop the last reference to this entity.
  Ptr<FileDescriptor> const self(this);
  ++readableCount_;
  notify(&NotifieeConst::onReadableCount);
}

void FileDescriptor::onWritable() {
  Ptr<FileDescriptor> const self(this);
  ++writableCount_;
  notify(&NotifieeConst::onWritableCount);
}

}  // namespace Kel
