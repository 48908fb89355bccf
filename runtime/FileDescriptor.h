#pragma once

#include <cstdint>

#include "runtime/Entity.h"
#include "runtime/EventLoop.h"
#include "runtime/Name.h"

namespace Kel {

// An operating-system descriptor served by the event loop. The entity does
// not own the descriptor: whoever gave it closes it, after turning
// notification off or setting the descriptor to -1.
class FileDescriptor : public Entity, private EventLoop::Source {
 public:
  class NotifieeConst : public NotifieeBase<FileDescriptor> {
   public:
    // The descriptor is readable. The loop is level-triggered: while data is
    // left, the reactor is called again on the following turns.
    virtual void onReadableCount() {}
    // The descriptor takes writes, or has failed so that a write says why.
    // Level-triggered as well: a descriptor with room is reported every turn,
    // so notification is on only while there is something to write.
    virtual void onWritableCount() {}
  };
  using Notifiee = NotifieeConst;

  static Ptr<FileDescriptor> FileDescriptorIs(Name name);

  Name name() const { return name_; }
  int descriptor() const { return descriptor_; }
  void descriptorIs(int fd);
  // Puts the descriptor in O_NONBLOCK mode, so a reactor reading until the
  // descriptor would block never stalls the loop.
  bool nonBlocking() const { return nonBlocking_; }
  void nonBlockingIs(bool v);
  bool notifyOnReadable() const { return notifyOnReadable_; }
  void notifyOnReadableIs(bool v);
  bool notifyOnWritable() const { return notifyOnWritable_; }
  void notifyOnWritableIs(bool v);
  // How many times the loop found the descriptor readable, and writable.
  std::uint64_t readableCount() const { return readableCount_; }
  std::uint64_t writableCount() const { return writableCount_; }

 protected:
  explicit FileDescriptor(Name name) : name_(name) {}
  ~FileDescriptor() override;

 private:
  void onReadable() override;
  void onWritable() override;
  // Registers with the loop exactly while there is a descriptor and
  // something to watch it for.
  void watchUpdate();

  Name name_;
  int descriptor_ = -1;
  bool nonBlocking_ = false;
  bool notifyOnReadable_ = false;
  bool notifyOnWritable_ = false;
  // The interest registered with the loop; 0 when not watched.
  unsigned watched_ = 0;
  std::uint64_t readableCount_ = 0;
  std::uint64_t writableCount_ = 0;
};

}  // namespace Kel
