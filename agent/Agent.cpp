#include "agent/Agent.h"

#include <limits.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "FileReplication/DirWatch.h"
#include "FileReplication/FileReplicationUtils.h"
#include "FileReplication/InotifyWatches.h"
#include "FileReplication/ReplicationSm.h"
#include "agent/ConfigApplier.h"
#include "agent/ConfigFile.h"
#include "agent/ControlServer.h"
#include "agent/HostStates.h"
#include "agent/Metrics.h"
#include "agent/MetricsListener.h"
#include "agent/MetricsTextfile.h"
#include "agent/OperatorLog.h"
#include "agent/Progress.h"
#include "agent/TimeText.h"
#include "agent/TreeExpander.h"
#include "runtime/ActivityManager.h"
#include "runtime/ChildManager.h"
#include "runtime/FileDescriptor.h"
#include "runtime/Morlix.h"
#include "runtime/Trace.h"

namespace Agent {

using FileReplication::ReplicationSm;

namespace {

// Where an installed or built Replicate is looked for, beside filerep.
constexpr char const* replicateDirectories = "../libexec/filerep, ., ../tools/Replicate, ../lib/filerep";

// Editors write a file in several steps; one reload after the last of them.
constexpr double reloadDelay = 0.2;
// How often a watch of the configuration's directory that the kernel refused
// is tried again.
constexpr double watchRetryDelay = 10;

sigset_t handledSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  return set;
}

// The directories of a requester whose changes cannot be seen now, with why.
nlohmann::json unwatchedDirectories(FileReplication::RequesterConfigSmBase const* sm) {
  nlohmann::json unwatched = nlohmann::json::object();
  if (!sm) return unwatched;
  for (auto const& [dir, why] : sm->unwatchedDirectories()) unwatched[dir.str()] = why.str();
  return unwatched;
}

std::string stateText(ReplicationSm::State state) {
  std::ostringstream text;
  text << state;
  return text.str();
}

nlohmann::json hostStatus(HostStates::Host const& host) {
  static char const* const states[] = {"unknown", "up", "down"};
  nlohmann::json status = {{"state", states[int(host.state)]}};
  putTime(status, "since", host.state == HostStates::State::unknown ? 0 : host.since);
  putTime(status, "lastSuccess", host.lastSuccess);
  if (!host.error.empty()) status["lastError"] = host.error;
  return status;
}

nlohmann::json error(std::string message) { return {{"ok", false}, {"error", std::move(message)}}; }

// What the trees ask of the rest of the agent: the log, and the machines of
// their requesters.
TreeExpander::Hooks treeHooks(Agent* agent) {
  auto requesterSm = [agent](std::string const& name) { return agent->configSm()->requesterConfigSm(Kel::Name(name)); };
  auto nextRun = [requesterSm](std::string const& name) {
    auto const sm = requesterSm(name);
    return sm ? sm->nextPeriodicRun() : Kel::Clock::never;
  };
  auto replicate = [requesterSm](std::string const& name, std::string const& path) {
    auto const sm = requesterSm(name);
    auto const rsm = sm ? sm->replicationSm(Kel::String(path)) : nullptr;
    if (rsm) ReplicationSm::operations().invoke(*rsm, "replicate");
  };
  return {[](LogPriority p, std::string const& line) { say(p, line); }, nextRun, replicate};
}

}  // namespace

class Agent::SignalReactor : public Kel::NestedReactor<Agent, Kel::FileDescriptor::NotifieeConst> {
 public:
  using NestedReactor::NestedReactor;
  void onReadableCount() override {
    signalfd_siginfo info;
    while (read(notifier()->descriptor(), &info, sizeof info) == sizeof info) {
      if (info.ssi_signo == SIGHUP) {
        say(LogPriority::notice, "SIGHUP: reloading the configuration");
        owner()->reload();
      } else {
        say(LogPriority::notice, std::string(strsignal(int(info.ssi_signo))) + ": shutting down");
        owner()->stop();
      }
    }
  }
};

