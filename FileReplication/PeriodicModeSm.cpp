#include "FileReplication/PeriodicModeSm.h"

#include "runtime/ActivityManager.h"
#include "runtime/ClockReactor.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("FileReplicationSm")

namespace FileReplication {

class PeriodicRequesterConfigSm::KelClock
    : public Kel::ClockReactor<PeriodicRequesterConfigSm, &PeriodicRequesterConfigSm::handleClock,
                               Kel::OnBinding::handle> {
 public:
  using ClockReactor::ClockReactor;
};

Kel::Ptr<PeriodicRequesterConfigSm> PeriodicRequesterConfigSm::PeriodicRequesterConfigSmIs(
    Kel::Name name, Kel::Ptr<RequesterConfig const> requesterConfig, Kel::Ptr<RequesterStatus> requesterStatus) {
  return started(new PeriodicRequesterConfigSm(name, std::move(requesterStatus)), requesterConfig);
}

PeriodicRequesterConfigSm::PeriodicRequesterConfigSm(Kel::Name name, Kel::Ptr<RequesterStatus> requesterStatus)
    : RequesterConfigSmBase(name, std::move(requesterStatus)) {}

PeriodicRequesterConfigSm::~PeriodicRequesterConfigSm() { replicationSmDelAll(); }

Kel::Ptr<ReplicationSm> PeriodicRequesterConfigSm::replicationSm(Kel::String const& key) const {
  return replicationSm_.value(key);
}

Kel::Ptr<ReplicationSm> PeriodicRequesterConfigSm::replicationSmIs(Kel::String const& key,
                                                                   Kel::Ptr<RequesterConfig const> requesterConfig,
                                                                   Kel::Ptr<FileConfig const> fileConfig,
                                                                   Kel::Ptr<FileStatus> fileStatus) {
  auto sm = replicationSm_.findOrInsert(key, [&](Kel::String const& k) {
    return ReplicationSm::ReplicationSmIs(k, std::move(requesterConfig), fileConfig, std::move(fileStatus),
                                          requesterStatus());
  });
  // One that was there already takes the given configuration; a new one has it.
  sm->fileConfigIs(fileConfig);
  return sm;
}

void PeriodicRequesterConfigSm::replicationSmDel(Kel::String const& key) {
  // Destroyed once out of the collection: its destructor kills a running child.
  replicationSm_.erase(key);
}

void PeriodicRequesterConfigSm::replicationSmDelAll() { replicationSm_.eraseAll(); }

Kel::Ptr<Kel::Clock const> PeriodicRequesterConfigSm::clock() const { return clock_ ? clock_->notifier() : nullptr; }

void PeriodicRequesterConfigSm::clockIs(Kel::Ptr<Kel::Clock const> const& clock) {
  if (!clock) {
    clockDel();
    return;
  }
  if (clock_ && clock_->notifier() == clock) return;
  if (!clock_) clock_ = Kel::Nested<KelClock>(this);
  clock_->notifierIs(clock);
}

void PeriodicRequesterConfigSm::clockDel() { clock_.release(); }

double PeriodicRequesterConfigSm::clockTime() const { return clock_ ? clock_->timeMin() : Kel::Clock::never; }

void PeriodicRequesterConfigSm::handleInitialized() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  remoteHostSmIs(this, requesterConfig());
  clockIs(Kel::activityManager()->clock());
  // Set first: the handlers wait for it, and this is their first call.
  initialized_ = true;
  handleEnabled();
}

void PeriodicRequesterConfigSm::handleEnabled() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  // Binding catches up before the clock and the remote host machine exist.
  if (!initialized_) return;
  // Nothing is torn down on disable: only the clock is parked.
  RequesterConfigSmBase::handleEnabled();
  handlePeriod();
}

void PeriodicRequesterConfigSm::handleFile(Kel::Name name) {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  if (!initialized_ || !enabled()) return;
  RequesterConfigSmBase::handleFile(name);
  auto fileConfig = requesterConfig()->file(name);
  if (!fileConfig) {
    replicationSmDel(Kel::String(name));
    return;
  }
  // A tracked file keeps its machine, which reads its attributes afresh.
  replicationSmIs(Kel::String(name), requesterConfig(), fileConfig, requesterStatus()->file(name));
}

void PeriodicRequesterConfigSm::handlePeriod() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  if (!clock_) return;
  if (!enabled()) {
    clock_->timeMinIs(Kel::Clock::never);
    return;
  }
  // No lower bound: a period of zero or less fires on every pass of the loop.
  clock_->timeMinIs(Kel::now() + requesterConfig()->period());
}

void PeriodicRequesterConfigSm::handleClock() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  replicateFiles();
  handlePeriod();
}

void PeriodicRequesterConfigSm::replicateFiles() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  if (!enabled()) return;
  for (auto const& [key, sm] : replicationSm_) {
    KEL_TRACE(6, "Requesting replication");
    sm->replicate();
  }
}

void PeriodicRequesterConfigSm::deleteIfNotExist() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  // Only a disabled requester hands its files over to deletion.
  if (enabled()) return;
  for (auto const& [key, sm] : replicationSm_) sm->deleteFile();
}

}  // namespace FileReplication
