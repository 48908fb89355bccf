#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace SystemBench {

// Sees files arrive where they are copied to, through inotify on their
// directories: a name arrives when it is renamed into place (rsync's way)
// or closed after writing. Cheap for the copier, and exact to a wake-up of
// this process, which asking the agent for its status is not.
class Arrivals {
 public:
  // The directories of paths must exist.
  explicit Arrivals(std::vector<std::string> paths);
  ~Arrivals();
  Arrivals(Arrivals const&) = delete;
  Arrivals& operator=(Arrivals const&) = delete;

  // Counts from now on: what arrived before is forgotten.
  void reset();
  // Waits until every path has arrived, or until deadlineNs (monotonic),
  // or until giveUp, asked every 100 ms or so, says so. When the last one
  // was seen, or -1.
  std::int64_t awaitAll(std::int64_t deadlineNs, std::function<bool()> const& giveUp = {});
  std::size_t arrived() const { return arrivedCount_; }
  std::size_t size() const { return paths_.size(); }

 private:
  void arrivedIs(std::size_t index, std::int64_t now);
  void readEvents();
  void rescan();

  int fd_ = -1;
  std::vector<std::string> paths_;
  std::unordered_map<int, std::string> directories_;
  std::unordered_map<std::string, std::size_t> index_;
  // What each path was at the last reset (0: missing), for telling after a
  // queue overflow which paths were replaced since.
  std::vector<ino_t> inodes_;
  std::vector<bool> arrived_;
  std::size_t arrivedCount_ = 0;
  std::int64_t lastNs_ = -1;
};

}  // namespace SystemBench
