#pragma once

#include <cstdint>

namespace SystemBench {

// The environment variable naming the FIFO the stand-in Replicate writes
// its record to. Without it the stand-in only exits 0.
constexpr char const* standinLogVariable = "FILEREP_BENCH_STANDIN_LOG";

// What one run of the stand-in reports, in one write no larger than
// PIPE_BUF so that records of concurrent runs never interleave.
struct StandinRecord {
  // CLOCK_MONOTONIC at the top of main(), in nanoseconds.
  std::int64_t startNs;
  std::int64_t pid;
};

}  // namespace SystemBench
