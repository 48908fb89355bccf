#include "FileReplication/Log.h"

#include "runtime/Trace.h"

KEL_TRACE_FACILITY("filerep")

namespace FileReplication {

void log(std::string_view line) { KEL_TRACE(1, line); }

}  // namespace FileReplication
