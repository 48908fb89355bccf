#include "entities/RequesterConfig.h"

#include <string>

#include "runtime/Exception.h"

namespace FileReplication {

using Notifiee = RequesterConfig::NotifieeConst;

void RequesterConfig::enabledIs(bool v) {
  if (Kel::changed(enabled_, v)) notify(&Notifiee::onEnabled);
}

Kel::Ptr<FileConfig> RequesterConfig::newFile(Kel::Name path, Kel::String dstPath, Kel::String rsyncOptions) {
  auto f = FileConfig::FileConfigIs(path, std::move(dstPath), std::move(rsyncOptions));
  fileIs(f);
  return f;
}

void RequesterConfig::fileIs(Kel::Ptr<FileConfig> const& f) { file_.insert(f->path(), f); }

void RequesterConfig::fileDel(Kel::Name path) { file_.erase(path); }

void RequesterConfig::fileDelAll() {
  // Machines act on each file that went; the whole collection's notice
  // alone would leave them running on removed configuration.
  if (file_.eraseAll()) notify<Notifiee>(&Notifiee::onFile);
}

void RequesterConfig::remoteHostIs(Kel::String const& hostOrIp) { remoteHost_.insert(hostOrIp, RemoteHost(hostOrIp)); }

void RequesterConfig::remoteHostDel(Kel::String const& hostOrIp) { remoteHost_.erase(hostOrIp); }

void RequesterConfig::remoteHostDelAll() {
  if (remoteHost_.clear()) notify<Notifiee>(&Notifiee::onRemoteHost);
}

Kel::String RequesterConfig::remoteHostsString() const {
  std::string joined;
  for (auto const& [key, host] : remoteHost_) {
    if (!joined.empty()) joined += ',';
    joined += host.hostOrIp().str();
  }
  return joined;
}

void RequesterConfig::replicationTimeoutIs(double v) {
  if (Kel::changed(replicationTimeout_, v)) notify(&Notifiee::onReplicationTimeout);
}

void RequesterConfig::periodIs(double v) {
  if (Kel::changed(period_, v)) notify(&Notifiee::onPeriod);
}

void RequesterConfig::retryIntervalIs(double v) {
  if (Kel::changed(retryInterval_, v)) notify(&Notifiee::onRetryInterval);
}

void RequesterConfig::syncErrorThresholdIs(int v) {
  if (Kel::changed(syncErrorThreshold_, v)) notify(&Notifiee::onSyncErrorThreshold);
}

void RequesterConfig::remoteHostReplicationDelayIs(double v) {
  if (Kel::changed(remoteHostReplicationDelay_, v)) notify<Notifiee>(&Notifiee::onRemoteHostReplicationDelay);
}

void RequesterConfig::maxFilesPerRunIs(std::uint32_t v) {
  if (v == 0) Kel::throwRangeException("maxFilesPerRun 0");
  if (Kel::changed(maxFilesPerRun_, v)) notify(&Notifiee::onMaxFilesPerRun);
}

void RequesterConfig::deleteDelayIs(double v) {
  if (!(v >= 0)) Kel::throwRangeException("deleteDelay " + std::to_string(v));
  if (Kel::changed(deleteDelay_, v)) notify(&Notifiee::onDeleteDelay);
}

void RequesterConfig::sshOptionsIs(Kel::String const& v) {
  if (Kel::changed(sshOptions_, v)) notify(&Notifiee::onSshOptions);
}

std::ostream& operator<<(std::ostream& o, RequesterConfig::Mode mode) {
  switch (mode) {
    case RequesterConfig::periodic: return o << "periodic";
    case RequesterConfig::inotify: return o << "inotify";
  }
  return o << "RequesterConfig::Mode(" << static_cast<std::uint32_t>(mode) << ")";
}

}  // namespace FileReplication
