#include "FileReplication/ReplicationSm.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include "FileReplication/FileReplicationUtils.h"
#include "FileReplication/Log.h"
#include "runtime/ActivityManager.h"
#include "runtime/ClockReactor.h"
#include "runtime/Exception.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("FileReplicationSm")

namespace FileReplication {

namespace {

constexpr double never = Kel::Clock::never;

// What a run wrote on stderr, as one line for the status and the log: its
// lines joined, each once (a shared run that narrows down a failed file
// says the same again), the first ones kept when it runs long, since they
// tend to hold the cause and the last ones a summary.
std::string errorText(std::string_view output) {
  constexpr std::size_t most = 1000;
  std::string text;
  std::vector<std::string_view> said;
  while (!output.empty() && text.size() < most) {
    std::size_t const end = std::min(output.find('\n'), output.size());
    std::string_view line = output.substr(0, end);
    output.remove_prefix(std::min(end + 1, output.size()));
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.remove_suffix(1);
    if (line.empty() || std::find(said.begin(), said.end(), line) != said.end()) continue;
    said.push_back(line);
    text += text.empty() ? "" : "; ";
    text += line;
  }
  if (text.size() > most) text.replace(most, std::string::npos, "...");
  return text;
}

}  // namespace

#define SM_TRACE_ENTRY() KEL_TRACE(3, __PRETTY_FUNCTION__ << ": State=" << state_)
#define SM_TRACE(message) KEL_TRACE(6, __PRETTY_FUNCTION__ << message)

class ReplicationSm::KelRequesterConfig : public Kel::NestedReactor<ReplicationSm, RequesterConfig::NotifieeConst> {
 public:
  // One of these a file: the other files' comings and goings are not ours.
  explicit KelRequesterConfig(ReplicationSm* owner) : NestedReactor(owner) { ignoresEntriesIs(true); }
  void onNotifier() override { owner()->handleEnabled(); }
  void onEnabled() override { owner()->handleEnabled(); }
  // A host added, removed or changed may turn a local copy onto itself into
  // a remote one, or back.
  void onRemoteHost(Kel::String) override { owner()->handleEnabled(); }
  void onRemoteHost() override { owner()->handleEnabled(); }
};

class ReplicationSm::KelReplicationTimeoutClock
    : public Kel::ClockReactor<ReplicationSm, &ReplicationSm::handleReplicationTimeout, Kel::OnBinding::handle> {
 public:
  using ClockReactor::ClockReactor;
};

class ReplicationSm::KelBackoffClock
    : public Kel::ClockReactor<ReplicationSm, &ReplicationSm::handleBackoffTimeout, Kel::OnBinding::handle> {
 public:
  using ClockReactor::ClockReactor;
};

class ReplicationSm::KelReplicationCmd : public Kel::NestedReactor<ReplicationSm, Kel::ChildSiginfo::NotifieeConst> {
 public:
  using NestedReactor::NestedReactor;
  void onNotifier() override { owner()->handleReplicationCmdSignalCode(); }
  void onSignalCode() override { owner()->handleReplicationCmdSignalCode(); }
  void onPid() override { owner()->handleReplicationCmdPid(); }
};

Kel::Ptr<ReplicationSm> ReplicationSm::ReplicationSmIs(Kel::String8 name,
                                                       Kel::Ptr<RequesterConfig const> requesterConfig,
                                                       Kel::Ptr<FileConfig const> fileConfig,
                                                       Kel::Ptr<FileStatus> fileStatus,
                                                       Kel::Ptr<RequesterStatus> requesterStatus) {
  return new ReplicationSm(std::move(name), std::move(requesterConfig), std::move(fileConfig), std::move(fileStatus),
                           std::move(requesterStatus));
}

ReplicationSm::ReplicationSm(Kel::String8 name, Kel::Ptr<RequesterConfig const> requesterConfig,
                             Kel::Ptr<FileConfig const> fileConfig, Kel::Ptr<FileStatus> fileStatus,
                             Kel::Ptr<RequesterStatus> requesterStatus)
    : name_(std::move(name)),
      requesterConfig_(std::move(requesterConfig)),
      fileConfig_(std::move(fileConfig)),
      fileStatus_(std::move(fileStatus)),
      requesterStatus_(std::move(requesterStatus)),
      kelRequesterConfig_(this),
      kelReplicationTimeoutClock_(this),
      kelBackoffClock_(this),
      kelReplicationCmd_(this) {
  kelRequesterConfig_->notifierIs(requesterConfig_);
  // Usually ends in enableReplication(), so the first run starts from here.
  handleInitialized();
}

ReplicationSm::~ReplicationSm() {
  // Kills a running child (status failed) and disarms the timers before the
  // reactors let go of their notifiers.
  disableReplication();
  initializedIs(false);
}

void ReplicationSm::countRun(std::uint64_t (RequesterStatus::*counter)() const,
                             void (RequesterStatus::*counterIs)(std::uint64_t)) {
  if (!requesterStatus_) return;
  RequesterStatus& status = *requesterStatus_;
  (status.*counterIs)((status.*counter)() + 1);
}

Kel::String8 ReplicationSm::path() const { return Kel::String8(fileConfig_->path()); }
Kel::String8 ReplicationSm::dstPath() const { return fileConfig_->dstPath(); }
Kel::String8 ReplicationSm::rsyncOptions() const { return fileConfig_->rsyncOptions(); }
Kel::String8 ReplicationSm::remoteHostsString() const { return requesterConfig_->remoteHostsString(); }
bool ReplicationSm::enabled() const { return requesterConfig_->enabled(); }
double ReplicationSm::replicationTimeout() const { return requesterConfig_->replicationTimeout(); }
double ReplicationSm::retryInterval() const { return requesterConfig_->retryInterval(); }
std::uint32_t ReplicationSm::maxFilesPerRun() const { return requesterConfig_->maxFilesPerRun(); }
double ReplicationSm::deleteDelay() const { return requesterConfig_->deleteDelay(); }

void ReplicationSm::fileConfigIs(Kel::Ptr<FileConfig const> const& fileConfig) {
  if (!fileConfig || fileConfig == fileConfig_) return;
  fileConfig_ = fileConfig;
  // The new destination may be the source itself, or no longer be.
  handleEnabled();
}

void ReplicationSm::watchErrorIs(Kel::String const& why) {
  if (watchError_ == why) return;
  watchError_ = why;
  if (why.empty() || !fileStatus_) return;
  fileStatus_->statusIs(FileStatus::failed);
  fileStatus_->lastErrorIs(why);
}

double ReplicationSm::replicationTimeoutTime() const { return kelReplicationTimeoutClock_->timeMin(); }

double ReplicationSm::backoffTime() const { return kelBackoffClock_->timeMin(); }

void ReplicationSm::stateIs(State s) {
  if (Kel::changed(state_, s)) notify(&NotifieeConst::onState);
}

void ReplicationSm::replicationTimeoutClockIs(Kel::Ptr<Kel::Clock const> const& clock) {
  if (replicationTimeoutClock_ == clock) return;
  replicationTimeoutClock_ = clock;
  kelReplicationTimeoutClock_->notifierIs(clock);
}

void ReplicationSm::backoffClockIs(Kel::Ptr<Kel::Clock const> const& clock) {
  if (backoffClock_ == clock) return;
  backoffClock_ = clock;
  kelBackoffClock_->notifierIs(clock);
}

void ReplicationSm::replicationCmdIs(Kel::Ptr<Kel::ChildSiginfo const> const& cmd) {
  if (replicationCmd_ == cmd) return;
  replicationCmd_ = cmd;
  kelReplicationCmd_->notifierIs(cmd);
  notify(&NotifieeConst::onReplicationCmd);
}

void ReplicationSm::initializedIs(bool v) {
  if (Kel::changed(initialized_, v)) notify(&NotifieeConst::onInitialized);
}

void ReplicationSm::handleInitialized() {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": ");
  replicationTimeoutClockIs(Kel::activityManager()->clock());
  kelReplicationTimeoutClock_->timeMinIs(never);
  backoffClockIs(Kel::activityManager()->clock());
  kelBackoffClock_->timeMinIs(never);
  initializedIs(true);
  handleEnabled();
}

