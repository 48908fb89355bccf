#pragma once

#include <cstdint>
#include <ostream>

#include "entities/FileConfig.h"
#include "entities/RemoteHost.h"
#include "runtime/Entity.h"
#include "runtime/Name.h"
#include "runtime/NotifyingCollection.h"
#include "runtime/String.h"

namespace FileReplication {

// One requester: a named client with its own files, remote hosts and timings.
class RequesterConfig : public Kel::Entity {
 public:
  enum Mode : std::uint32_t { periodic = 0, inotify = 1 };

  class NotifieeConst : public Kel::NotifieeBase<RequesterConfig> {
   public:
    virtual void onFile(Kel::Name) {}
    virtual void onFile() {}
    virtual void onEnabled() {}
    virtual void onRemoteHost(Kel::String) {}
    virtual void onRemoteHost() {}
    virtual void onReplicationTimeout() {}
    virtual void onPeriod() {}
    virtual void onRetryInterval() {}
    virtual void onSyncErrorThreshold() {}
    virtual void onRemoteHostReplicationDelay() {}
    virtual void onMaxFilesPerRun() {}
    virtual void onDeleteDelay() {}
    virtual void onSshOptions() {}
  };
  using Notifiee = NotifieeConst;

  using FileCollection = Kel::NotifyingCollection<Kel::Name, Kel::Ptr<FileConfig>>;
  using RemoteHostCollection = Kel::NotifyingCollection<Kel::String, RemoteHost>;

  static Kel::Ptr<RequesterConfig> RequesterConfigIs(Kel::Name name, Mode mode) {
    return new RequesterConfig(name, mode);
  }

  Kel::Name name() const { return name_; }
  // Fixed for the life of the entry: a requester changes mode by being
  // removed and added again.
  Mode mode() const { return mode_; }

  bool enabled() const { return enabled_; }
  void enabledIs(bool v);

  Kel::Ptr<FileConfig> file(Kel::Name path) const { return file_.value(path); }
  FileCollection const& file() const { return file_; }
  std::size_t files() const { return file_.size(); }
  Kel::Ptr<FileConfig> newFile(Kel::Name path, Kel::String dstPath, Kel::String rsyncOptions);
  // Adds the file, or replaces the entity under its path.
  void fileIs(Kel::Ptr<FileConfig> const& f);
  void fileDel(Kel::Name path);
  void fileDelAll();

  RemoteHost const* remoteHost(Kel::String const& hostOrIp) const { return remoteHost_.find(hostOrIp); }
  RemoteHostCollection const& remoteHost() const { return remoteHost_; }
  std::size_t remoteHosts() const { return remoteHost_.size(); }
  void remoteHostIs(Kel::String const& hostOrIp);
  void remoteHostDel(Kel::String const& hostOrIp);
  void remoteHostDelAll();
  // The hosts joined with "," in the collection's order; empty without hosts.
  Kel::String remoteHostsString() const;

  double replicationTimeout() const { return replicationTimeout_; }
  void replicationTimeoutIs(double v);
  double period() const { return period_; }
  void periodIs(double v);
  double retryInterval() const { return retryInterval_; }
  void retryIntervalIs(double v);
  int syncErrorThreshold() const { return syncErrorThreshold_; }
  void syncErrorThresholdIs(int v);
  double remoteHostReplicationDelay() const { return remoteHostReplicationDelay_; }
  void remoteHostReplicationDelayIs(double v);
  // How many files one Replicate run may copy; 1: every file on its own.
  // Files are merged only when they are due together.
  std::uint32_t maxFilesPerRun() const { return maxFilesPerRun_; }
  void maxFilesPerRunIs(std::uint32_t v);
  // How long a source must stay missing before a run deletes its copies:
  // a rename-based save leaves the name missing for a moment. 0: at once.
  double deleteDelay() const { return deleteDelay_; }
  void deleteDelayIs(double v);
  // Arguments for ssh, one text that Replicate splits into words like a
  // shell, without expanding anything; empty: ssh's own defaults. Read on
  // every run, so a change reaches the next run without restarting any.
  Kel::String const& sshOptions() const { return sshOptions_; }
  void sshOptionsIs(Kel::String const& v);

 protected:
  RequesterConfig(Kel::Name name, Mode mode) : name_(name), mode_(mode) {}

 private:
  Kel::Name name_;
  Mode mode_;
  bool enabled_ = false;
  // Told as entries: the machine of every file listens here for the
  // requester's settings, not for the other files.
  FileCollection file_{[this](Kel::Name const& path) { notifyEntry<Notifiee>(&Notifiee::onFile, path); }};
  RemoteHostCollection remoteHost_{
      [this](Kel::String const& hostOrIp) { notify<Notifiee>(&Notifiee::onRemoteHost, hostOrIp); }};
  double replicationTimeout_ = 60;
  double period_ = 60;
  double retryInterval_ = 10;
  int syncErrorThreshold_ = 3;
  double remoteHostReplicationDelay_ = 5;
  std::uint32_t maxFilesPerRun_ = 1;
  double deleteDelay_ = 0.2;
  Kel::String sshOptions_;
};

std::ostream& operator<<(std::ostream& o, RequesterConfig::Mode mode);

}  // namespace FileReplication
