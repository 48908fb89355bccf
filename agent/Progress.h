#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>

#include <nlohmann/json.hpp>

namespace Agent {

// How far each requester's bulk of runs (its initial sync, a replicate-all,
// a rescan) has got, and when it may end, from what status requests saw:
// the rate is measured between the first look that found files pending and
// now, so an estimate appears from the second look on.
class Progress {
 public:
  // Null when nothing is pending; otherwise {"done", "total", "secondsLeft"},
  // the last null while there is no rate yet.
  nlohmann::json observe(std::string const& requester, std::size_t done, std::size_t total, double now);
  void clear() { bulks_.clear(); }

 private:
  struct Bulk {
    double since;
    std::size_t doneAtStart;
  };
  std::unordered_map<std::string, Bulk> bulks_;
};

}  // namespace Agent
