#pragma once

#include "runtime/OwnedDescriptor.h"

// A host that hangs: the kernel completes the handshake into the backlog
// and nothing ever answers, so ssh waits for the server's banner until its
// time-out, as it does with a machine that is up but stuck. A host that
// refuses at once would say nothing about waiting.
class HungHost {
 public:
  // Throws std::runtime_error when address and port cannot be listened on.
  HungHost(char const* address, int port);

 private:
  Kel::OwnedDescriptor fd_;
};
