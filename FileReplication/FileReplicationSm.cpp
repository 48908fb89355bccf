#include "FileReplication/FileReplicationSm.h"

#include <iomanip>

#include "FileReplication/ReplicationSm.h"
#include "runtime/ActivityManager.h"
#include "runtime/Assert.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("FileReplicationSm")

namespace FileReplication {

// ---- RequesterConfigSmBase

class RequesterConfigSmBase::KelRequesterConfig : public RequesterConfig::NotifieeConst {
 public:
  explicit KelRequesterConfig(RequesterConfigSmBase* sm) : sm_(sm) {}
  void onNotifier() override {
    sm_->handleEnabled();
    if (!markedForDeletion()) sm_->handlePeriod();
  }
  void onEnabled() override { sm_->handleEnabled(); }
  void onPeriod() override { sm_->handlePeriod(); }
  using RequesterConfig::NotifieeConst::onFile;
  void onFile(Kel::Name name) override { sm_->handleFile(name); }

 private:
  RequesterConfigSmBase* sm_;
};

Kel::Ptr<RequesterConfigSmBase> RequesterConfigSmBase::RequesterConfigSmBaseIs(
    Kel::Name name, Kel::Ptr<RequesterConfig const> requesterConfig, Kel::Ptr<RequesterStatus> requesterStatus) {
  return new RequesterConfigSmBase(name, std::move(requesterConfig), std::move(requesterStatus));
}

RequesterConfigSmBase::RequesterConfigSmBase(Kel::Name name, Kel::Ptr<RequesterConfig const> requesterConfig,
                                             Kel::Ptr<RequesterStatus> requesterStatus)
    : name_(name), requesterStatus_(std::move(requesterStatus)) {
  // Binding catches up at once; a subclass is not constructed yet, so this
  // runs the base's own handleEnabled and handlePeriod.
  requesterConfigIs(requesterConfig);
}

RequesterConfigSmBase::~RequesterConfigSmBase() {
  zombieReactorsDel();
  requesterConfigDel();
  remoteHostSmDel();
}

Kel::Ptr<RequesterConfig const> RequesterConfigSmBase::requesterConfig() const {
  return requesterConfig_ ? requesterConfig_->notifier() : nullptr;
}

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
  KEL_ASSERT(0 && "abstract method is called");
}

void RequesterConfigSmBase::deleteIfNotExist() { KEL_TRACE(3, __PRETTY_FUNCTION__ << ": "); }

Kel::Ptr<ReplicationSm> RequesterConfigSmBase::replicationSm(Kel::String const&) const { return nullptr; }

RequesterConfigSmBase::UnwatchedCollection RequesterConfigSmBase::unwatchedDirectories() const { return {}; }

Kel::Ptr<RemoteHostSm> RequesterConfigSmBase::remoteHostSmDel() {
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

void RequesterConfigSmBase::zombieReactorsDel() {
  if (requesterConfig_) requesterConfig_->markedForDeletionIs(true);
}

void RequesterConfigSmBase::requesterConfigDel() {
  if (!requesterConfig_) return;
  requesterConfig_->notifierIs(nullptr);
  requesterConfig_ = nullptr;
}

void RequesterConfigSmBase::requesterConfigIs(Kel::Ptr<RequesterConfig const> const& requesterConfig) {
  if (!requesterConfig) {
    requesterConfigDel();
    return;
  }
  if (!requesterConfig_) requesterConfig_ = new KelRequesterConfig(this);
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

class RemoteHostSm::KelRequesterConfig : public RequesterConfig::NotifieeConst {
 public:
  explicit KelRequesterConfig(RemoteHostSm* sm) : sm_(sm) {}
  using RequesterConfig::NotifieeConst::onRemoteHost;
  void onRemoteHost(Kel::String hostOrIp) override { sm_->handleRemoteHost(std::move(hostOrIp)); }

 private:
  RemoteHostSm* sm_;
};

class RemoteHostSm::KelRemoteHostReplicationClock : public Kel::Clock::NotifieeConst {
 public:
  explicit KelRemoteHostReplicationClock(RemoteHostSm* sm) : sm_(sm) {}
  void onNotifier() override { sm_->handleRemoteHostReplicationClock(); }
  void onTime() override { sm_->handleRemoteHostReplicationClock(); }

 private:
  RemoteHostSm* sm_;
};

Kel::Ptr<RemoteHostSm> RemoteHostSm::RemoteHostSmIs(RequesterConfigSmBase* requesterConfigSmBase,
                                                     Kel::Ptr<RequesterConfig const> requesterConfig) {
  return new RemoteHostSm(requesterConfigSmBase, std::move(requesterConfig));
}

RemoteHostSm::RemoteHostSm(RequesterConfigSmBase* requesterConfigSmBase,
                           Kel::Ptr<RequesterConfig const> requesterConfig)
    : requesterConfigSmBase_(requesterConfigSmBase) {
  if (requesterConfig) {
    requesterConfig_ = new KelRequesterConfig(this);
    requesterConfig_->notifierIs(requesterConfig);
  }
  handleInitialized();
}

RemoteHostSm::~RemoteHostSm() {
  zombieReactorsDel();
  if (remoteHostReplicationClock_) remoteHostReplicationClock_->notifierIs(nullptr);
  if (requesterConfig_) requesterConfig_->notifierIs(nullptr);
}

Kel::Ptr<RequesterConfig const> RemoteHostSm::requesterConfig() const {
  return requesterConfig_ ? requesterConfig_->notifier() : nullptr;
}

double RemoteHostSm::remoteHostReplicationTime() const {
  return remoteHostReplicationClock_ ? remoteHostReplicationClock_->timeMin() : Kel::Clock::never;
}

bool RemoteHostSm::enabled() const {
  auto rc = requesterConfig();
  return rc && rc->enabled();
}

void RemoteHostSm::handleInitialized() {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": ");
  remoteHostReplicationClock_ = new KelRemoteHostReplicationClock(this);
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

void RemoteHostSm::zombieReactorsDel() {
  if (requesterConfig_) requesterConfig_->markedForDeletionIs(true);
  if (remoteHostReplicationClock_) remoteHostReplicationClock_->markedForDeletionIs(true);
}

Kel::Ptr<RequesterConfigSmBase> requesterConfigSmBaseFactory(Kel::Name name,
                                                             Kel::Ptr<RequesterConfig const> requesterConfig,
                                                             Kel::Ptr<RequesterStatus> requesterStatus) {
  return RequesterConfigSmBase::RequesterConfigSmBaseIs(name, std::move(requesterConfig),
                                                        std::move(requesterStatus));
}

}  // namespace FileReplication
