#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "bench/system/Arrivals.h"
#include "bench/system/Benches.h"
#include "bench/system/TempTree.h"

// What the benchmarks of the real agent, real Replicate and real rsync
// share.
namespace SystemBench {

// Small files in up to 100 directories under tree/src, each holding its own
// name, so that a copy in the wrong place shows.
struct SourceFiles {
  SourceFiles(TempTree& tree, int files);

  // Makes the directories the files go to under tree/root, and returns
  // where each file goes.
  std::vector<std::string> destinationsIs(std::string const& root);

  TempTree& tree;
  int dirs;
  int perDir;
  std::string root;
  // Names the files relative to root, one a line, for rsync --files-from.
  std::string listFile;
  std::vector<std::string> paths;
};

// The environment of the agent and of the rsync it is compared with, with
// extra entries: the real Replicate first on PATH, and RSYNC_RSH unset,
// since setting it would switch Replicate's shared connections off.
std::vector<std::string> realEnvironment(Options const& options, std::vector<std::string> const& extra = {},
                                         std::string const& firstOnPath = "");

// A configuration of one requester whose settings (YAML lines indented for
// a requester's keys) are given, replicating sources to destinations.
std::string agentConfig(std::string const& settings, std::vector<std::string> const& sources,
                        std::vector<std::string> const& destinations);

// How many files a status reply has, and how many of them are
// synchronized or failed.
struct StatusCounts {
  std::size_t files = 0;
  std::size_t synchronized = 0;
  std::size_t failed = 0;
};
StatusCounts statusCounts(nlohmann::json const& status);

// Destinations whose content is not that of their source, missing ones
// included.
std::size_t wrongDestinations(std::vector<std::string> const& sources, std::vector<std::string> const& destinations);

// A copy command run to its end, timed from its start.
struct Timed {
  double arrivedSeconds = 0;
  double exitedSeconds = 0;
};
// Throws when it fails, or when not everything arrived by deadlineNs.
Timed timedCopy(std::vector<std::string> const& argv, std::vector<std::string> const& env, Arrivals& arrivals,
                std::int64_t deadlineNs, std::string const& logFile);

// The agent is given up on after this long.
double convergenceLimit(Options const& options);

}  // namespace SystemBench