// Through the shared inotify instance, and on whatever happens to the
// file's directory too: swapped for a new one, removed and made again.
class Agent::ConfigFileWatcher : private FileReplication::DirWatch::Listener {
 public:
  ConfigFileWatcher(Agent* agent, std::filesystem::path const& configPath)
      : agent_(agent),
        fileName_(configPath.filename().string()),
        watch_(FileReplication::DirWatch::DirWatchIs(configPath.parent_path().string(), this, watchRetryDelay)) {}
  virtual ~ConfigFileWatcher() { watch_->listenerDel(); }

 private:
  void onDirEntry(FileReplication::InotifyEvent const& event) override {
    // Whatever happened to it (written, renamed over, removed): read it again.
    if (event.fileName().str() == fileName_) agent_->reloadSoon();
  }
  void onDirAnew() override { agent_->reloadSoon(); }

  Agent* agent_;
  std::string fileName_;
  Kel::Ptr<FileReplication::DirWatch> watch_;
};

class Agent::ReloadTimer : public Kel::NestedReactor<Agent, Kel::Clock::NotifieeConst> {
 public:
  using NestedReactor::NestedReactor;
  void onTime() override {
    say(LogPriority::notice, "the configuration file changed: reloading");
    owner()->reload();
  }
};

// Pets the service manager's watchdog from the loop: a loop that hangs stops
// petting, and the manager restarts the agent.
class Agent::WatchdogTimer : public Kel::NestedReactor<Agent, Kel::Clock::NotifieeConst> {
 public:
  using NestedReactor::NestedReactor;
  void onTime() override {
    owner()->systemd_.send("WATCHDOG=1\nSTATUS=" + owner()->summary());
    timeMinIs(Kel::now() + owner()->systemd_.watchdogPeriod());
  }
};

Agent::Agent(Options options) : options_(std::move(options)) {
  operatorLogIs(options_.logLevel);
  ParsedConfig parsed = parseConfigFile(options_.configPath);
  if (!parsed.ok()) {
    std::string all;
    for (auto const& e : parsed.errors) all += e + "\n";
    throw std::runtime_error("the configuration is not valid:\n" + all);
  }
  for (auto const& w : parsed.warnings) say(LogPriority::warning, "warning: " + w);
  if (!options_.traceFile.empty()) Morlix::open(options_.traceFile);
  // Without it every file would fail, each with no more than an exit status.
  auto const replicate = ensureReplicateOnPath();
  if (!replicate) {
    throw std::runtime_error("cannot find Replicate: it is not on PATH, nor installed beside filerep (" +
                             std::string(replicateDirectories) + ")");
  }
  if (!replicate->empty()) say(LogPriority::info, "using the bundled Replicate in " + *replicate);

  // Blocked so that they arrive through the loop; children get a clean mask.
  sigset_t set = handledSignals();
  sigprocmask(SIG_BLOCK, &set, nullptr);
  signalFd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signalFd_ < 0) throw std::runtime_error(std::string("signalfd: ") + strerror(errno));
  auto descriptor = Kel::FileDescriptor::FileDescriptorIs("filerep-signals");
  descriptor->descriptorIs(signalFd_);
  descriptor->notifyOnReadableIs(true);
  signals_ = Kel::Nested<SignalReactor>(this);
  signals_->notifierIs(descriptor);

  control_ = std::make_unique<ControlServer>(options_.socketPath,
                                             [this](nlohmann::json const& request) { return handle(request); });

  config_ = FileReplication::Config::ConfigIs();
  status_ = FileReplication::Status::StatusIs();
  configSm_ = FileReplication::configSmFactory(config_, status_);
  trees_ = std::make_unique<TreeExpander>(config_, status_, treeHooks(this));
  apply(parsed.config);
  try {
    hostStates_ = std::make_unique<HostStates>(
        config_, HostStates::Hooks{[](LogPriority p, std::string const& line) { say(p, line); },
                                   [this](Kel::Name requester) {
                                     if (auto sm = configSm_->requesterConfigSm(requester)) {
                                       FileReplication::RequesterConfigSmBase::operations().invoke(*sm,
                                                                                                   "replicateFiles");
                                     }
                                   },
                                   [this] { metricsChanged(); }});
  } catch (std::runtime_error const& e) {
    // Replication goes on; only the hosts' states are not known.
    say(LogPriority::error, std::string("the states of remote hosts cannot be followed: ") + e.what());
  }

  std::filesystem::path const configPath = std::filesystem::absolute(options_.configPath);
  reloadTimer_ = Kel::Nested<ReloadTimer>(this);
  reloadTimer_->notifierIs(Kel::activityManager()->clock());
  watcher_ = std::make_unique<ConfigFileWatcher>(this, configPath);
  running_ = true;
  say(LogPriority::notice,
      "running with " + std::to_string(config_->requesters()) + " requesters from " + options_.configPath);
  // Ready once the first configuration is applied, so that whatever is
  // ordered after the service finds it replicating.
  systemd_.send("READY=1\nSTATUS=" + summary());
  if (systemd_.watchdogPeriod() > 0) {
    watchdog_ = Kel::Nested<WatchdogTimer>(this);
    watchdog_->notifierIs(Kel::activityManager()->clock());
    watchdog_->timeMinIs(Kel::now() + systemd_.watchdogPeriod());
  }
}

