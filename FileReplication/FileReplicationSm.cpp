#include "FileReplication/FileReplicationSm.h"

#include <iomanip>

#include "FileReplication/ReplicationSm.h"
#include "runtime/ActivityManager.h"
#include "runtime/Assert.h"
#include "runtime/ClockReactor.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("FileReplicationSm")

namespace FileReplication {

// ---- RequesterConfigSmBase

class RequesterConfigSmBase::KelRequesterConfig
    : public Kel::NestedReactor<RequesterConfigSmBase, RequesterConfig::NotifieeConst> {
 public:
  using NestedReactor::NestedReactor;
  void onNotifier() override {
    owner()->handleEnabled();
    if (!markedForDeletion()) owner()->handlePeriod();
  }
  void onEnabled() override { owner()->handleEnabled(); }
  void onPeriod() override { owner()->handlePeriod(); }
  using RequesterConfig::NotifieeConst::onFile;
  void onFile(Kel::Name name) override { owner()->handleFile(name); }
};

Kel::Ptr<RequesterConfigSmBase> RequesterConfigSmBase::RequesterConfigSmBaseIs(
    Kel::Name name, Kel::Ptr<RequesterConfig const> requesterConfig, Kel::Ptr<RequesterStatus> requesterStatus) {
  Kel::Ptr<RequesterConfigSmBase> sm = new RequesterConfigSmBase(name, std::move(requesterStatus));
  sm->requesterConfigIs(requesterConfig);
  return sm;
}

RequesterConfigSmBase::RequesterConfigSmBase(Kel::Name name, Kel::Ptr<RequesterStatus> requesterStatus)
    : name_(name), requesterConfig_(this), requesterStatus_(std::move(requesterStatus)) {}

RequesterConfigSmBase::~RequesterConfigSmBase() { releaseRemoteHostSm(); }

Kel::Ptr<RequesterConfig const> RequesterConfigSmBase::requesterConfig() const { return requesterConfig_->notifier(); }

Kel::Ptr<RemoteHostSm> RequesterConfigSmBase::remoteHostSm() const { return remoteHostSm_; }

bool RequesterConfigSmBase::enabled() const {
  auto rc = requesterConfig();
  return rc && rc->enabled();
}

void RequesterConfigSmBase::handleEnabled() {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": ");
  if (enabled()) handleFile();
}

void RequesterConfigSmBase::handleFile() {
  auto rc = requesterConfig();
  if (!rc) return;
  for (auto const& [name, file] : rc->file()) handleFile(name);
}

void RequesterConfigSmBase::handleFile(Kel::Name name) {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": " << name);
  if (!enabled()) return;
  if (!requesterConfig()->file(name)) {
    requesterStatus_->fileDel(name);
  } else {
    requesterStatus_->fileIs(name);
  }
}

void RequesterConfigSmBase::handlePeriod() { KEL_TRACE(3, __PRETTY_FUNCTION__ << ": "); }

void RequesterConfigSmBase::replicateFiles() {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": ");
  KEL_ASSERT_TEXT(false, "0 && \"abstract method is called\"");
}

void RequesterConfigSmBase::deleteIfNotExist() { KEL_TRACE(3, __PRETTY_FUNCTION__ << ": "); }

Kel::Ptr<ReplicationSm> RequesterConfigSmBase::replicationSm(Kel::String const&) const { return nullptr; }

RequesterConfigSmBase::UnwatchedCollection RequesterConfigSmBase::unwatchedDirectories() const { return {}; }

Kel::Ptr<RemoteHostSm> RequesterConfigSmBase::remoteHostSmDel() { return releaseRemoteHostSm(); }

Kel::Ptr<RemoteHostSm> RequesterConfigSmBase::releaseRemoteHostSm() {
  Kel::Ptr<RemoteHostSm> old = std::move(remoteHostSm_);
  if (old) old->hasNotificationActiveIs(false);
  return old;
}

Kel::Ptr<RemoteHostSm> RequesterConfigSmBase::remoteHostSmIs(RequesterConfigSmBase* base,
                                                             Kel::Ptr<RequesterConfig const> requesterConfig) {
  if (remoteHostSm_ && remoteHostSm_->requesterConfigSmBase() == base &&
      remoteHostSm_->requesterConfig() == requesterConfig) {
    return remoteHostSm_;
  }
  remoteHostSm_ = RemoteHostSm::RemoteHostSmIs(base, std::move(requesterConfig));
  remoteHostSm_->hasNotificationActiveIs(true);
  return remoteHostSm_;
}

