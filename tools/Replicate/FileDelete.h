#pragma once

#include "tools/Replicate/CommandLine.h"

namespace Replicate {

// Removes line.target on each remote host in turn, or locally when there is
// none. A file already gone counts as removed; a directory is refused. Every
// host is tried; each failure is reported on its own line. Returns true when
// every removal succeeded. Throws std::runtime_error for a failure that
// concerns all hosts alike.
bool deleteFile(const CommandLine& line);

}  // namespace Replicate
