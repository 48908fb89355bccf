#include "tools/Replicate/RemoteHosts.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>
#include <stdexcept>

#include "tools/Replicate/ChildStatus.h"
#include "tools/Replicate/Concurrently.h"
#include "tools/Replicate/ControlDirectory.h"
#include "tools/Replicate/Report.h"

namespace Replicate {

namespace {

// More would only queue at the network or at the local disk.
constexpr size_t hostsAtOnce = 8;
// A shared connection lives 60 seconds after its last run; one marked up
// this recently is still there, since every run renews the mark.
constexpr int upFor = 60 - 10;

long long now() { return static_cast<long long>(std::time(nullptr)); }

// A file per host that says whether a shared connection was started ("u")
// and when it was last used (its time). Its flock is held by the run that
// starts the connection; an OFD lock, which flock does not meet, by a run
// rewriting the host's state, so that no change of another run is lost.
class Marker {
 public:
  explicit Marker(const std::string& path) : fd_(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600)) {}
  ~Marker() {
    if (fd_ >= 0) close(fd_);
  }
  Marker(const Marker&) = delete;
  Marker& operator=(const Marker&) = delete;

  bool valid() const { return fd_ >= 0; }
  bool fresh() const {
    struct stat status {};
    char content = 0;
    if (fstat(fd_, &status) != 0 || status.st_size != 1 || pread(fd_, &content, 1, 0) != 1) return false;
    return content == 'u' && std::time(nullptr) - status.st_mtime < upFor;
  }
  void touch() const { futimens(fd_, nullptr); }
  bool lockConnection() const {
    while (flock(fd_, LOCK_EX) != 0) {
      if (errno != EINTR) return false;
    }
    return true;
  }
  void mark(bool up) const {
    const char content = 'u';
    if (ftruncate(fd_, 0) == 0 && (!up || pwrite(fd_, &content, 1, 0) == 1)) touch();
  }
  bool lockState() const {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    while (fcntl(fd_, F_OFD_SETLKW, &lock) != 0) {
      if (errno != EINTR) return false;
    }
    return true;
  }

 private:
  int fd_;
};

void passOn(const std::string& errors) {
  if (!errors.empty()) std::fwrite(errors.data(), 1, errors.size(), stderr);
}

HostState stateAfter(const std::optional<HostState>& before, const std::optional<RemoteFailure>& failure) {
  if (!failure) return reachedAt(before, now());
  if (failure->unreachable) return unreachableAt(before, now(), failure->message);
  return reachedAt(before, now(), failure->message);
}

}  // namespace

RemoteHosts::RemoteHosts(const CommandLine& line)
    : hosts_(line.remoteHosts),
      directory_(controlDirectory()),
      shell_(RemoteShell::fromEnvironment(line.sshOptions, directory_)),
      shellPath_(findOnPath(shell_.program())) {}

std::string RemoteHosts::path(const char* kind, const HostAddress& host) const {
  return directory_ + "/" + hostFileName(kind, host.text());
}

std::vector<HostOutcome> RemoteHosts::forEachHost(const std::function<HostOutcome(size_t)>& work, bool probing) {
  std::vector<HostOutcome> outcomes(hosts_.size(), HostOutcome::resting);
  std::vector<size_t> tried;
  const long long start = now();
  for (size_t i = 0; i < hosts_.size(); ++i) {
    const std::optional<HostState> state = probing ? std::nullopt : readHostState(path("state", hosts_[i]));
    if (!state || !resting(*state, start)) tried.push_back(i);
  }
  forEachConcurrently(tried.size(), hostsAtOnce, [&](size_t k) {
    const size_t i = tried[k];
    try {
      outcomes[i] = work(i);
    } catch (const std::exception& error) {
      report("host " + hosts_[i].text() + ": " + error.what());
      outcomes[i] = HostOutcome::failed;
    }
  });
  if (std::any_of(outcomes.begin(), outcomes.end(), [](HostOutcome o) { return o != HostOutcome::resting; })) {
    return outcomes;
  }
  std::string down;
  for (const HostAddress& address : hosts_) {
    const std::string& host = address.text();
    const std::optional<HostState> state = readHostState(path("state", address));
    std::string why = !state || state->error.empty() ? host + " is down" : state->error;
    if (why.find(host) == std::string::npos) why = host + ": " + why;
    if (state) why += " (left alone for another " + std::to_string(restingFor(*state, now())) + " s)";
    down += (down.empty() ? "" : "; ") + why;
  }
  report("every host of this run is down: " + down);
  return outcomes;
}

