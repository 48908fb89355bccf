#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "FileReplication/ConfigSm.h"
#include "FileReplication/Log.h"
#include "agent/AgentConfig.h"
#include "agent/Progress.h"
#include "agent/SystemdNotify.h"
#include "entities/Config.h"
#include "entities/Status.h"
#include "runtime/NestedReactor.h"

namespace Agent {

class ControlServer;
class HostStates;
class MetricsListener;
class MetricsTextfile;
class TreeExpander;

// The running agent: owns the configuration and status trees and the root
// machine over them, reloads the configuration file on SIGHUP and whenever
// it changes on disk, answers the control socket, and shuts down in order on
// SIGTERM or SIGINT.
class Agent {
 public:
  struct Options {
    std::string configPath;
    std::string socketPath;
    std::string traceFile;
    // Lines of the log below this are left out.
    FileReplication::LogPriority logLevel = FileReplication::LogPriority::info;
  };

  // Reads the configuration and starts everything; throws std::runtime_error
  // with a message for the operator when that cannot be done.
  explicit Agent(Options options);
  ~Agent();
  Agent(Agent const&) = delete;
  Agent& operator=(Agent const&) = delete;

  // Serves until SIGTERM or SIGINT (or stop()).
  void run();
  void stop();

  // Reads the file again and applies what changed; tells whether it was
  // valid. An invalid file changes nothing.
  bool reload();

  nlohmann::json status() const;
  // In the Prometheus text format.
  std::string metrics() const;
  // A control request, already checked for shape by the server. A command
  // without a handler here is answered with an error.
  nlohmann::json handle(nlohmann::json const& request);

  Kel::Ptr<FileReplication::Config> config() const { return config_; }
  Kel::Ptr<FileReplication::Status> statusTree() const { return status_; }
  Kel::Ptr<FileReplication::ConfigSm> configSm() const { return configSm_; }

 private:
  class SignalReactor;
  class ConfigFileWatcher;
  class ReloadTimer;
  class WatchdogTimer;

  void apply(AgentConfig const& settings);
  void reloadSoon();
  // Follows the configured path: none, the same, or another one.
  void metricsTextfileIs(std::string const& path);
  void metricsListenIs(std::string const& address);
  void metricsChanged();
  // One line for the service manager: "3 requesters, 1204 files, 2 failed".
  std::string summary() const;
  // One per entry of controlOperations.
  nlohmann::json handleStatus(nlohmann::json const& request);
  nlohmann::json handleMetrics(nlohmann::json const& request);
  nlohmann::json handleReplicate(nlohmann::json const& request);
  nlohmann::json handleDeleteIfNotExist(nlohmann::json const& request);

  Options options_;
  Kel::Ptr<FileReplication::Config> config_;
  Kel::Ptr<FileReplication::Status> status_;
  Kel::Ptr<FileReplication::ConfigSm> configSm_;
  std::unique_ptr<ControlServer> control_;
  std::unique_ptr<TreeExpander> trees_;
  int signalFd_ = -1;
  Kel::Nested<SignalReactor> signals_;
  std::unique_ptr<ConfigFileWatcher> watcher_;
  Kel::Nested<ReloadTimer> reloadTimer_;
  // Null when Replicate's control directory cannot be used.
  std::unique_ptr<HostStates> hostStates_;
  SystemdNotify systemd_;
  // Updated by status requests, which are const otherwise.
  mutable Progress progress_;
  Kel::Nested<WatchdogTimer> watchdog_;
  std::uint64_t reloads_ = 0;
  std::uint64_t reloadErrors_ = 0;
  std::unique_ptr<MetricsTextfile> metricsTextfile_;
  std::unique_ptr<MetricsListener> metricsListener_;
  // Set once the first configuration is applied.
  bool running_ = false;
};

// Makes sure a Replicate program can be found: PATH is left exactly as it is
// when it has one, else the directory of the bundled one is appended.
// Returns the directory appended, empty when PATH had one, none when there
// is none anywhere.
std::optional<std::string> ensureReplicateOnPath();

}  // namespace Agent
