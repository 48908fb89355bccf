#pragma once

#include <cstdint>

#include "runtime/Entity.h"
#include "runtime/EventLoop.h"
#include "runtime/Name.h"

namespace Kel {

// An operating-system descriptor served by the event loop. The entity does
// not own the descriptor: whoever gave it closes it, after turning
// readability notification off or setting the descriptor to -1.
class FileDescriptor : public Entity, private EventLoop::Source {
 public:
  class NotifieeConst : public NotifieeBase<FileDescriptor> {
   public:
    // The descriptor is readable. The loop is level-triggered: while data is
    // left, the reactor is called again on the following turns.
    virtual void onReadableCount() {}
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
  // How many times the loop found the descriptor readable.
  std::uint64_t readableCount() const { return readableCount_; }

 protected:
  explicit FileDescriptor(Name name) : name_(name) {}
  ~FileDescriptor() override;

 private:
  void onReadable() override;
  // Registers with the loop exactly while there is a descriptor to watch.
  void watchUpdate();

  Name name_;
  int descriptor_ = -1;
  bool nonBlocking_ = false;
  bool notifyOnReadable_ = false;
  bool watched_ = false;
  std::uint64_t readableCount_ = 0;
};

}  // namespace Kel
