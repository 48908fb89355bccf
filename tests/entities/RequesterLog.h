#pragma once

#include <string>
#include <vector>

#include "entities/RequesterConfig.h"

namespace FileReplication {

// Records every notification of one requester into log as "NAME what";
// a change of enabled says "enabled" or "disabled".
class RequesterLog : public RequesterConfig::NotifieeConst {
 public:
  explicit RequesterLog(std::vector<std::string>& log) : log_(log) {}
  void onFile(Kel::Name n) override { add("file " + n.str()); }
  void onFile() override { add("files"); }
  void onEnabled() override { add(notifier()->enabled() ? "enabled" : "disabled"); }
  void onRemoteHost(Kel::String h) override { add("host " + h.str()); }
  void onRemoteHost() override { add("hosts"); }
  void onReplicationTimeout() override { add("replicationTimeout"); }
  void onPeriod() override { add("period"); }
  void onRetryInterval() override { add("retryInterval"); }
  void onSyncErrorThreshold() override { add("syncErrorThreshold"); }
  void onRemoteHostReplicationDelay() override { add("remoteHostReplicationDelay"); }
  void onSshOptions() override { add("sshOptions " + notifier()->sshOptions().str()); }

 private:
  void add(std::string const& what) { log_.push_back(notifier()->name().str() + " " + what); }
  std::vector<std::string>& log_;
};

}  // namespace FileReplication
