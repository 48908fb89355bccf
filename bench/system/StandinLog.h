#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "bench/system/StandinRecord.h"

namespace SystemBench {

// The FIFO where runs of the stand-in Replicate leave their records. While
// it lives, children started from this process (and the processes they
// start) find it through the environment.
class StandinLog {
 public:
  explicit StandinLog(std::string path);
  ~StandinLog();
  StandinLog(StandinLog const&) = delete;
  StandinLog& operator=(StandinLog const&) = delete;

  std::string const& path() const { return path_; }
  // The records that have arrived, without waiting.
  std::vector<StandinRecord> drain();
  // Waits at most timeoutSeconds for one record.
  bool next(StandinRecord& record, double timeoutSeconds);
  // Reads and counts records until count of them arrived in all, or until
  // nothing arrived for idleSeconds; returns how many arrived.
  std::size_t awaitCount(std::size_t count, double idleSeconds);

 private:
  std::string path_;
  int reader_ = -1;
  // Ours, so that the FIFO never reads as ended between two runs.
  int writer_ = -1;
  std::size_t counted_ = 0;
};

}  // namespace SystemBench
