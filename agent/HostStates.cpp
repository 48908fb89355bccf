#include "agent/HostStates.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/ActivityManager.h"
#include "runtime/ChildLauncher.h"
#include "tools/Replicate/ControlDirectory.h"
#include "tools/Replicate/HostState.h"

namespace Agent {

namespace {

// How long the agent waits before watching the control directory again
// when the kernel refused the watch.
constexpr double watchRetryDelay = 10;
// A state file is a few short lines; anything longer is not one.
constexpr std::size_t longestStateFile = 64 * 1024;

// What Replicate wrote, for the agent; nothing when it is not a state.
std::optional<HostStates::Host> parsed(std::string_view text) {
  std::optional<Replicate::HostState> const state = Replicate::parseHostState(text);
  if (!state) return std::nullopt;
  return HostStates::Host{.state = state->up ? HostStates::State::up : HostStates::State::down,
                          .since = double(state->since),
                          .lastSuccess = double(state->lastSuccess),
                          .nextTry = double(state->nextTry),
                          .error = state->error};
}

// The file's text; nullopt with missing set when it is not there, and
// without when it cannot be read now.
std::optional<std::string> fileText(std::string const& path, bool& missing) {
  missing = false;
  int const fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    missing = errno == ENOENT;
    return std::nullopt;
  }
  std::string text;
  char buffer[4096];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0 && text.size() < longestStateFile) text.append(buffer, size_t(n));
  close(fd);
  if (n < 0 || text.size() >= longestStateFile) return std::nullopt;
  return text;
}

std::string duration(double seconds) {
  auto const s = static_cast<long long>(seconds);
  if (s < 60) return std::to_string(s) + "s";
  if (s < 3600) return std::to_string(s / 60) + "m " + std::to_string(s % 60) + "s";
  if (s < 86400) return std::to_string(s / 3600) + "h " + std::to_string(s % 3600 / 60) + "m";
  return std::to_string(s / 86400) + "d " + std::to_string(s % 86400 / 3600) + "h";
}

}  // namespace

class HostStates::ProbeClock : public Kel::NestedReactor<HostStates, Kel::Clock::NotifieeConst> {
 public:
  ProbeClock(HostStates* owner, std::string host) : NestedReactor(owner), host_(std::move(host)) {}
  void onTime() override { owner()->handleProbeClock(host_); }

 private:
  std::string host_;
};

class HostStates::ProbeEnd : public Kel::NestedReactor<HostStates, Kel::ChildSiginfo::NotifieeConst> {
 public:
  ProbeEnd(HostStates* owner, std::string host) : NestedReactor(owner), host_(std::move(host)) {}
  void onSignalCode() override { owner()->handleProbeEnd(host_); }

 private:
  std::string host_;
};

HostStates::HostStates(Kel::Ptr<FileReplication::Config const> config, Hooks hooks)
    : config_(std::move(config)), hooks_(std::move(hooks)), directory_(Replicate::controlDirectory()) {
  watch_ = FileReplication::DirWatch::DirWatchIs(directory_, this, watchRetryDelay);
  configChanged();
}

HostStates::~HostStates() {
  watch_->listenerDel();
  for (auto& [host, entry] : hosts_) release(entry);
}

HostStates::Host const& HostStates::host(std::string const& text) const {
  static Host const unknown;
  auto const it = hosts_.find(text);
  return it == hosts_.end() ? unknown : it->second.host;
}

void HostStates::release(Entry& entry) {
  entry.clock.release();
  entry.probeEnd.release();
  // Its state file tells the outcome to whoever follows it next.
  if (entry.probe) entry.probe->kill(SIGTERM);
}

void HostStates::configChanged() {
  std::set<std::string> configured;
  for (auto const& [name, rc] : config_->requester()) {
    for (auto const& [text, host] : rc->remoteHost()) configured.insert(text.str());
  }
  for (auto it = hosts_.begin(); it != hosts_.end();) {
    if (configured.contains(it->first)) {
      ++it;
      continue;
    }
    release(it->second);
    hostOfFile_.erase(it->second.fileName);
    it = hosts_.erase(it);
  }
  for (auto const& host : configured) {
    auto [it, added] = hosts_.try_emplace(host);
    if (added) {
      Entry& entry = it->second;
      entry.fileName = Replicate::hostFileName("state", host);
      entry.clock = Kel::Nested<ProbeClock>(this, host);
      entry.clock->notifierIs(Kel::activityManager()->clock());
      entry.probeEnd = Kel::Nested<ProbeEnd>(this, host);
      hostOfFile_[entry.fileName] = host;
      refresh(host);
    } else {
      // A requester enabled or disabled changes whether the host is probed.
      schedule(host);
    }
  }
}

