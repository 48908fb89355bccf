#pragma once

#include <string_view>

namespace FileReplication {

// A line for the operator: what went wrong, or changed, that they may have to
// act on. It goes to the trace facility "filerep" at level 1, which the agent
// writes to its standard error by default.
void log(std::string_view line);

}  // namespace FileReplication
