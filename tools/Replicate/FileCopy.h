#pragma once

#include "tools/Replicate/CommandLine.h"

namespace Replicate {

// Copies line.source to line.target on each remote host in turn, or locally
// when there is none. Every host is tried; each failure is reported on its
// own line. Returns true when every copy succeeded. Throws std::runtime_error
// for a failure that concerns all hosts alike.
bool copyFile(const CommandLine& line);

}  // namespace Replicate