void ReplicationSm::handleEnabled() {
  if (!initialized_) return;
  // Without remote hosts the copy would land on the source itself.
  // Another spelling of the source (/d/./x, a path through a link) is the
  // same file too; copied onto itself it would change and be copied again.
  bool const noRemoteForSameDstPath =
      remoteHostsString() == "" && (dstPath() == path() || Utils::sameFile(path(), dstPath()));
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": State=" << state_ << " src=" << path() << " dst=" << dstPath()
                                   << " enabled=" << enabled() << " remoteHostsString=" << remoteHostsString()
                                   << " noRemoteForSameDstPath=" << noRemoteForSameDstPath);
  if (enabled() && !noRemoteForSameDstPath) {
    enableReplication();
  } else {
    disableReplication();
  }
}

void ReplicationSm::enableReplication() {
  SM_TRACE_ENTRY();
  if (state_ == disabled) {
    SM_TRACE(": Changing state to replicating");
    stateIs(replicating);
    startReplication();
  } else {
    SM_TRACE(": NoOp");
  }
}

void ReplicationSm::disableReplication() {
  SM_TRACE_ENTRY();
  switch (state_) {
    case replicating:
    case queued:
      SM_TRACE(": Stopping replication");
      stopReplication();
      stateIs(disabled);
      break;
    case backoff:
      SM_TRACE(": Resetting backoff timer");
      kelBackoffClock_->timeMinIs(never);
      stateIs(disabled);
      break;
    case disabled:
    case standby: stateIs(disabled); break;
  }
}

