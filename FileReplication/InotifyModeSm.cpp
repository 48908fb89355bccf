#include "FileReplication/InotifyModeSm.h"

#include "FileReplication/FileReplicationUtils.h"
#include "FileReplication/Log.h"
#include "runtime/Assert.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("FileReplicationSm")

namespace FileReplication {

// ---- InotifyDirSm

Kel::Ptr<InotifyDirSm> InotifyDirSm::InotifyDirSmIs(InotifyRequesterConfigSm* owner, Kel::String path) {
  Kel::Ptr<InotifyDirSm> const dsm = new InotifyDirSm(owner, path);
  double const retryDelay = owner->requesterConfig() ? owner->requesterConfig()->retryInterval() : 10;
  dsm->dirWatch_ = DirWatch::DirWatchIs(std::move(path), dsm.ptr(), retryDelay);
  return dsm;
}

InotifyDirSm::~InotifyDirSm() {
  dirWatchDel();
  linkTarget_.clear();
  replicationSmDelAll();
}

void InotifyDirSm::dirWatchDel() {
  if (!dirWatch_) return;
  dirWatch_->listenerDel();
  dirWatch_ = nullptr;
}

Kel::Ptr<ReplicationSm> InotifyDirSm::replicationSm(Kel::String const& fileName) const {
  return replicationSm_.value(fileName);
}

Kel::Ptr<ReplicationSm> InotifyDirSm::replicationSmIs(Kel::String const& fileName,
                                                      Kel::Ptr<RequesterConfig const> requesterConfig,
                                                      Kel::Ptr<FileConfig const> fileConfig,
                                                      Kel::Ptr<FileStatus> fileStatus) {
  if (auto present = replicationSm(fileName)) {
    present->fileConfigIs(fileConfig);
    return present;
  }
  auto sm = ReplicationSm::ReplicationSmIs(fileName, std::move(requesterConfig), std::move(fileConfig),
                                           std::move(fileStatus), owner_->requesterStatus());
  replicationSm_.insert(fileName, sm);
  sm->watchErrorIs(watchError());
  return sm;
}

void InotifyDirSm::replicationSmDel(Kel::String const& fileName) { replicationSm_.erase(fileName); }

void InotifyDirSm::replicationSmDelAll() { replicationSm_.eraseAll(); }

void InotifyDirSm::linkTargetIs(Kel::String const& fileName, Kel::Ptr<ReplicationSm> const& sm) {
  linkTarget_.emplace(fileName, sm);
}

void InotifyDirSm::linkTargetDel(Kel::String const& fileName, ReplicationSm const* sm) {
  auto [from, to] = linkTarget_.equal_range(fileName);
  for (auto it = from; it != to; ++it) {
    if (it->second.ptr() != sm) continue;
    linkTarget_.erase(it);
    return;
  }
}

Kel::String InotifyDirSm::watchError() const { return dirWatch_ ? dirWatch_->errorText() : Kel::String(); }

template <class F>
void InotifyDirSm::forEachMachine(F const& f) const {
  // A machine may be removed by what it is asked to do.
  std::vector<Kel::Ptr<ReplicationSm>> all;
  for (auto const& [name, rsm] : replicationSm_) all.push_back(rsm);
  for (auto const& [name, rsm] : linkTarget_) all.push_back(rsm);
  for (auto const& rsm : all) f(*rsm);
}

void InotifyDirSm::onDirEntry(InotifyEvent const& event) {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  if (event.eventType() == InotifyEvent::none) return;
  // A deletion is replicated too: the run then removes the remote copy.
  Kel::Ptr<InotifyDirSm> const keep(this);
  auto const rsm = replicationSm(event.fileName());
  auto const [from, to] = linkTarget_.equal_range(event.fileName());
  if (!rsm && from == to) {
    KEL_TRACE(6, "not one of our watched files");
    return;
  }
  std::vector<Kel::Ptr<ReplicationSm>> asked;
  for (auto it = from; it != to; ++it) asked.push_back(it->second);
  if (rsm) {
    // A new link, or a link replaced, may point elsewhere now.
    if (event.eventType() != InotifyEvent::modified) owner_->linkTargetRefresh(rsm->path());
    asked.push_back(rsm);
  }
  for (auto const& sm : asked) {
    KEL_TRACE(6, "Requesting replication");
    sm->replicate();
  }
}

void InotifyDirSm::onDirAnew() {
  KEL_TRACE(3, __PRETTY_FUNCTION__ << ": " << path_);
  Kel::Ptr<InotifyDirSm> const keep(this);
  Kel::String const error = watchError();
  for (auto const& [name, rsm] : replicationSm_) owner_->linkTargetRefresh(rsm->path());
  forEachMachine([&](ReplicationSm& sm) {
    sm.watchErrorIs(error);
    // Not watched, a copy would be a guess of when to copy; the retry of the
    // watch asks every file once it stands.
    if (error.empty()) sm.replicate();
  });
}

void InotifyDirSm::onDirOverflow() { owner_->handleOverflow(); }

// ---- InotifyRequesterConfigSm

Kel::Ptr<InotifyRequesterConfigSm> InotifyRequesterConfigSm::InotifyRequesterConfigSmIs(
    Kel::Name name, Kel::Ptr<RequesterConfig const> requesterConfig, Kel::Ptr<RequesterStatus> requesterStatus) {
  return started(new InotifyRequesterConfigSm(name, std::move(requesterStatus)), requesterConfig);
}

InotifyRequesterConfigSm::InotifyRequesterConfigSm(Kel::Name name, Kel::Ptr<RequesterStatus> requesterStatus)
    : RequesterConfigSmBase(name, std::move(requesterStatus)) {}

InotifyRequesterConfigSm::~InotifyRequesterConfigSm() {
  linkTarget_ = LinkTargetCollection();
  dirSm_.eraseAll();
}

Kel::Ptr<InotifyMonitor> InotifyRequesterConfigSm::inotifyMonitor() const {
  InotifyWatches const* watches = InotifyWatches::current();
  return watches ? watches->inotifyMonitor() : nullptr;
}

Kel::Ptr<InotifyDirSm> InotifyRequesterConfigSm::dirSm(Kel::String const& path) const { return dirSm_.value(path); }

Kel::Ptr<InotifyDirSm> InotifyRequesterConfigSm::dirSmIs(Kel::String const& path) {
  return dirSm_.findOrInsert(path, [this](Kel::String const& p) { return InotifyDirSm::InotifyDirSmIs(this, p); });
}

void InotifyRequesterConfigSm::dirSmDel(Kel::String const& path) {
  auto const removed = dirSm_.erase(path);
  // Whoever still holds the machine, its watch is not ours any more.
  if (removed && *removed) (*removed)->dirWatchDel();
}

Kel::Ptr<ReplicationSm> InotifyRequesterConfigSm::replicationSm(Kel::String const& path) const {
  auto const dsm = dirSm(Utils::dirname(path));
  return dsm ? dsm->replicationSm(Utils::filename(path)) : nullptr;
}

InotifyRequesterConfigSm::UnwatchedCollection InotifyRequesterConfigSm::unwatchedDirectories() const {
  UnwatchedCollection unwatched;
  for (auto const& [dir, dsm] : dirSm_) {
    auto const watch = dsm->dirWatch();
    if (!watch || watch->watchId()) continue;
    unwatched.insert(dir, watch->error()
                              ? watch->errorText()
                              : Kel::String("missing; watching " + watch->waitingOn().str() + " for it to appear"));
  }
  return unwatched;
}

double InotifyRequesterConfigSm::eventClockTime() const {
  InotifyWatches const* watches = InotifyWatches::current();
  return watches ? watches->eventClockTime() : Kel::Clock::never;
}

void InotifyRequesterConfigSm::handleInitialized() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  remoteHostSmIs(this, requesterConfig());
  // Set first: the handlers wait for it, and this is their first call.
  initialized_ = true;
  handleEnabled();
}

