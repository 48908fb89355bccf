#pragma once

#include "tools/Replicate/CommandLine.h"

namespace Replicate {

// Tries each of line.remoteHosts, down or not, all at once, and records
// whether it is up. Each failure is reported on its own line. Returns true
// when every host is up.
bool probeHosts(const CommandLine& line);

}  // namespace Replicate