Agent::~Agent() {
  // While everything it shows is still there.
  if (metricsTextfile_) metricsTextfile_->write();
  metricsTextfile_.reset();
  metricsListener_.reset();
  watcher_.reset();
  trees_.reset();
  hostStates_.reset();
  // The machines go first: running children are killed and every status
  // is final before anything else is released.
  configSm_ = nullptr;
  Kel::activityManager()->children().childDelAll();
  control_.reset();
  if (signals_) {
    auto descriptor = signals_->notifier();
    signals_.release();
    const_cast<Kel::FileDescriptor*>(descriptor.ptr())->notifyOnReadableIs(false);
  }
  if (signalFd_ >= 0) close(signalFd_);
  sigset_t set = handledSignals();
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
  if (Morlix::isOpen()) Morlix::close();
}

void Agent::run() { Kel::activityManager()->loop().run(); }

void Agent::stop() {
  systemd_.send("STOPPING=1");
  Kel::activityManager()->loop().stop();
}

bool Agent::reload() {
  systemd_.send("RELOADING=1");
  ParsedConfig parsed = parseConfigFile(options_.configPath);
  bool const valid = parsed.ok();
  ++reloads_;
  reloadErrors_ += !valid;
  if (!valid) {
    say(LogPriority::error, "the new configuration is not valid; the running one stays as it was:");
    for (auto const& e : parsed.errors) say(LogPriority::error, e);
  } else {
    say(LogPriority::notice, "reloaded the configuration");
    for (auto const& w : parsed.warnings) say(LogPriority::warning, "warning: " + w);
    apply(parsed.config);
  }
  metricsChanged();
  systemd_.send("READY=1\nSTATUS=" + summary());
  return valid;
}

std::string Agent::summary() const {
  std::size_t files = 0;
  std::size_t failed = 0;
  for (auto const& [name, rs] : status_->requester()) {
    for (auto const& [path, fs] : rs->file()) {
      ++files;
      failed += fs->status() == FileReplication::FileStatus::failed;
    }
  }
  return std::to_string(config_->requesters()) + " requesters, " + std::to_string(files) + " files, " +
         std::to_string(failed) + " failed";
}

void Agent::apply(AgentConfig const& settings) {
  Kel::activityManager()->children().maxRunningIs(settings.maxConcurrentReplications);
  for (auto const& line : applyConfig(trees_->expanded(settings), *config_)) say(LogPriority::error, line);
  trees_->applied();
  progress_.clear();
  if (hostStates_) hostStates_->configChanged();
  metricsTextfileIs(settings.metricsTextfile);
  metricsListenIs(settings.metricsListen);
}

// A listener that cannot start stops the agent's start, as the control
// socket does; on a reload the running one stays.
void Agent::metricsListenIs(std::string const& address) {
  if (address == (metricsListener_ ? metricsListener_->address() : std::string())) return;
  try {
    // The old one first: the new one may want the same port.
    metricsListener_.reset();
    if (!address.empty()) metricsListener_ = std::make_unique<MetricsListener>(address, [this] { return metrics(); });
  } catch (std::runtime_error const&) {
    if (!running_) throw;
    say(LogPriority::error, std::string("metrics are not served: cannot listen on ") + address);
  }
}