void InotifyRequesterConfigSm::handleFile(Kel::Name name) {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  // Binding catches up before the remote host machine exists.
  if (!initialized_ || !enabled()) return;
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
  KEL_ASSERT_TEXT(enabled(), "enabled()");
  // A directory that is missing is watched for when it appears: the
  // configuration and the file system may disagree at any moment.
  auto const dsm = dirSmIs(Utils::dirname(path));
  Kel::String const f = Utils::filename(path);
  if (auto present = dsm->replicationSm(f)) {
    present->fileConfigIs(fileConfig);
    return;
  }
  dsm->replicationSmIs(f, requesterConfig(), std::move(fileConfig), std::move(fileStatus));
  linkTargetRefresh(path);
}

void InotifyRequesterConfigSm::removeWatch(Kel::String const& path) {
  Kel::String const d = Utils::dirname(path);
  auto dsm = dirSm(d);
  if (!dsm) return;
  linkTargetDrop(path);
  dsm->replicationSmDel(Utils::filename(path));
  if (dsm->empty()) dirSmDel(d);
}

void InotifyRequesterConfigSm::linkTargetRefresh(Kel::String const& path) {
  Kel::String const target = Utils::linkTarget(path);
  Kel::String const* present = linkTarget_.find(path);
  if (present ? *present == target : target.empty()) return;
  linkTargetDrop(path);
  auto const rsm = replicationSm(path);
  if (target.empty() || !rsm) return;
  KEL_TRACE(6, "Watching " << target << " for " << path);
  dirSmIs(Utils::dirname(target))->linkTargetIs(Utils::filename(target), rsm);
  linkTarget_.insert(path, target);
}

void InotifyRequesterConfigSm::linkTargetDrop(Kel::String const& path) {
  Kel::String const* target = linkTarget_.find(path);
  if (!target) return;
  Kel::String const d = Utils::dirname(*target);
  if (auto const dsm = dirSm(d)) {
    dsm->linkTargetDel(Utils::filename(*target), replicationSm(path).ptr());
    if (dsm->empty()) dirSmDel(d);
  }
  linkTarget_.erase(path);
}

void InotifyRequesterConfigSm::handleOverflow() {
  KEL_TRACE(3, __PRETTY_FUNCTION__);
  InotifyWatches const* watches = InotifyWatches::current();
  std::uint64_t const overflows = watches ? watches->overflows() : 0;
  // Each directory of the requester passes the news on; one rescan is enough.
  if (overflows == overflowsSeen_) return;
  overflowsSeen_ = overflows;
  KEL_TRACE(6, "Inotify queue overflowed: replicating every file once");
  log(LogPriority::warning,
      "requester " + name().str() + ": the kernel dropped file change events; replicating every file once");
  requesterStatus()->overflowsIs(requesterStatus()->overflows() + 1);
  replicateFiles();
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

}  // namespace FileReplication
