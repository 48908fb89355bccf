#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Replicate {

// What all runs know of one remote host, kept in a file of its own that any
// of them, and the agent, may read at any time. Times are in seconds since
// the epoch.
struct HostState {
  bool up = true;
  // When it entered this state.
  long long since = 0;
  // When a copy or a probe last succeeded there; 0 for never.
  long long lastSuccess = 0;
  // Attempts in a row that could not connect.
  long long failures = 0;
  // When a probe is due, while down; 0 while up.
  long long nextTry = 0;
  // The last failure with this host, one line; empty after a success.
  std::string error;

  bool operator==(const HostState&) const = default;
};

// The state after a run that reached the host at now: a success when error
// is empty, otherwise a failure of the run rather than of the host. before
// is empty when nothing was known.
HostState reachedAt(const std::optional<HostState>& before, long long now, std::string error = {});

// The state after a run at now that could not connect or log in.
HostState unreachableAt(const std::optional<HostState>& before, long long now, std::string error);

// Whether runs leave the host alone at now: it is down, and the probe due
// at nextTry had time to run. A run used without the agent tries the host
// itself once that time is over.
bool resting(const HostState& state, long long now);

// Seconds from now until the host is no longer resting.
long long restingFor(const HostState& state, long long now);

// Whether after must be written over before. A success that only moves
// lastSuccess is written once in a while, not by every run of a storm.
bool worthWriting(const std::optional<HostState>& before, const HostState& after);

// The file's text: "state up|down", "since", "lastSuccess", "failures",
// "nextTry" and "error", one line each, a blank and the value.
std::string formatHostState(const HostState& state);

// Empty when text is not a whole state.
std::optional<HostState> parseHostState(std::string_view text);

// Empty when the file is missing or unreadable.
std::optional<HostState> readHostState(const std::string& path);

// Replaces the file at once, so that no reader sees half of it. False when
// it could not be written.
bool writeHostState(const std::string& path, const HostState& state);

}  // namespace Replicate