void Agent::metricsTextfileIs(std::string const& path) {
  if (metricsTextfile_ && metricsTextfile_->path() == path) return;
  if (metricsTextfile_) {
    // Left behind, the collector would serve its figures for ever.
    if (unlink(metricsTextfile_->path().c_str()) != 0 && errno != ENOENT) {
      say(LogPriority::warning,
          "cannot remove the old metrics file " + metricsTextfile_->path() + ": " + strerror(errno));
    }
    metricsTextfile_.reset();
  }
  if (path.empty()) return;
  metricsTextfile_ = std::make_unique<MetricsTextfile>(
      path, status_, [this] { return metrics(); },
      [](std::string const& why) { say(LogPriority::warning, "metrics: " + why); });
}

void Agent::metricsChanged() {
  if (metricsTextfile_) metricsTextfile_->changed();
}

std::string Agent::metrics() const {
  auto const* watches = FileReplication::InotifyWatches::current();
  auto& children = Kel::activityManager()->children();
  return metricsText({.config = *config_,
                      .status = *status_,
                      .hostStates = hostStates_.get(),
                      .replicateRunning = children.running(),
                      .replicateWaiting = children.waiting(),
                      .inotifyWatches = watches ? watches->watches() : 0,
                      .reloads = reloads_,
                      .reloadErrors = reloadErrors_});
}

void Agent::reloadSoon() { reloadTimer_->timeMinIs(Kel::now() + reloadDelay); }

nlohmann::json Agent::status() const {
  nlohmann::json requesters = nlohmann::json::object();
  std::size_t alerting = 0;
  for (auto const& [name, rc] : config_->requester()) {
    auto rs = status_->requester(name);
    auto sm = configSm_->requesterConfigSm(name);
    nlohmann::json files = nlohmann::json::object();
    std::size_t pending = 0;
    std::uint32_t const threshold = FileReplication::alertThreshold(*rc);
    for (auto const& [path, fc] : rc->file()) {
      auto fs = rs ? rs->file(path) : nullptr;
      auto rsm = sm ? sm->replicationSm(path.str()) : nullptr;
      nlohmann::json file;
      bool const known = fs && fs->status() != FileReplication::FileStatus::unknown;
      pending += !known || fs->status() == FileReplication::FileStatus::inProgress;
      std::ostringstream statusText;
      if (known) statusText << fs->status();
      file["status"] = known ? nlohmann::json(statusText.str()) : nlohmann::json(nullptr);
      file["state"] = stateText(rsm ? rsm->state() : ReplicationSm::disabled);
      file["dstPath"] = fc->dstPath().str();
      if (auto const* entry = trees_->entryOf(name.str(), path.str())) file["entry"] = *entry;
      putTime(file, "lastSynchronized", fs ? fs->lastSynchronized() : 0);
      if (fs && !fs->lastError().empty()) file["lastError"] = fs->lastError().str();
      bool const backingOff = rsm && rsm->state() == ReplicationSm::backoff;
      putTime(file, "nextRetry", backingOff ? rsm->backoffTime() : 0);
      std::uint32_t const failures = fs ? fs->failuresInRow() : 0;
      file["failuresInRow"] = failures;
      file["alerting"] = failures >= threshold;
      alerting += failures >= threshold;
      files[path.str()] = std::move(file);
    }
    nlohmann::json requester = {
        {"mode", rc->mode() == FileReplication::RequesterConfig::inotify ? "inotify" : "periodic"},
        {"enabled", rc->enabled()},
        {"overflows", rs ? rs->overflows() : 0},
        {"syncErrorThreshold", threshold},
        {"files", std::move(files)}};
    if (auto unwatched = unwatchedDirectories(sm.ptr()); !unwatched.empty()) requester["unwatched"] = unwatched;
    if (auto entries = trees_->status(name.str()); !entries.is_null()) requester["entries"] = std::move(entries);
    // Only an enabled requester runs anything.
    std::size_t const total = rc->enabled() ? rc->files() : 0;
    auto progress = progress_.observe(name.str(), total - std::min(total, pending), total, Kel::now());
    if (!progress.is_null()) requester["progress"] = std::move(progress);
    nlohmann::json hosts = nlohmann::json::object();
    for (auto const& [text, host] : rc->remoteHost()) {
      hosts[text.str()] = hostStatus(hostStates_ ? hostStates_->host(text.str()) : HostStates::Host());
    }
    requester["hosts"] = std::move(hosts);
    requesters[name.str()] = std::move(requester);
  }
  return {{"requesters", std::move(requesters)}, {"alerting", alerting}};
}

