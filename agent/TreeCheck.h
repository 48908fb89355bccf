#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "agent/AgentConfig.h"

namespace Agent {

struct TreeFinding {
  // The index in the requester's files of the entry it is about.
  std::size_t entry;
  bool error;
  std::string message;
};

// Looks at the trees and patterns of a requester on the file system as it is
// now: one that matches nothing or that cannot be read is a warning; a file
// claimed by two entries is an error, told once per pair of entries. Files
// named alone are claimed first, then each tree in order; the error is at
// the entry that claims a file already taken and names the other by
// where(index).
std::vector<TreeFinding> checkTrees(RequesterSettings const& r, std::function<std::string(std::size_t)> const& where);

}  // namespace Agent