void ReplicationSm::replicate() {
  if (!initialized_) return;
  SM_TRACE_ENTRY();
  switch (state_) {
    case replicating:
      if (!replicationCmd_) {
        // Waiting for a missing source to settle: look again now.
        startReplication();
        break;
      }
      // The running child is left alone; one more run follows it.
      SM_TRACE(": Changing state to queued");
      stateIs(queued);
      break;
    case standby:
      SM_TRACE(": Changing state to replicating");
      stateIs(replicating);
      startReplication();
      break;
    case disabled:
    case queued:
    case backoff:
      // In back-off the expiry starts the next run anyway.
      SM_TRACE(": NoOp");
      break;
  }
}

void ReplicationSm::startReplication() {
  SM_TRACE_ENTRY();
  updateFileStatus(FileStatus::inProgress);
  SM_TRACE("hostsString=" << remoteHostsString() << " path=" << path() << " dstPath=" << dstPath()
                          << " rsyncOptions=" << rsyncOptions());
  runSource_ = Utils::FileId();
  int const error = Utils::statError(path(), runSource_);
  if (!Utils::missing(error)) missingSince_ = never;
  if (error == 0) {
    SM_TRACE(": Syncing file");
    replicationCmdIs(Commands::rsyncFile(remoteHostsString(), path(), dstPath(), rsyncOptions(), maxFilesPerRun(),
                                         requesterConfig_->sshOptions()));
  } else if (Utils::missing(error)) {
    double const now = Kel::now();
    if (missingSince_ == never) missingSince_ = now;
    if (now < missingSince_ + deleteDelay()) {
      // A rename-based save leaves the name missing for a moment; deleting
      // the copies then would leave none until the next run lands. Without a
      // child, the time-out's expiry looks again.
      SM_TRACE(": Source missing; waiting before deleting its copies");
      kelReplicationTimeoutClock_->timeMinIs(missingSince_ + deleteDelay());
      return;
    }
    SM_TRACE(": Deleting file");
    log(LogPriority::notice,
        "deleting the copies of " + path().str() + " (" + dstPath().str() + hostsText() + "): the source is missing");
    replicationCmdIs(Commands::deleteFile(remoteHostsString(), dstPath(), requesterConfig_->sshOptions()));
  } else {
    // A source we cannot look at may well be there: its copy must not be
    // deleted. The run fails as if Replicate had failed.
    Kel::String const why = "cannot stat the source: " + Kel::errnoText(error);
    SM_TRACE(": " << why);
    log(LogPriority::error, "cannot replicate " + path().str() + ": " + why.str());
    if (fileStatus_) fileStatus_->lastErrorIs(why);
    countRun(&RequesterStatus::runsStarted, &RequesterStatus::runsStartedIs);
    countRun(&RequesterStatus::runsFailed, &RequesterStatus::runsFailedIs);
    SM_TRACE(": Changing state to backoff");
    stateIs(backoff);
    updateFileStatus(FileStatus::failed);
    startBackoffClock();
    return;
  }
  if (fileStatus_) fileStatus_->lastErrorIs(watchError_);
  countRun(&RequesterStatus::runsStarted, &RequesterStatus::runsStartedIs);
  // A child that waits for a slot is timed from when it starts.
  handleReplicationCmdPid();
}

void ReplicationSm::handleReplicationCmdPid() {
  if (!initialized_ || !replicationCmd_ || replicationCmd_->pid() == 0) return;
  SM_TRACE_ENTRY();
  startReplicationTimeoutClock();
}

