#include "tools/Replicate/HostProbe.h"

#include "tools/Replicate/RemoteHosts.h"

namespace Replicate {

bool probeHosts(const CommandLine& line) {
  RemoteHosts hosts(line);
  return allSucceeded(hosts.forEachHost([&](size_t i) { return hosts.probe(hosts.hosts()[i]); }, true));
}

}  // namespace Replicate
