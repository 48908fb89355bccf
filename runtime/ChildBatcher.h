#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "runtime/ChildSiginfo.h"

namespace Kel {

// Knows which children may share one process and how that process is made.
// The manager asks only about children whose setup allows merging
// (ChildSetup::batchLimit above 1), and merges those of one key that are
// asked for in the same turn or wait for a slot together. Each child still
// ends on its own, with the end endsOf gives it.
class ChildBatcher {
 public:
  virtual ~ChildBatcher() = default;

  // Children with equal keys may share one process; empty: this one runs
  // alone.
  virtual std::string batchKey(ChildArgs const& argv) const = 0;

  // The process that does the work of members (two or more, all of one
  // key): its argument vector and what it reads on its stdin.
  struct Carrier {
    std::vector<std::string> argv;
    std::string input;
  };
  virtual Carrier carrierOf(std::vector<Ptr<ChildSiginfo>> const& members) const = 0;

  struct End {
    ChildSiginfo::SignalCode code;
    int exitStatus;
  };
  // How each of members ended (one entry each, in order), given how their
  // carrier ended and what it wrote on its stdout.
  virtual std::vector<End> endsOf(std::size_t members, End carrier, std::string_view output) const = 0;

  // The part of what their process wrote on stderr that concerns each of
  // members (one entry each, in order), given how each ended; by default
  // all of it for each.
  virtual std::vector<std::string> errorOutputsOf(std::vector<Ptr<ChildSiginfo>> const& members,
                                                  std::vector<End> const& ends, std::string_view errors) const {
    static_cast<void>(ends);
    return std::vector<std::string>(members.size(), std::string(errors));
  }
};

}  // namespace Kel
