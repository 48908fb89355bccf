#pragma once

#include "runtime/String.h"

namespace FileReplication {

// A remote host, by name or address; it is its own key.
class RemoteHost {
 public:
  explicit RemoteHost(Kel::String hostOrIp) : hostOrIp_(std::move(hostOrIp)) {}
  Kel::String const& hostOrIp() const { return hostOrIp_; }
  friend bool operator==(RemoteHost const&, RemoteHost const&) = default;

 private:
  Kel::String hostOrIp_;
};

}  // namespace FileReplication
