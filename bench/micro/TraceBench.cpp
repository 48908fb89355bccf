#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "runtime/Morlix.h"
#include "runtime/Trace.h"

std::uint64_t microBenchAllocations();
void microBenchAllocationsReport(benchmark::State& state, std::uint64_t before);

KEL_TRACE_FACILITY("MicroBench")

namespace {

// Opens Morlix on a new file in $TMPDIR (or /tmp) and gives its path, or
// fails the benchmark and gives "".
std::string openTemporaryRing(benchmark::State& state) {
  char const* dir = std::getenv("TMPDIR");
  std::string path = std::string(dir && *dir ? dir : "/tmp") + "/micro_bench_morlix_XXXXXX";
  int const fd = mkstemp(path.data());
  if (fd < 0) {
    state.SkipWithError("cannot create a temporary file");
    return {};
  }
  ::close(fd);
  try {
    Morlix::open(path);
  } catch (Morlix::Error const& error) {
    ::unlink(path.c_str());
    state.SkipWithError(error.what());
    return {};
  }
  return path;
}

// A statement whose level is off, with Morlix closed: what every statement
// in production code costs while nobody traces. It must not allocate: its
// arguments, a long std::string among them, are not even evaluated.
void BM_TraceDisabled(benchmark::State& state) {
  Morlix::close();
  Kel::traceConfigIs("");
  std::uint64_t counter = 0;
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    KEL_TRACE(5, "replicated " << counter << " files to " << std::string("a host name too long to fit inline"));
    ++counter;
    benchmark::ClobberMemory();
  }
  std::uint64_t const allocations = microBenchAllocations() - allocationsBefore;
  microBenchAllocationsReport(state, allocationsBefore);
  if (allocations != 0) state.SkipWithError("a disabled trace statement allocated");
}
BENCHMARK(BM_TraceDisabled);

// A short statement recorded in an open Morlix ring (not on stderr).
void BM_TraceToMorlix(benchmark::State& state) {
  Kel::traceConfigIs("");
  std::string const path = openTemporaryRing(state);
  if (path.empty()) return;
  std::uint64_t counter = 0;
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    KEL_TRACE(5, "replicated " << counter << " files");
    ++counter;
  }
  microBenchAllocationsReport(state, allocationsBefore);
  Morlix::close();
  Morlix::Snapshot const snapshot = Morlix::read(path);
  ::unlink(path.c_str());
  std::string const last = "replicated " + std::to_string(counter - 1) + " files";
  if (snapshot.records.empty() || snapshot.records.back().message != last) {
    state.SkipWithError("the last statement is not the newest record");
  }
}
BENCHMARK(BM_TraceToMorlix);

// The ring's write alone, without formatting.
void BM_MorlixWrite(benchmark::State& state) {
  std::string const path = openTemporaryRing(state);
  if (path.empty()) return;
  std::int64_t timeNs = 1'800'000'000'000'000'000;
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) Morlix::write(++timeNs, "MicroBench", 5, "replicated 12345 files");
  microBenchAllocationsReport(state, allocationsBefore);
  Morlix::close();
  ::unlink(path.c_str());
}
BENCHMARK(BM_MorlixWrite);

}  // namespace
