#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "entities/Config.h"
#include "entities/Status.h"

namespace Agent {

class HostStates;

// The agent's state as its metrics show it.
struct MetricsSource {
  FileReplication::Config const& config;
  FileReplication::Status const& status;
  // Null when the hosts' states are not followed.
  HostStates const* hostStates = nullptr;
  std::size_t replicateRunning = 0;
  std::size_t replicateWaiting = 0;
  std::size_t inotifyWatches = 0;
  std::uint64_t reloads = 0;
  std::uint64_t reloadErrors = 0;
};

// The metrics in the Prometheus text exposition format, version 0.0.4:
// every family with its HELP and TYPE, requesters and hosts sorted by name.
// A time that never happened (no success yet, a host never heard of) has no
// sample rather than a zero.
std::string metricsText(MetricsSource const& source);

}  // namespace Agent
