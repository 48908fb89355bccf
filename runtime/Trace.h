#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

namespace Kel {

// One trace handle per source file, named by its facility and created on
// first use (KEL_TRACE_FACILITY). A statement is formatted only when its
// level is enabled for stderr (KEL_TRACE) or the Morlix ring buffer is open.
//
// A handle joins a process-wide registry for good and is never removed from
// it: handles live as long as the process, as function statics do.
class TraceHandle {
 public:
  explicit TraceHandle(char const* facility);
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;

  char const* facility() const { return facility_; }
  bool enabled(int level) const { return (mask_ >> level) & 1u; }
  bool stderrEnabled(int level) const { return (stderrMask_ >> level) & 1u; }
  // Recomputes which levels are on; called when the configuration changes.
  void update();
  // Updates every handle: after KEL_TRACE changed and when Morlix opens or
  // closes.
  static void updateAll();

 private:
  char const* facility_;
  std::uint32_t mask_ = 0;
  std::uint32_t stderrMask_ = 0;
  TraceHandle* next_ = nullptr;
};

class TraceFormatter;

// Formats one statement and writes it where its handle says: a line on
// stderr when its level is enabled there, and a record in Morlix when that is
// open. The text goes into a fixed buffer; what does not fit is cut and
// marked " [truncated]". A statement formatted while another one is (an
// operator<< that traces) gets a buffer of its own from the heap. errno is
// left as the statement found it.
class TraceStatement {
 public:
  TraceStatement(TraceHandle const& handle, int level);
  ~TraceStatement();
  TraceStatement(TraceStatement const&) = delete;
  TraceStatement& operator=(TraceStatement const&) = delete;
  std::ostream& stream();

 private:
  TraceHandle const& handle_;
  int level_;
  bool nested_;
  int savedErrno_;
  TraceFormatter* formatter_;
};

// KEL_TRACE's syntax: comma-separated items "Facility/N" (levels 0 to N),
// "Facility" (all levels) and "*" or "*/N" (every facility). Malformed items
// are reported once on stderr and ignored.
void traceConfigIs(std::string_view config);

}  // namespace Kel

#define KEL_TRACE_FACILITY(name)          \
  namespace {                             \
  Kel::TraceHandle& kelTraceHandle() {    \
    static Kel::TraceHandle handle(name); \
    return handle;                        \
  }                                       \
  }

#define KEL_TRACE(level, expr)                                \
  do {                                                        \
    Kel::TraceHandle& kelHandle_ = kelTraceHandle();          \
    if (kelHandle_.enabled(level)) {                          \
      Kel::TraceStatement kelStatement_(kelHandle_, (level)); \
      kelStatement_.stream() << expr;                         \
    }                                                         \
  } while (0)
