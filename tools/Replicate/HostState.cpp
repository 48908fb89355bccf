#include "tools/Replicate/HostState.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>

namespace Replicate {

namespace {

constexpr long long firstBackOff = 10;
constexpr long long longestBackOff = 300;
// Long enough for the agent's probe at nextTry to have settled the state.
constexpr long long probeGrace = 30;
constexpr long long successRewriteInterval = 10;

long long backOff(long long failures) {
  long long seconds = firstBackOff;
  for (long long i = 1; i < failures && seconds < longestBackOff; ++i) seconds *= 2;
  return std::min(seconds, longestBackOff);
}

bool parseNumber(std::string_view text, long long& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() && value >= 0;
}

}  // namespace

HostState reachedAt(const std::optional<HostState>& before, long long now, std::string error) {
  HostState state;
  state.up = true;
  state.since = before && before->up ? before->since : now;
  state.lastSuccess = error.empty() ? now : before ? before->lastSuccess : 0;
  state.error = std::move(error);
  return state;
}

HostState unreachableAt(const std::optional<HostState>& before, long long now, std::string error) {
  HostState state;
  state.up = false;
  state.since = before && !before->up ? before->since : now;
  state.lastSuccess = before ? before->lastSuccess : 0;
  state.failures = (before ? before->failures : 0) + 1;
  state.nextTry = now + backOff(state.failures);
  state.error = std::move(error);
  return state;
}

bool resting(const HostState& state, long long now) { return restingFor(state, now) > 0; }

long long restingFor(const HostState& state, long long now) {
  return state.up ? 0 : std::max(0LL, state.nextTry + probeGrace - now);
}

bool worthWriting(const std::optional<HostState>& before, const HostState& after) {
  if (!before) return true;
  HostState sameSuccess = after;
  sameSuccess.lastSuccess = before->lastSuccess;
  return sameSuccess != *before || after.lastSuccess - before->lastSuccess >= successRewriteInterval;
}

std::string formatHostState(const HostState& state) {
  std::string error = state.error;
  std::replace_if(
      error.begin(), error.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return std::string("state ") + (state.up ? "up" : "down") + "\nsince " + std::to_string(state.since) +
         "\nlastSuccess " + std::to_string(state.lastSuccess) + "\nfailures " + std::to_string(state.failures) +
         "\nnextTry " + std::to_string(state.nextTry) + "\nerror " + error + "\n";
}

std::optional<HostState> parseHostState(std::string_view text) {
  HostState state;
  // One bit per line, in the order they are written.
  unsigned seen = 0;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    const size_t blank = line.find(' ');
    if (blank == std::string_view::npos) return std::nullopt;
    const std::string_view key = line.substr(0, blank);
    const std::string_view value = line.substr(blank + 1);
    bool valid = true;
    unsigned bit = 0;
    if (key == "state") {
      bit = 1;
      valid = value == "up" || value == "down";
      state.up = value == "up";
    } else if (key == "since") {
      bit = 2;
      valid = parseNumber(value, state.since);
    } else if (key == "lastSuccess") {
      bit = 4;
      valid = parseNumber(value, state.lastSuccess);
    } else if (key == "failures") {
      bit = 8;
      valid = parseNumber(value, state.failures);
    } else if (key == "nextTry") {
      bit = 16;
      valid = parseNumber(value, state.nextTry);
    } else if (key == "error") {
      bit = 32;
      state.error = value;
    }
    if (!valid || bit == 0 || (seen & bit) != 0) return std::nullopt;
    seen |= bit;
  }
  if (seen != 63) return std::nullopt;
  return state;
}

std::optional<HostState> readHostState(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t count = read(fd, buffer, sizeof buffer);
    if (count > 0) {
      text.append(buffer, static_cast<size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      break;
    }
  }
  close(fd);
  return parseHostState(text);
}

bool writeHostState(const std::string& path, const HostState& state) {
  std::string temporary = path + ".XXXXXX";
  const int fd = mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) return false;
  const std::string text = formatHostState(state);
  bool written = true;
  for (size_t done = 0; written && done < text.size();) {
    const ssize_t count = write(fd, text.data() + done, text.size() - done);
    if (count > 0) {
      done += static_cast<size_t>(count);
    } else if (count < 0 && errno != EINTR) {
      written = false;
    }
  }
  written = close(fd) == 0 && written && rename(temporary.c_str(), path.c_str()) == 0;
  if (!written) unlink(temporary.c_str());
  return written;
}

}  // namespace Replicate