void RequesterConfigSmBase::requesterConfigDel() { requesterConfig_->notifierIs(nullptr); }

void RequesterConfigSmBase::requesterConfigIs(Kel::Ptr<RequesterConfig const> const& requesterConfig) {
  requesterConfig_->notifierIs(requesterConfig);
}

Kel::NamedOperations<RequesterConfigSmBase> const& RequesterConfigSmBase::operations() {
  static Kel::NamedOperations<RequesterConfigSmBase> const table{
      {"replicateFiles", &RequesterConfigSmBase::replicateFiles},
      {"deleteIfNotExist", &RequesterConfigSmBase::deleteIfNotExist},
  };
  return table;
}

// ---- RemoteHostSm

class RemoteHostSm::KelRequesterConfig : public Kel::NestedReactor<RemoteHostSm, RequesterConfig::NotifieeConst> {
 public:
  using NestedReactor::NestedReactor;
  using RequesterConfig::NotifieeConst::onRemoteHost;
  void onRemoteHost(Kel::String hostOrIp) override { owner()->handleRemoteHost(std::move(hostOrIp)); }
};

class RemoteHostSm::KelRemoteHostReplicationClock
    : public Kel::ClockReactor<RemoteHostSm, &RemoteHostSm::handleRemoteHostReplicationClock, Kel::OnBinding::handle> {
 public:
  using ClockReactor::ClockReactor;
};

Kel::Ptr<RemoteHostSm> RemoteHostSm::RemoteHostSmIs(RequesterConfigSmBase* requesterConfigSmBase,
                                                    Kel::Ptr<RequesterConfig const> requesterConfig) {
  return new RemoteHostSm(requesterConfigSmBase, std::move(requesterConfig));
}

RemoteHostSm::RemoteHostSm(RequesterConfigSmBase* requesterConfigSmBase,
                           Kel::Ptr<RequesterConfig const> requesterConfig)
    : requesterConfigSmBase_(requesterConfigSmBase), requesterConfig_(this) {
  requesterConfig_->notifierIs(requesterConfig);
  handleInitialized();
}

RemoteHostSm::~RemoteHostSm() = default;

Kel::Ptr<RequesterConfig const> RemoteHostSm::requesterConfig() const { return requesterConfig_->notifier(); }

double RemoteHostSm::remoteHostReplicationTime() const {
  return remoteHostReplicationClock_ ? remoteHostReplicationClock_->timeMin() : Kel::Clock::never;
}

bool RemoteHostSm::enabled() const {
  auto rc = requesterConfig();
  return rc && rc->enabled();
}

void RemoteHostSm::handleInitialized() {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": ");
  remoteHostReplicationClock_ = Kel::Nested<KelRemoteHostReplicationClock>(this);
  remoteHostReplicationClock_->notifierIs(Kel::activityManager()->clock());
  remoteHostReplicationClock_->timeMinIs(Kel::Clock::never);
}

void RemoteHostSm::handleRemoteHost(Kel::String hostOrIp) {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": " << hostOrIp);
  if (!enabled()) return;
  auto rc = requesterConfig();
  if (!rc->remoteHost(hostOrIp)) return;  // removed
  double const delay = rc->remoteHostReplicationDelay();
  KEL_TRACE(6, __PRETTY_FUNCTION__ << ": Delaying replication for " << std::setprecision(12) << delay << "sec");
  // A later addition before the expiry moves the deadline: one replication.
  remoteHostReplicationClock_->timeMinIs(Kel::now() + delay);
}

void RemoteHostSm::handleRemoteHostReplicationClock() {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": ");
  // The requester machine decides what a disabled requester does.
  if (requesterConfigSmBase_) requesterConfigSmBase_->replicateFiles();
}

Kel::Ptr<RequesterConfigSmBase> requesterConfigSmBaseFactory(Kel::Name name,
                                                             Kel::Ptr<RequesterConfig const> requesterConfig,
                                                             Kel::Ptr<RequesterStatus> requesterStatus) {
  return RequesterConfigSmBase::RequesterConfigSmBaseIs(name, std::move(requesterConfig), std::move(requesterStatus));
}

}  // namespace FileReplication
