#include "FileReplication/Log.h"

#include "runtime/Trace.h"

KEL_TRACE_FACILITY("filerep")

namespace FileReplication {

namespace {

void traceLine(LogPriority, std::string_view line) { KEL_TRACE(1, line); }

LogSink sink = traceLine;

}  // namespace

void logSinkIs(LogSink v) { sink = v ? v : traceLine; }

void log(LogPriority priority, std::string_view line) { sink(priority, line); }

}  // namespace FileReplication
