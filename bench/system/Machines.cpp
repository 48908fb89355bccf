#include "bench/system/Machines.h"

#include <sys/ioctl.h>

#include "FileReplication/InotifyModeSm.h"
#include "FileReplication/PeriodicModeSm.h"

namespace SystemBench {

using FileReplication::ReplicationSm;

std::vector<Kel::Ptr<ReplicationSm>> replicationSms(FileReplication::ConfigSm const& configSm) {
  std::vector<Kel::Ptr<ReplicationSm>> machines;
  for (auto const& [name, sm] : configSm.requesterConfigSm()) {
    if (auto* periodic = dynamic_cast<FileReplication::PeriodicRequesterConfigSm*>(sm.ptr())) {
      for (auto const& [key, rsm] : periodic->replicationSm()) machines.push_back(rsm);
    } else if (auto* inotify = dynamic_cast<FileReplication::InotifyRequesterConfigSm*>(sm.ptr())) {
      for (auto const& [dir, dsm] : inotify->dirSm()) {
        for (auto const& [file, rsm] : dsm->replicationSm()) machines.push_back(rsm);
      }
    }
  }
  return machines;
}

bool allStandby(std::vector<Kel::Ptr<ReplicationSm>> const& machines) {
  for (auto const& rsm : machines) {
    if (rsm->state() != ReplicationSm::standby) return false;
  }
  return true;
}

Kel::Ptr<FileReplication::InotifyMonitor> inotifyMonitorOf(FileReplication::ConfigSm const& configSm,
                                                           Kel::Name requester) {
  auto* inotify = dynamic_cast<FileReplication::InotifyRequesterConfigSm*>(configSm.requesterConfigSm(requester).ptr());
  return inotify ? inotify->inotifyMonitor() : nullptr;
}

int unreadInotifyBytes(FileReplication::InotifyMonitor const& monitor) {
  int bytes = 0;
  ioctl(monitor.fdReactor()->notifier()->descriptor(), FIONREAD, &bytes);
  return bytes;
}

}  // namespace SystemBench
