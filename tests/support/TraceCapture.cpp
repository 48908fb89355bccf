#include "tests/support/TraceCapture.h"

#include <gtest/gtest.h>

#include <sstream>

#include "runtime/Trace.h"

namespace Kel {

TraceCapture::TraceCapture(std::string facility) : facility_(std::move(facility)) {
  traceConfigIs(facility_);
  testing::internal::CaptureStderr();
}

TraceCapture::~TraceCapture() {
  testing::internal::GetCapturedStderr();
  traceConfigIs("");
}

std::vector<std::string> TraceCapture::messages() {
  std::string const captured = testing::internal::GetCapturedStderr();
  testing::internal::CaptureStderr();
  std::vector<std::string> out;
  std::istringstream lines(captured);
  std::string const marker = " " + facility_ + " ";
  for (std::string line; std::getline(lines, line);) {
    // <time> <facility> <level> <message>
    auto at = line.find(marker);
    if (at == std::string::npos) continue;
    auto level = line.find(' ', at + marker.size());
    if (level == std::string::npos) continue;
    out.push_back(line.substr(level + 1));
  }
  return out;
}

std::vector<std::string> TraceCapture::messagesWith(std::string_view part) {
  std::vector<std::string> out;
  for (auto& m : messages()) {
    if (m.find(part) != std::string::npos) out.push_back(std::move(m));
  }
  return out;
}

}  // namespace Kel
