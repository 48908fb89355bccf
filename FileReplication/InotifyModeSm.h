#pragma once

#include <cstdint>
#include <map>

#include "FileReplication/DirWatch.h"
#include "FileReplication/FileReplicationSm.h"
#include "FileReplication/Inotify.h"
#include "FileReplication/ReplicationSm.h"
#include "runtime/NotifyingCollection.h"

namespace FileReplication {

class InotifyRequesterConfigSm;

// The files of an inotify requester in one directory, as the configuration
// spells it: the directory's watch, and one ReplicationSm per configured file
// keyed by its base name. Files elsewhere whose source is a symbolic link to a
// name in this directory are asked too when that name changes.
class InotifyDirSm : public Kel::Entity, private DirWatch::Listener {
 public:
  using ReplicationSmCollection = Kel::NotifyingCollection<Kel::String, Kel::Ptr<ReplicationSm>>;
  using LinkTargetCollection = std::multimap<Kel::String, Kel::Ptr<ReplicationSm>>;

  static Kel::Ptr<InotifyDirSm> InotifyDirSmIs(InotifyRequesterConfigSm* owner, Kel::String path);

  InotifyRequesterConfigSm* owner() const { return owner_; }
  Kel::String const& path() const { return path_; }
  Kel::Ptr<DirWatch> dirWatch() const { return dirWatch_; }
  // The directory's watch id; 0 while it is missing or cannot be watched.
  std::uint32_t watchId() const { return dirWatch_ ? dirWatch_->watchId() : 0; }
  void dirWatchDel();

  Kel::Ptr<ReplicationSm> replicationSm(Kel::String const& fileName) const;
  ReplicationSmCollection const& replicationSm() const { return replicationSm_; }
  std::size_t replicationSms() const { return replicationSm_.size(); }
  // Returns the existing machine under fileName, given fileConfig, or creates one.
  Kel::Ptr<ReplicationSm> replicationSmIs(Kel::String const& fileName, Kel::Ptr<RequesterConfig const> requesterConfig,
                                          Kel::Ptr<FileConfig const> fileConfig, Kel::Ptr<FileStatus> fileStatus);
  void replicationSmDel(Kel::String const& fileName);
  void replicationSmDelAll();

  LinkTargetCollection const& linkTarget() const { return linkTarget_; }
  void linkTargetIs(Kel::String const& fileName, Kel::Ptr<ReplicationSm> const& sm);
  void linkTargetDel(Kel::String const& fileName, ReplicationSm const* sm);
  bool empty() const { return replicationSm_.size() == 0 && linkTarget_.empty(); }

  // What the watch cannot see, for the file's status; empty when watched.
  Kel::String watchError() const;

 protected:
  InotifyDirSm(InotifyRequesterConfigSm* owner, Kel::String path) : owner_(owner), path_(std::move(path)) {}
  ~InotifyDirSm() override;

 private:
  void onDirEntry(InotifyEvent const& event) override;
  void onDirAnew() override;
  void onDirOverflow() override;
  // Every machine asked by a change of name, configured here or linked to it.
  template <class F>
  void forEachMachine(F const& f) const;

  InotifyRequesterConfigSm* owner_;
  Kel::String path_;
  Kel::Ptr<DirWatch> dirWatch_;
  ReplicationSmCollection replicationSm_;
  LinkTargetCollection linkTarget_;
};

// The machine of an inotify requester: keeps the directories of its files
// watched through the process's shared inotify instance and asks a file's
// ReplicationSm to replicate when an event names it. A directory is watched
// under each spelling the configuration uses; the kernel's watch, keyed by
// what it watches, is shared by all of them.
class InotifyRequesterConfigSm : public RequesterConfigSmBase {
 public:
  using DirSmCollection = Kel::NotifyingCollection<Kel::String, Kel::Ptr<InotifyDirSm>>;
  using LinkTargetCollection = Kel::Collection<Kel::String, Kel::String>;

  static Kel::Ptr<InotifyRequesterConfigSm> InotifyRequesterConfigSmIs(Kel::Name name,
                                                                       Kel::Ptr<RequesterConfig const> requesterConfig,
                                                                       Kel::Ptr<RequesterStatus> requesterStatus);

  // The shared instance's monitor; null when the kernel refused one.
  Kel::Ptr<InotifyMonitor> inotifyMonitor() const;
  Kel::Ptr<InotifyDirSm> dirSm(Kel::String const& path) const;
  DirSmCollection const& dirSm() const { return dirSm_; }
  // The existing machine for path, or a new one that starts watching.
  Kel::Ptr<InotifyDirSm> dirSmIs(Kel::String const& path);
  void dirSmDel(Kel::String const& path);
  Kel::Ptr<ReplicationSm> replicationSm(Kel::String const& path) const override;
  // Each directory that is missing (and which ancestor waits for it) or
  // was refused a watch.
  UnwatchedCollection unwatchedDirectories() const override;
  // The resolved target of each configured file whose source is a symbolic
  // link, keyed by the file's path.
  LinkTargetCollection const& linkTarget() const { return linkTarget_; }
  // The next drain of the shared event queue, +infinity when none is due.
  double eventClockTime() const;
  bool initialized() const { return initialized_; }

  void addWatch(Kel::String const& path, Kel::Ptr<FileConfig const> fileConfig, Kel::Ptr<FileStatus> fileStatus);
  void removeWatch(Kel::String const& path);
  // Follows a change of what the file's symbolic link points to.
  void linkTargetRefresh(Kel::String const& path);

  void handleInitialized();
  void handleFile(Kel::Name name) override;
  void handleOverflow();
  void replicateFiles() override;
  void deleteIfNotExist() override;

 protected:
  InotifyRequesterConfigSm(Kel::Name name, Kel::Ptr<RequesterStatus> requesterStatus);
  ~InotifyRequesterConfigSm() override;

 private:
  void linkTargetDrop(Kel::String const& path);

  DirSmCollection dirSm_;
  LinkTargetCollection linkTarget_;
  std::uint64_t overflowsSeen_ = 0;
  bool initialized_ = false;
};

}  // namespace FileReplication
