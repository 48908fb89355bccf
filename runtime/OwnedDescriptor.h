#pragma once

#include <unistd.h>

#include <utility>

namespace Kel {

// A descriptor closed when its owner goes, on every path out of a scope;
// negative (a failed open) holds nothing.
class OwnedDescriptor {
 public:
  explicit OwnedDescriptor(int fd) : fd_(fd) {}
  ~OwnedDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  OwnedDescriptor(OwnedDescriptor const&) = delete;
  OwnedDescriptor& operator=(OwnedDescriptor const&) = delete;

  int get() const { return fd_; }
  // Hands the descriptor over; this one then holds nothing.
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace Kel
