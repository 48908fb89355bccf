#pragma once

#include <vector>

#include "FileReplication/ConfigSm.h"
#include "FileReplication/Inotify.h"
#include "FileReplication/ReplicationSm.h"

namespace SystemBench {

// The replication machines under a root machine, of either mode.
std::vector<Kel::Ptr<FileReplication::ReplicationSm>> replicationSms(FileReplication::ConfigSm const& configSm);

// Nothing running or owed: every machine waits in standby.
bool allStandby(std::vector<Kel::Ptr<FileReplication::ReplicationSm>> const& machines);

// The inotify monitor of an inotify requester, null for another.
Kel::Ptr<FileReplication::InotifyMonitor> inotifyMonitorOf(FileReplication::ConfigSm const& configSm,
                                                           Kel::Name requester);

// Events the kernel holds for the monitor that it has not read yet.
int unreadInotifyBytes(FileReplication::InotifyMonitor const& monitor);

}  // namespace SystemBench
