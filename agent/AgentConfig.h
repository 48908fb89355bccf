#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "entities/RequesterConfig.h"

namespace Agent {

// The agent's configuration file, read and checked: what the entity tree is
// to become.
struct FileSettings {
  std::string path;
  std::string dstPath;
  std::string rsyncOptions;
  // For a tree or a pattern: what to leave out besides the default litter.
  std::vector<std::string> exclude = {};
  bool operator==(FileSettings const&) const = default;
};

struct RequesterSettings {
  std::string name;
  FileReplication::RequesterConfig::Mode mode = FileReplication::RequesterConfig::periodic;
  bool enabled = true;
  std::vector<std::string> remoteHosts;
  double period = 60;
  double replicationTimeout = 60;
  double retryInterval = 10;
  int syncErrorThreshold = 3;
  double remoteHostReplicationDelay = 5;
  // Files due together share a Replicate run, up to this many; 1: each file
  // runs alone.
  std::uint32_t maxFilesPerRun = 2500;
  double deleteDelay = 0.2;
  // The arguments for ssh from the ssh settings, each word quoted where
  // Replicate's word splitter would misread it; empty: none.
  std::string sshOptions;
  std::vector<FileSettings> files;
  bool operator==(RequesterSettings const&) const = default;
};

struct AgentConfig {
  // 0: no limit on running Replicate children.
  unsigned maxConcurrentReplications = 16;
  // Where the metrics are kept for a node exporter's textfile collector;
  // empty: nowhere.
  std::string metricsTextfile;
  // Where the metrics are served over HTTP, as "127.0.0.1:9464"; empty:
  // nowhere.
  std::string metricsListen;
  std::vector<RequesterSettings> requesters;
  bool operator==(AgentConfig const&) const = default;
};

}  // namespace Agent
