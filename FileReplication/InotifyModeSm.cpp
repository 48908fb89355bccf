#include "FileReplication/InotifyModeSm.h"

#include "FileReplication/FileReplicationUtils.h"
#include "runtime/ActivityManager.h"
#include "runtime/Assert.h"
#include "runtime/Exception.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("FileReplicationSm")

namespace FileReplication {

namespace {

// The fairness bound: events handled per turn of the event clock.
constexpr int eventBatch = 10;

}  // namespace

// ---- InotifyDirSm

Kel::Ptr<ReplicationSm> InotifyDirSm::replicationSm(Kel::String const& fileName) const {
  auto const* sm = replicationSm_.find(fileName);
  return sm ? *sm : nullptr;
}

Kel::Ptr<ReplicationSm> InotifyDirSm::replicationSmIs(Kel::String const& fileName,
                                                      Kel::Ptr<RequesterConfig const> requesterConfig,
                                                      Kel::Ptr<FileConfig const> fileConfig,
                                                      Kel::Ptr<FileStatus> fileStatus) {
  if (auto present = replicationSm(fileName)) return present;
  auto sm = ReplicationSm::ReplicationSmIs(fileName, std::move(requesterConfig),
                                           std::move(fileConfig), std::move(fileStatus));
  replicationSm_.insert(fileName, sm);
  return sm;
}

void InotifyDirSm::replicationSmDel(Kel::String const& fileName) { replicationSm_.erase(fileName); }

void InotifyDirSm::replicationSmDelAll() {
  while (replicationSm_.popFront()) {
  }
}

// ---- InotifyRequesterConfigSm

class InotifyRequesterConfigSm::KelInotifyMonitor : public InotifyMonitor::NotifieeConst {
 public:
  explicit KelInotifyMonitor(InotifyRequesterConfigSm* sm) : sm_(sm) {}
  void onNotifier() override { handle(); }
  void onInotifyEvent(std::uint32_t) override { handle(); }
  void onInotifyEvent() override { handle(); }
  void smIs(InotifyRequesterConfigSm* sm) { sm_ = sm; }

 private:
  void handle() {
    if (sm_) sm_->handleInotifyEventQueue();
  }
  InotifyRequesterConfigSm* sm_;
};

class InotifyRequesterConfigSm::KelEventClock : public Kel::Clock::NotifieeConst {
 public:
  explicit KelEventClock(InotifyRequesterConfigSm* sm) : sm_(sm) {}
  void onNotifier() override { handle(); }
  void onTime() override { handle(); }
  void smIs(InotifyRequesterConfigSm* sm) { sm_ = sm; }

 private:
  void handle() {
    if (sm_) sm_->handleEventClock();
  }
  InotifyRequesterConfigSm* sm_;
};

Kel::Ptr<InotifyRequesterConfigSm> InotifyRequesterConfigSm::InotifyRequesterConfigSmIs(
    Kel::Name name, Kel::Ptr<RequesterConfig const> requesterConfig, Kel::Ptr<RequesterStatus> requesterStatus) {
  return new InotifyRequesterConfigSm(name, std::move(requesterConfig), std::move(requesterStatus));
}

InotifyRequesterConfigSm::InotifyRequesterConfigSm(Kel::Name name, Kel::Ptr<RequesterConfig const> requesterConfig,
                                                   Kel::Ptr<RequesterStatus> requesterStatus)
    : RequesterConfigSmBase(name, std::move(requesterConfig), std::move(requesterStatus)) {
  handleInitialized();
}

InotifyRequesterConfigSm::~InotifyRequesterConfigSm() {
  zombieReactorsDel();
  if (inotifyMonitorReactor_) inotifyMonitorReactor_->smIs(nullptr);
  if (eventClock_) eventClock_->smIs(nullptr);
  // The watches go with the monitor; they are not removed one by one.
  while (dirSm_.popFront()) {
  }
  dirName_ = DirNameCollection();
  if (eventClock_) eventClock_->notifierIs(nullptr);
  if (inotifyMonitorReactor_) inotifyMonitorReactor_->notifierIs(nullptr);
}

Kel::Ptr<InotifyDirSm> InotifyRequesterConfigSm::dirSm(Kel::String const& path) const {
  auto const* dsm = dirSm_.find(path);
  return dsm ? *dsm : nullptr;
}

Kel::Ptr<InotifyDirSm> InotifyRequesterConfigSm::dirSmIs(Kel::String const& path, std::uint32_t watchId) {
  if (auto present = dirSm(path)) {
    if (present->watchId() != watchId) {
      throw Kel::NameInUseException("dirSm " + path.str() + " is in use with watch id " +
                                    std::to_string(present->watchId()));
    }
    return present;
  }
  auto dsm = InotifyDirSm::InotifyDirSmIs(this, path, watchId);
  dirSm_.insert(path, dsm);
  return dsm;
}

void InotifyRequesterConfigSm::dirSmDel(Kel::String const& path) { dirSm_.erase(path); }

void InotifyRequesterConfigSm::dirNameIs(std::uint32_t watchId, Kel::String const& path) {
  dirName_.insert(watchId, path);
}

void InotifyRequesterConfigSm::dirNameDel(std::uint32_t watchId) { dirName_.erase(watchId); }

double InotifyRequesterConfigSm::eventClockTime() const {
  return eventClock_ ? eventClock_->timeMin() : Kel::Clock::never;
}

void InotifyRequesterConfigSm::handleInitialized() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  remoteHostSmIs(this, requesterConfig());
  inotifyMonitor_ = InotifyMonitor::InotifyMonitorIs(Kel::Name(name().str() + "-inotifyMonitor"));
  inotifyMonitorReactor_ = new KelInotifyMonitor(this);
  inotifyMonitorReactor_->notifierIs(inotifyMonitor_);
  // Bound but not armed: it fires once events are queued.
  eventClock_ = new KelEventClock(this);
  eventClock_->notifierIs(Kel::activityManager()->clock());
  handleEnabled();
  initialized_ = true;
}