void ReplicationSm::stopReplication() {
  SM_TRACE_ENTRY();
  if (replicationCmd_) {
    SM_TRACE("Killing child process with PID=" << replicationCmd_->pid());
    // Through the runtime: a child still waiting for a slot is cancelled
    // rather than signalled, so pid 0 is never signalled.
    replicationCmd_->kill(SIGKILL);
    updateFileStatus(FileStatus::failed);
    // Dropped before its exit is reported, so that report never reaches us.
    replicationCmdIs(nullptr);
  } else if (state_ == replicating) {
    // The deletion it was waiting to make will not be made.
    updateFileStatus(FileStatus::failed);
  }
  kelReplicationTimeoutClock_->timeMinIs(never);
}

void ReplicationSm::startReplicationTimeoutClock() {
  if (!initialized_) return;
  SM_TRACE_ENTRY();
  SM_TRACE(": Setting replication timeout to " << replicationTimeout() << "sec");
  kelReplicationTimeoutClock_->timeMinIs(Kel::now() + replicationTimeout());
}

void ReplicationSm::startBackoffClock() {
  if (!initialized_) return;
  SM_TRACE_ENTRY();
  SM_TRACE(": Setting backoff timeout to " << retryInterval() << "sec");
  kelBackoffClock_->timeMinIs(Kel::now() + retryInterval());
}

void ReplicationSm::handleReplicationCmdSignalCode() {
  if (!initialized_) return;
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": State=" << state_ << " SignalCode=" << replicationCmd_->signalCode()
                                   << " ExitStatus=" << replicationCmd_->exitStatus());
  // Also called when the reactor is bound, before the child has ended.
  if (replicationCmd_->signalCode() == Kel::ChildSiginfo::notEnded) return;
  bool const success = replicationCmd_->exitStatus() == 0 && replicationCmd_->signalCode() == Kel::ChildSiginfo::exited;
  std::string const said = errorText(replicationCmd_->errorOutput());
  if (!success && fileStatus_ && watchError_.empty()) {
    bool const exited = replicationCmd_->signalCode() == Kel::ChildSiginfo::exited;
    std::string const end = exited ? "Replicate exited with status " + std::to_string(replicationCmd_->exitStatus())
                                   : "Replicate was killed by signal " + std::to_string(replicationCmd_->exitStatus());
    // What Replicate and rsync said is the reason; a kill needs saying too.
    fileStatus_->lastErrorIs(said.empty() ? end : exited ? said : end + ": " + said);
  } else if (success && !said.empty()) {
    log(LogPriority::info, path().str() + ": " + said);
  }
  replicationCmdIs(nullptr);
  kelReplicationTimeoutClock_->timeMinIs(never);
  if (success) {
    SM_TRACE("Replication was successful");
    countRun(&RequesterStatus::runsSucceeded, &RequesterStatus::runsSucceededIs);
    rerunForReplacedSource_ = false;
    switch (state_) {
      case replicating:
        SM_TRACE(": Changing state to standby");
        stateIs(standby);
        updateFileStatus(FileStatus::synchronized);
        break;
      case queued:
        SM_TRACE(": Changing state to replicating");
        stateIs(replicating);
        updateFileStatus(FileStatus::synchronized);
        startReplication();
        break;
      default: SM_TRACE("NoOp"); break;
    }
  } else {
    SM_TRACE("Replication failed");
    countRun(&RequesterStatus::runsFailed, &RequesterStatus::runsFailedIs);
    switch (state_) {
      case replicating:
      case queued:
        if (sourceReplacedDuringRun()) {
          // An editor's or a deploy tool's save took the name away under the
          // copy; its events may all have come during this run. Backing off
          // would leave the old content in place for retryInterval.
          SM_TRACE(": Source replaced during the run; running again");
          stateIs(replicating);
          startReplication();
          break;
        }
        // A queued request is covered by the retry after the back-off.
        SM_TRACE(": Changing state to backoff");
        stateIs(backoff);
        updateFileStatus(FileStatus::failed);
        startBackoffClock();
        break;
      default: SM_TRACE(": NoOp"); break;
    }
  }
}

void ReplicationSm::handleReplicationTimeout() {
  if (!initialized_) return;
  SM_TRACE_ENTRY();
  if (state_ == replicating && !replicationCmd_) {
    SM_TRACE(": Missing source settled");
    startReplication();
  } else if (state_ == replicating || state_ == queued) {
    if (replicationCmd_) {
      std::ostringstream why;
      why << "killed after its replicationTimeout of " << replicationTimeout() << " s";
      if (fileStatus_ && watchError_.empty()) fileStatus_->lastErrorIs(why.str());
      log(LogPriority::warning, "the run for " + path().str() + " was " + why.str());
      countRun(&RequesterStatus::runsTimedOut, &RequesterStatus::runsTimedOutIs);
    }
    SM_TRACE(": Changing state to backoff");
    stateIs(backoff);
    stopReplication();
    startBackoffClock();
  } else {
    SM_TRACE(": NoOp");
  }
}

