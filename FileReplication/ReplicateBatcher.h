#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "runtime/ChildBatcher.h"

namespace FileReplication {

// Merges the copies of files that are due together into one
// `Replicate --cmd rsyncFiles` process, which copies a list of names under a
// common source root and destination root with one rsync per host and
// prints one line per name: "0" when that file reached every host.
//
// Copies share a process when they go to the same hosts with the same ssh
// and rsync options and their paths split alike into root and name:
// /srv/a/x.conf to /backup/a/x.conf has roots /srv and /backup and the name
// a/x.conf. A copy whose destination has another base name, or whose paths
// or options could make rsync read the list differently, runs alone.
class ReplicateBatcher : public Kel::ChildBatcher {
 public:
  // The one the agent's child manager uses.
  static ReplicateBatcher& instance();

  std::string batchKey(Kel::ChildArgs const& argv) const override;
  Carrier carrierOf(std::vector<Kel::Ptr<Kel::ChildSiginfo>> const& members) const override;
  std::vector<End> endsOf(std::size_t members, End carrier, std::string_view output) const override;
  // A line that names a member's file (its path, or its name under the
  // roots, as rsync says it) is that member's; any other line, a host that
  // is down say, is every failed member's.
  std::vector<std::string> errorOutputsOf(std::vector<Kel::Ptr<Kel::ChildSiginfo>> const& members,
                                          std::vector<End> const& ends, std::string_view errors) const override;
};

}  // namespace FileReplication