void InotifyRequesterConfigSm::handleFile(Kel::Name name) {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  if (!enabled()) return;
  RequesterConfigSmBase::handleFile(name);
  auto fileConfig = requesterConfig()->file(name);
  if (!fileConfig) {
    removeWatch(Kel::String(name));
    return;
  }
  addWatch(Kel::String(name), fileConfig, requesterStatus()->file(name));
}

void InotifyRequesterConfigSm::addWatch(Kel::String const& path, Kel::Ptr<FileConfig const> fileConfig,
                                        Kel::Ptr<FileStatus> fileStatus) {
  KEL_ASSERT(enabled());
  Kel::String const d = Utils::dirname(path);
  Kel::String const f = Utils::filename(path);
  // Whoever fills the configuration makes sure the directory exists.
  KEL_ASSERT(Utils::exists( d ));
  if (!dirSm(d)) {
    std::uint32_t const watchId = inotifyMonitor_->newWatchId(d);
    dirSmIs(d, watchId);
    dirNameIs(watchId, d);
  }
  auto dsm = dirSm(d);
  if (!dsm->replicationSm(f)) dsm->replicationSmIs(f, requesterConfig(), std::move(fileConfig), std::move(fileStatus));
}

void InotifyRequesterConfigSm::removeWatch(Kel::String const& path) {
  Kel::String const d = Utils::dirname(path);
  Kel::String const f = Utils::filename(path);
  auto dsm = dirSm(d);
  if (!dsm) return;
  if (dsm->replicationSm(f)) dsm->replicationSmDel(f);
  if (dsm->replicationSms() == 0) {
    inotifyMonitor_->watchIdToDelIs(dsm->watchId());
    dirNameDel(dsm->watchId());
    dirSmDel(d);
  }
}

void InotifyRequesterConfigSm::handleInotifyEventQueue() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  if (inotifyMonitor_ && inotifyMonitor_->inotifyEvents() != 0) eventClock_->timeMinIs(Kel::now());
}

void InotifyRequesterConfigSm::handleEventClock() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  if (!initialized_) return;
  for (int handled = 0; handled < eventBatch && inotifyMonitor_->inotifyEvents() != 0; ++handled) {
    handleInotifyEvent(inotifyMonitor_->inotifyEventDeq());
  }
  if (inotifyMonitor_->inotifyEvents() != 0) eventClock_->timeMinIs(Kel::now());
}

void InotifyRequesterConfigSm::handleInotifyEvent(InotifyEvent const& event) {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  if (event.isOverflow()) {
    // Any file may have changed unseen; asking each once loses nothing.
    KEL_TRACE(6, "Inotify queue overflowed: replicating every file once");
    requesterStatus()->overflowsIs(requesterStatus()->overflows() + 1);
    replicateFiles();
    return;
  }
  if (event.eventType() == InotifyEvent::none) return;
  // A deletion is replicated too: the run then removes the remote copy.
  Kel::String const* dir = dirName(event.watchId());
  if (!dir) {
    KEL_TRACE(6, "No directory for watch id" << event.watchId());
    return;
  }
  auto dsm = dirSm(*dir);
  KEL_ASSERT(dsm);
  auto rsm = dsm->replicationSm(event.fileName());
  if (!rsm) {
    KEL_TRACE(6, "not one of our watched files");
    return;
  }
  KEL_TRACE(6, "Requesting replication");
  rsm->replicate();
}

void InotifyRequesterConfigSm::replicateFiles() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  if (!enabled()) return;
  for (auto const& [path, dsm] : dirSm_) {
    for (auto const& [fileName, rsm] : dsm->replicationSm()) {
      KEL_TRACE(6, "Requesting replication");
      rsm->replicate();
    }
  }
}

void InotifyRequesterConfigSm::deleteIfNotExist() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  // Only a disabled requester hands its files over to deletion.
  if (enabled()) return;
  for (auto const& [path, dsm] : dirSm_) {
    for (auto const& [fileName, rsm] : dsm->replicationSm()) rsm->deleteFile();
  }
}

void InotifyRequesterConfigSm::zombieReactorsDel() {
  RequesterConfigSmBase::zombieReactorsDel();
  if (inotifyMonitorReactor_) inotifyMonitorReactor_->markedForDeletionIs(true);
  if (eventClock_) eventClock_->markedForDeletionIs(true);
}

}  // namespace FileReplication