void ReplicationSm::handleBackoffTimeout() {
  if (!initialized_) return;
  SM_TRACE_ENTRY();
  if (state_ == backoff) {
    rerunForReplacedSource_ = false;
    SM_TRACE(": Changing state to replicating");
    stateIs(replicating);
    startReplication();
  } else {
    SM_TRACE(": NoOp");
  }
}

void ReplicationSm::updateFileStatus(FileStatus::Status status) {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": ");
  if (!fileStatus_) {
    SM_TRACE("No file status for file: " << path());
    return;
  }
  SM_TRACE("Updating status of " << path() << " to " << status);
  // Copied, but what happens to it next cannot be seen.
  fileStatus_->statusIs(status == FileStatus::synchronized && !watchError_.empty() ? FileStatus::failed : status);
  if (status == FileStatus::failed || status == FileStatus::synchronized) reportOutcome(status);
  if (status == FileStatus::synchronized) {
    fileStatus_->lastSynchronizedIs(Kel::now());
    SM_TRACE(path() << " is synced at: " << std::setprecision(12) << fileStatus_->lastSynchronized());
  }
}

// One line when a file starts failing, one when it reaches the requester's
// syncErrorThreshold (the one to alert on) and one when it is back: a file
// failing run after run does not fill the log.
void ReplicationSm::reportOutcome(FileStatus::Status status) {
  // Every failure moves to backoff first; a run stopped in another state
  // was stopped by disabling, which went right.
  if (status == FileStatus::failed && state_ != backoff) {
    if (watchError_.empty()) fileStatus_->lastErrorIs("the run was stopped when replication was disabled");
    return;
  }
  std::uint32_t const before = fileStatus_->failuresInRow();
  if (status == FileStatus::synchronized) {
    fileStatus_->failuresInRowIs(0);
    if (before > 0) log(LogPriority::notice, path().str() + " is synchronized again");
    return;
  }
  fileStatus_->failuresInRowIs(before + 1);
  std::uint32_t const threshold = alertThreshold(*requesterConfig_);
  std::string const why = fileStatus_->lastError().empty() ? "" : ": " + fileStatus_->lastError().str();
  if (before + 1 == threshold) {
    std::string const times = threshold == 1 ? "" : " " + std::to_string(threshold) + " runs in a row";
    log(LogPriority::error, path().str() + " failed" + times + why);
  } else if (before == 0) {
    log(LogPriority::warning, path().str() + " failed" + why);
  }
}

std::string ReplicationSm::hostsText() const {
  std::string const hosts = remoteHostsString().str();
  return hosts.empty() ? std::string() : " on " + hosts;
}

bool ReplicationSm::sourceReplacedDuringRun() {
  // Once per success or back-off: a host that fails every run, with a file
  // renamed over all the time, still backs off.
  if (rerunForReplacedSource_ || runSource_ == Utils::FileId()) return false;
  Utils::FileId now;
  int const error = Utils::statError(path(), now);
  if (error != 0 ? !Utils::missing(error) : now == runSource_) return false;
  rerunForReplacedSource_ = true;
  return true;
}

void ReplicationSm::deleteFile() {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": ");
  if (!Utils::missing(Utils::statError(path()))) return;
  // Fire and forget: the child is not watched and no status is written.
  Commands::deleteFile(remoteHostsString(), dstPath(), requesterConfig_->sshOptions(), false);
}

Kel::NamedOperations<ReplicationSm> const& ReplicationSm::operations() {
  static Kel::NamedOperations<ReplicationSm> const table{
      {"replicate", &ReplicationSm::replicate},
      {"deleteFile", &ReplicationSm::deleteFile},
      {"enableReplication", &ReplicationSm::enableReplication},
      {"disableReplication", &ReplicationSm::disableReplication},
  };
  return table;
}

std::ostream& operator<<(std::ostream& o, ReplicationSm::State state) {
  switch (state) {
    case ReplicationSm::disabled: return o << "disabled";
    case ReplicationSm::replicating: return o << "replicating";
    case ReplicationSm::queued: return o << "queued";
    case ReplicationSm::standby: return o << "standby";
    case ReplicationSm::backoff: return o << "backoff";
  }
  char text[40];
  std::snprintf(text, sizeof text, "ReplicationSm::State(%d)", static_cast<int>(state));
  return o << text;
}

}  // namespace FileReplication
