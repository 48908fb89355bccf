#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Kel {

// Enables tracing of one facility on stderr while it lives and hands back the
// messages written, without their time, facility and level.
class TraceCapture {
 public:
  explicit TraceCapture(std::string facility);
  ~TraceCapture();
  TraceCapture(TraceCapture const&) = delete;
  TraceCapture& operator=(TraceCapture const&) = delete;

  // The messages traced since the last call (or construction).
  std::vector<std::string> messages();
  // Those messages that contain part, in order.
  std::vector<std::string> messagesWith(std::string_view part);

 private:
  std::string facility_;
};

}  // namespace Kel