std::optional<HostOutcome> RemoteHosts::prepare(const HostAddress& host) {
  if (!shell_.sharesConnections() || shellPath_.empty()) return std::nullopt;
  const Marker marker(path("host", host));
  if (!marker.valid()) return std::nullopt;
  if (marker.fresh()) {
    // Each run keeps the connection alive for a while after it.
    marker.touch();
    return std::nullopt;
  }
  if (!marker.lockConnection() || marker.fresh()) return std::nullopt;
  // Found down by the run we waited for.
  if (const std::optional<HostState> state = readHostState(path("state", host)); state && resting(*state, now())) {
    return HostOutcome::resting;
  }
  // A first run of nothing leaves the shared connection behind, or uses the
  // one that is there after all; it must not keep our stdout, which may be
  // the list of outcomes.
  const ChildRun run = runCapturingErrors(shellPath_, shell_.argumentsFor(host, "true"), {.outputToStderr = true});
  marker.mark(succeeded(run.status));
  if (succeeded(run.status)) {
    passOn(run.errors);
    record(host, std::nullopt);
    return std::nullopt;
  }
  const RemoteFailure failure = diagnoseRemoteFailure(RemoteCommand::probe, run.status, run.errors, host.text(),
                                                      effectiveUserName(), shell_.connectTimeout());
  if (!failure.unreachable) return std::nullopt;
  record(host, failure);
  report("host " + host.text() + ": " + failure.message);
  return HostOutcome::failed;
}

HostOutcome RemoteHosts::probe(const HostAddress& host) {
  if (shellPath_.empty()) throw std::runtime_error(shell_.program() + " not found on PATH");
  std::optional<Marker> marker;
  if (shell_.sharesConnections()) {
    marker.emplace(path("host", host));
    if (marker->valid()) marker->lockConnection();
  }
  const ChildRun run = runCapturingErrors(shellPath_, shell_.argumentsFor(host, "true"), {.outputToStderr = true});
  if (marker && marker->valid()) marker->mark(succeeded(run.status));
  return settle(host, run, RemoteCommand::probe);
}

std::optional<RemoteFailure> RemoteHosts::examine(const HostAddress& host, const ChildRun& run,
                                                  RemoteCommand command) const {
  if (succeeded(run.status)) {
    passOn(run.errors);
    return std::nullopt;
  }
  RemoteFailure failure =
      diagnoseRemoteFailure(command, run.status, run.errors, host.text(), effectiveUserName(), shell_.connectTimeout());
  if (!failure.known) passOn(run.errors);
  return failure;
}

void RemoteHosts::record(const HostAddress& host, const std::optional<RemoteFailure>& failure) const {
  const std::string statePath = path("state", host);
  // Most runs change nothing worth writing, and need no lock to see that.
  if (const std::optional<HostState> seen = readHostState(statePath); !worthWriting(seen, stateAfter(seen, failure))) {
    return;
  }
  const Marker marker(path("host", host));
  if (!marker.valid() || !marker.lockState()) return;
  const std::optional<HostState> before = readHostState(statePath);
  const HostState after = stateAfter(before, failure);
  if (worthWriting(before, after)) writeHostState(statePath, after);
}

HostOutcome RemoteHosts::settle(const HostAddress& host, const ChildRun& run, RemoteCommand command) const {
  const std::optional<RemoteFailure> failure = examine(host, run, command);
  record(host, failure);
  if (!failure) return HostOutcome::succeeded;
  report("host " + host.text() + ": " + failure->message);
  return HostOutcome::failed;
}

bool allSucceeded(const std::vector<HostOutcome>& outcomes) {
  return std::none_of(outcomes.begin(), outcomes.end(), [](HostOutcome o) { return o == HostOutcome::failed; }) &&
         std::any_of(outcomes.begin(), outcomes.end(), [](HostOutcome o) { return o == HostOutcome::succeeded; });
}

}  // namespace Replicate
