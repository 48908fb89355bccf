#pragma once

#include <cstdint>

#include "FileReplication/FileReplicationSm.h"
#include "FileReplication/Inotify.h"
#include "FileReplication/ReplicationSm.h"
#include "runtime/Clock.h"
#include "runtime/Collection.h"

namespace FileReplication {

class InotifyRequesterConfigSm;

// The files of an inotify requester in one watched directory: one inotify
// watch, and one ReplicationSm per configured file keyed by its base name.
class InotifyDirSm : public Kel::Entity {
 public:
  using ReplicationSmCollection = Kel::Collection<Kel::String, Kel::Ptr<ReplicationSm>>;

  static Kel::Ptr<InotifyDirSm> InotifyDirSmIs(InotifyRequesterConfigSm* owner, Kel::String path,
                                               std::uint32_t watchId) {
    return new InotifyDirSm(owner, std::move(path), watchId);
  }

  InotifyRequesterConfigSm* owner() const { return owner_; }
  Kel::String const& path() const { return path_; }
  std::uint32_t watchId() const { return watchId_; }

  Kel::Ptr<ReplicationSm> replicationSm(Kel::String const& fileName) const;
  ReplicationSmCollection const& replicationSm() const { return replicationSm_; }
  std::size_t replicationSms() const { return replicationSm_.size(); }
  // Returns the existing machine under fileName unchanged, or creates one.
  Kel::Ptr<ReplicationSm> replicationSmIs(Kel::String const& fileName, Kel::Ptr<RequesterConfig const> requesterConfig,
                                          Kel::Ptr<FileConfig const> fileConfig, Kel::Ptr<FileStatus> fileStatus);
  void replicationSmDel(Kel::String const& fileName);
  void replicationSmDelAll();

 protected:
  InotifyDirSm(InotifyRequesterConfigSm* owner, Kel::String path, std::uint32_t watchId)
      : owner_(owner), path_(std::move(path)), watchId_(watchId) {}
  ~InotifyDirSm() override { replicationSmDelAll(); }

 private:
  InotifyRequesterConfigSm* owner_;
  Kel::String path_;
  std::uint32_t watchId_;
  ReplicationSmCollection replicationSm_;
};

// The machine of an inotify requester: watches the directories of the
// requester's files through an inotify instance of its own and asks a file's
// ReplicationSm to replicate when an event names it. Events are drained from
// the monitor's queue at most ten per turn of the event clock, so a flood on
// one requester cannot hold the loop.
class InotifyRequesterConfigSm : public RequesterConfigSmBase {
 public:
  using DirSmCollection = Kel::Collection<Kel::String, Kel::Ptr<InotifyDirSm>>;
  using DirNameCollection = Kel::Collection<std::uint32_t, Kel::String>;

  static Kel::Ptr<InotifyRequesterConfigSm> InotifyRequesterConfigSmIs(Kel::Name name,
                                                                       Kel::Ptr<RequesterConfig const> requesterConfig,
                                                                       Kel::Ptr<RequesterStatus> requesterStatus);

  Kel::Ptr<InotifyMonitor> inotifyMonitor() const { return inotifyMonitor_; }
  Kel::Ptr<InotifyDirSm> dirSm(Kel::String const& path) const;
  DirSmCollection const& dirSm() const { return dirSm_; }
  // A path in use with another watch id is a NameInUseException.
  Kel::Ptr<InotifyDirSm> dirSmIs(Kel::String const& path, std::uint32_t watchId);
  void dirSmDel(Kel::String const& path);
  Kel::String const* dirName(std::uint32_t watchId) const { return dirName_.find(watchId); }
  DirNameCollection const& dirName() const { return dirName_; }
  void dirNameIs(std::uint32_t watchId, Kel::String const& path);
  void dirNameDel(std::uint32_t watchId);
  // The next drain of the event queue, +infinity when none is due.
  double eventClockTime() const;
  bool initialized() const { return initialized_; }

  void addWatch(Kel::String const& path, Kel::Ptr<FileConfig const> fileConfig, Kel::Ptr<FileStatus> fileStatus);
  void removeWatch(Kel::String const& path);

  void handleInitialized();
  void handleFile(Kel::Name name) override;
  void handleInotifyEventQueue();
  void handleEventClock();
  void handleInotifyEvent(InotifyEvent const& event);
  void replicateFiles() override;
  void deleteIfNotExist() override;
  void zombieReactorsDel() override;

 protected:
  InotifyRequesterConfigSm(Kel::Name name, Kel::Ptr<RequesterConfig const> requesterConfig,
                           Kel::Ptr<RequesterStatus> requesterStatus);
  ~InotifyRequesterConfigSm() override;

 private:
  class KelInotifyMonitor;
  class KelEventClock;

  Kel::Ptr<InotifyMonitor> inotifyMonitor_;
  Kel::Ptr<KelInotifyMonitor> inotifyMonitorReactor_;
  DirSmCollection dirSm_;
  DirNameCollection dirName_;
  Kel::Ptr<KelEventClock> eventClock_;
  bool initialized_ = false;
};

}  // namespace FileReplication
