#pragma once

#include <string_view>

namespace FileReplication {

// How much a line for the operator matters, as syslog numbers it.
enum class LogPriority { error = 3, warning = 4, notice = 5, info = 6 };

// Where lines for the operator go. By default they go to the trace facility
// "filerep" at level 1; the agent sends them to its log instead.
using LogSink = void (*)(LogPriority priority, std::string_view line);
void logSinkIs(LogSink sink);

// A line for the operator: what went wrong, or changed, that they may have to
// act on.
void log(LogPriority priority, std::string_view line);

}  // namespace FileReplication
