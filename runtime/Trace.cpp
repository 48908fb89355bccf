#include "runtime/Trace.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <streambuf>
#include <string>
#include <vector>

#include "runtime/Dunvel.h"
#include "runtime/Morlix.h"

namespace Kel {

namespace {

constexpr int maxLevel = 9;
constexpr std::uint32_t allLevels = (2u << maxLevel) - 1;
constexpr std::size_t messageCapacity = 4096;
constexpr std::string_view truncationMarker = " [truncated]";
// Room for the time, the facility and the level in front of a message.
constexpr std::size_t linePrefixCapacity = 320;

// Holds one statement's text in a fixed buffer. Once it is full, the rest is
// refused, which puts the stream in a failed state so that further insertions
// cost next to nothing.
class TraceBuffer : public std::streambuf {
 public:
  TraceBuffer() { reset(); }
  void reset() {
    setp(buffer_, buffer_ + messageCapacity);
    truncated_ = false;
  }
  std::string_view text() {
    auto size = static_cast<std::size_t>(pptr() - pbase());
    if (truncated_) {
      memcpy(buffer_ + size, truncationMarker.data(), truncationMarker.size());
      size += truncationMarker.size();
    }
    return {buffer_, size};
  }

 protected:
  int_type overflow(int_type) override {
    truncated_ = true;
    return traits_type::eof();
  }

 private:
  char buffer_[messageCapacity + truncationMarker.size()];
  bool truncated_ = false;
};

struct TraceItem {
  std::string facility;  // "*" for every facility
  std::uint32_t levels;
};

void writeToStderr(char const* data, std::size_t size) {
  while (size > 0) {
    ssize_t written = ::write(STDERR_FILENO, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    data += written;
    size -= static_cast<std::size_t>(written);
  }
}

std::string_view trim(std::string_view text) {
  std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// Adds item to items, or says what is wrong with it.
std::string parseItem(std::string_view item, std::vector<TraceItem>& items) {
  if (item.empty()) return "empty item";
  std::size_t slash = item.find('/');
  std::string_view facility = trim(item.substr(0, slash));
  if (facility.empty()) return "empty facility name";
  std::uint32_t levels = allLevels;
  if (slash != std::string_view::npos) {
    std::string_view text = trim(item.substr(slash + 1));
    if (text.empty()) return "missing level after '/'";
    unsigned level = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), level);
    if (error == std::errc::invalid_argument || end != text.data() + text.size()) {
      return "level \"" + std::string(text) + "\" is not a number";
    }
    if (error != std::errc() || level > maxLevel) {
      return "level " + std::string(text) + " is out of range 0 to " + std::to_string(maxLevel);
    }
    levels = (2u << level) - 1;
  }
  items.push_back({std::string(facility), levels});
  return {};
}

std::vector<TraceItem> parseConfig(std::string_view config) {
  std::vector<TraceItem> items;
  if (trim(config).empty()) return items;
  for (std::size_t start = 0;;) {
    std::size_t comma = config.find(',', start);
    std::string_view item = trim(config.substr(start, comma - start));
    if (std::string problem = parseItem(item, items); !problem.empty()) {
      std::string report = "KEL_TRACE: ignoring \"" + std::string(item) + "\": " + problem + "\n";
      writeToStderr(report.data(), report.size());
    }
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  return items;
}

std::int64_t wallClockNs() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

// The stream statements format into, reused from one statement to the next.
class TraceFormatter {
 public:
  TraceFormatter() : stream_(&buffer_) {}
  std::ostream& stream() { return stream_; }
  // Starts a statement as if on a new stream: flags set by the previous
  // statement (std::hex, a precision) must not leak into this one.
  void begin() {
    buffer_.reset();
    stream_.clear();
    stream_.flags(std::ios_base::dec | std::ios_base::skipws);
    stream_.precision(6);
    stream_.width(0);
    stream_.fill(' ');
  }
  std::string_view text() { return buffer_.text(); }

 private:
  TraceBuffer buffer_;
  std::ostream stream_;
};

namespace {

// Tracing's process-wide state, made on first use and never destroyed, so
// that statements in static constructors and destructors work. Like the rest
// of the runtime, it belongs to the event loop's thread.
struct TraceState {
  TraceHandle* handles = nullptr;
  std::vector<TraceItem> items;
  TraceFormatter formatter;
  bool formatting = false;  // formatter is taken by a statement
  char line[linePrefixCapacity + messageCapacity + truncationMarker.size()];
};

TraceState* createTraceState() {
  auto* state = new TraceState;
  if (char const* config = std::getenv("KEL_TRACE")) state->items = parseConfig(config);
  // Before the handler is set: no handle exists yet to update, and the
  // handler would come back here.
  Dunvel::openFromEnvironment();
  Morlix::openChangeHandlerIs(&TraceHandle::updateAll);
  return state;
}

TraceState& traceState() {
  static TraceState* const state = createTraceState();
  return *state;
}

std::uint32_t stderrLevels(std::vector<TraceItem> const& items, std::string_view facility) {
  std::uint32_t levels = 0;
  for (TraceItem const& item : items) {
    if (item.facility == "*" || item.facility == facility) levels |= item.levels;
  }
  return levels;
}

}  // namespace

TraceHandle::TraceHandle(char const* facility) : facility_(facility) {
  TraceState& state = traceState();
  next_ = state.handles;
  state.handles = this;
  update();
}

void TraceHandle::update() {
  stderrMask_ = stderrLevels(traceState().items, facility_);
  mask_ = stderrMask_ | (Dunvel::recording() ? allLevels : 0);
}

void TraceHandle::updateAll() {
  for (TraceHandle* handle = traceState().handles; handle; handle = handle->next_) handle->update();
}

TraceStatement::TraceStatement(TraceHandle const& handle, int level)
    : handle_(handle), level_(level), nested_(traceState().formatting), savedErrno_(errno) {
  if (nested_) {
    formatter_ = new TraceFormatter;
  } else {
    formatter_ = &traceState().formatter;
    traceState().formatting = true;
  }
  formatter_->begin();
}

TraceStatement::~TraceStatement() {
  std::string_view message = formatter_->text();
  std::int64_t timeNs = wallClockNs();
  if (handle_.stderrEnabled(level_)) {
    // One write per line: lines of processes sharing stderr do not mix.
    // Statements never overlap here, so all can share the line buffer.
    TraceState& state = traceState();
    std::size_t size = Morlix::formatLine(state.line, sizeof state.line, timeNs, handle_.facility(), level_, message);
    writeToStderr(state.line, size);
  }
  Dunvel::record(timeNs, handle_.facility(), level_, message);
  if (nested_) {
    delete formatter_;
  } else {
    traceState().formatting = false;
  }
  errno = savedErrno_;
}

std::ostream& TraceStatement::stream() { return formatter_->stream(); }

void traceConfigIs(std::string_view config) {
  TraceState& state = traceState();
  state.items = parseConfig(config);
  TraceHandle::updateAll();
}

}  // namespace Kel
