#include "agent/Progress.h"

#include <cmath>

namespace Agent {

nlohmann::json Progress::observe(std::string const& requester, std::size_t done, std::size_t total, double now) {
  if (done >= total) {
    bulks_.erase(requester);
    return nullptr;
  }
  auto [it, fresh] = bulks_.try_emplace(requester, Bulk{now, done});
  // Files added to the bulk, or a new bulk over a finished one, start over.
  if (!fresh && done < it->second.doneAtStart) it->second = Bulk{now, done};
  Bulk const& bulk = it->second;
  nlohmann::json progress = {{"done", done}, {"total", total}, {"secondsLeft", nullptr}};
  double const elapsed = now - bulk.since;
  std::size_t const moved = done - bulk.doneAtStart;
  if (moved > 0 && elapsed > 0) progress["secondsLeft"] = std::ceil(double(total - done) * elapsed / double(moved));
  return progress;
}

}  // namespace Agent
