#pragma once

#include <string>
#include <vector>

#include "tools/Replicate/CommandLine.h"

namespace Replicate {

// Reads names, each ended by a NUL byte, from fd to its end. Throws
// UsageError when the last one is not ended, since it may be cut short, and
// std::runtime_error when fd cannot be read.
std::vector<std::string> readNameList(int fd);

// Copies line.source/NAME to line.target/NAME for each of names, with one
// rsync run per destination (more when some files fail), to each remote
// host in turn or locally when there is none. Every failure is reported on
// its own line. Returns, for each name, whether it reached every
// destination.
std::vector<bool> copyFiles(const CommandLine& line, const std::vector<std::string>& names);

}  // namespace Replicate