void HostStates::onDirEntry(FileReplication::InotifyEvent const& event) {
  auto const it = hostOfFile_.find(event.fileName().str());
  if (it != hostOfFile_.end()) refresh(it->second);
}

void HostStates::onDirAnew() {
  for (auto const& [host, entry] : hosts_) refresh(host);
}

void HostStates::refresh(std::string const& host) {
  Entry& entry = hosts_.at(host);
  bool missing = false;
  std::optional<std::string> const text = fileText(directory_ + "/" + entry.fileName, missing);
  // A file we cannot read now, or cannot make sense of, changes nothing.
  std::optional<Host> const now = text ? parsed(*text) : missing ? std::optional<Host>(Host()) : std::nullopt;
  if (now) {
    Host const before = std::exchange(entry.host, *now);
    changed(host, before, entry.host);
    if (hooks_.stateRead) hooks_.stateRead();
  }
  schedule(host);
}

void HostStates::changed(std::string const& host, Host const& before, Host const& after) {
  if (after.state == State::down && before.state != State::down) {
    hooks_.say(FileReplication::LogPriority::warning,
               "host " + host + " is down" + (after.error.empty() ? "" : ": " + after.error));
    return;
  }
  // Up since a later time: it went down and came back between two looks.
  bool const backUp = after.state == State::up &&
                      (before.state == State::down || (before.state == State::up && after.since > before.since));
  if (!backUp) return;
  std::string line = "host " + host + " is up again";
  if (before.state == State::down && before.since > 0 && after.since >= before.since) {
    line += " after " + duration(after.since - before.since) + " down";
  }
  hooks_.say(FileReplication::LogPriority::notice, line + ": replicating every file of its requesters");
  for (auto const& [name, rc] : config_->requester()) {
    if (rc->enabled() && rc->remoteHost(Kel::String(host))) hooks_.replicateAll(name);
  }
}

bool HostStates::wanted(std::string const& host) const {
  for (auto const& [name, rc] : config_->requester()) {
    if (rc->enabled() && rc->remoteHost(Kel::String(host))) return true;
  }
  return false;
}

void HostStates::schedule(std::string const& host) {
  Entry& entry = hosts_.at(host);
  // A running probe keeps its time limit.
  if (entry.probe) return;
  if (entry.host.state != State::down || !wanted(host)) {
    entry.clock->timeMinIs(Kel::Clock::never);
    return;
  }
  // The host's own back-off, unless the last probe did not move it on.
  bool const stale = entry.host.nextTry == entry.probedFor;
  entry.clock->timeMinIs(stale ? entry.probeEndedAt + probeRetryDelay : entry.host.nextTry);
}

void HostStates::handleProbeClock(std::string const& host) {
  Entry& entry = hosts_.at(host);
  if (entry.probe) {
    entry.probe->kill(SIGKILL);
    return;
  }
  std::string sshOptions;
  for (auto const& [name, rc] : config_->requester()) {
    if (rc->enabled() && rc->remoteHost(Kel::String(host)) && !rc->sshOptions().empty()) {
      sshOptions = rc->sshOptions().str();
      break;
    }
  }
  std::vector<char const*> argv = {"Replicate", "--cmd", "probe", "--remoteHosts", host.c_str()};
  if (!sshOptions.empty()) argv.insert(argv.end(), {"--sshOptions", sshOptions.c_str()});
  argv.push_back(nullptr);
  entry.probedFor = entry.host.nextTry;
  // Its exit status and what it writes say nothing that the state file
  // does not.
  Kel::ChildSetup setup;
  setup.captureStderr = true;
  entry.probe = Kel::run(argv.data(), setup);
  entry.probeEnd->notifierIs(entry.probe);
  entry.clock->timeMinIs(Kel::now() + probeTimeLimit);
}

void HostStates::handleProbeEnd(std::string const& host) {
  Entry& entry = hosts_.at(host);
  if (!entry.probe || entry.probe->signalCode() == Kel::ChildSiginfo::notEnded) return;
  entry.probe = nullptr;
  entry.probeEndedAt = Kel::now();
  entry.clock->timeMinIs(Kel::Clock::never);
  // Before its inotify event, which then changes nothing.
  refresh(host);
}

}  // namespace Agent
