#pragma once

#include <string>
#include <vector>

#include "agent/AgentConfig.h"
#include "entities/Config.h"

namespace Agent {

// Brings the configuration tree in line with wanted, changing only what
// differs: what did not change is not notified, so the replication machines
// restart nothing for it. File attributes change in place on the same
// FileConfig entities. wanted.maxConcurrentReplications is not part of the
// tree and is left to the caller.
//
// A requester whose application throws is taken out of the tree, so the
// next application adds it again from scratch, and the others are applied
// all the same. Returns one line per such requester, naming it, what failed
// and, for inotify limits, the sysctl to raise; empty when all went well.
// Does no I/O of its own.
std::vector<std::string> applyConfig(AgentConfig const& wanted, FileReplication::Config& config);

}  // namespace Agent