nlohmann::json Agent::handle(nlohmann::json const& request) {
  using Handler = nlohmann::json (Agent::*)(nlohmann::json const&);
  static std::pair<std::string_view, Handler> const handlers[] = {
      {"status", &Agent::handleStatus},
      {"metrics", &Agent::handleMetrics},
      {"replicate", &Agent::handleReplicate},
      {"deleteIfNotExist", &Agent::handleDeleteIfNotExist},
  };
  std::string const& command = request.at("command").get_ref<std::string const&>();
  for (auto const& [name, handler] : handlers) {
    if (name == command) return (this->*handler)(request);
  }
  return error("unknown command \"" + command + "\"");
}

nlohmann::json Agent::handleStatus(nlohmann::json const&) {
  nlohmann::json reply = status();
  reply["ok"] = true;
  return reply;
}

nlohmann::json Agent::handleMetrics(nlohmann::json const&) { return {{"text", metrics()}}; }

nlohmann::json Agent::handleReplicate(nlohmann::json const& request) {
  std::string const requester = request.at("requester").get<std::string>();
  nlohmann::json const path = request.value("path", nlohmann::json());
  auto rc = config_->requester(requester);
  auto sm = configSm_->requesterConfigSm(requester);
  if (!rc || !sm) return error("no requester named \"" + requester + "\"");
  nlohmann::json reply = {{"ok", true}};
  if (!rc->enabled()) reply["note"] = "requester \"" + requester + "\" is disabled: nothing will run";
  if (path.is_null()) {
    FileReplication::RequesterConfigSmBase::operations().invoke(*sm, "replicateFiles");
    return reply;
  }
  std::string const file = path.get<std::string>();
  if (!rc->file(file)) return error("requester \"" + requester + "\" has no file " + file);
  auto rsm = sm->replicationSm(file);
  if (!rsm) {
    reply["note"] = "file " + file + " is not tracked while its requester is disabled";
    return reply;
  }
  ReplicationSm::operations().invoke(*rsm, "replicate");
  return reply;
}

nlohmann::json Agent::handleDeleteIfNotExist(nlohmann::json const& request) {
  std::string const requester = request.at("requester").get<std::string>();
  auto rc = config_->requester(requester);
  auto sm = configSm_->requesterConfigSm(requester);
  if (!rc || !sm) return error("no requester named \"" + requester + "\"");
  nlohmann::json reply = {{"ok", true}};
  if (rc->enabled()) reply["note"] = "requester \"" + requester + "\" is enabled: nothing is deleted while enabled";
  FileReplication::RequesterConfigSmBase::operations().invoke(*sm, "deleteIfNotExist");
  return reply;
}

std::optional<std::string> ensureReplicateOnPath() {
  char const* path = getenv("PATH");
  std::string const current = path ? path : "";
  std::string::size_type start = 0;
  while (start <= current.size()) {
    auto end = current.find(':', start);
    if (end == std::string::npos) end = current.size();
    std::string dir = current.substr(start, end - start);
    if (dir.empty()) dir = ".";
    if (access((dir + "/Replicate").c_str(), X_OK) == 0) return std::string();
    start = end + 1;
  }
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return std::nullopt;
  self[n] = '\0';
  std::filesystem::path const here = std::filesystem::path(self).parent_path();
  // Installed (libexec), or beside it in a build tree.
  for (auto const& dir : {here / "../libexec/filerep", here, here / "../tools/Replicate", here / "../lib/filerep"}) {
    if (access((dir / "Replicate").c_str(), X_OK) == 0) {
      std::string const appended = std::filesystem::weakly_canonical(dir).string();
      setenv("PATH", (current.empty() ? appended : current + ":" + appended).c_str(), 1);
      return appended;
    }
  }
  return std::nullopt;
}

}  // namespace Agent
