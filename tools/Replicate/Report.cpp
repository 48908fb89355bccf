#include "tools/Replicate/Report.h"

#include <cstdio>

namespace Replicate {

void report(const std::string& message) {
  // One write per line, so that it does not interleave with children's output.
  const std::string line = "Replicate: " + message + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace Replicate
