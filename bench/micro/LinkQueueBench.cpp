#include <benchmark/benchmark.h>

#include <cstdint>

#include "FileReplication/Inotify.h"
#include "runtime/LinkQueue.h"

std::uint64_t microBenchAllocations();
void microBenchAllocationsReport(benchmark::State& state, std::uint64_t before);

namespace {

// One enqueue and one dequeue on a queue that holds range(0) members
// throughout; perOp is half an iteration.
template <class T>
void linkQueueEnqDeq(benchmark::State& state, T const& member) {
  Kel::LinkQueue<T> queue;
  for (std::int64_t i = 0; i < state.range(0); ++i) queue.enq(member);
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    queue.enq(member);
    auto head = queue.deq();
    benchmark::DoNotOptimize(head);
  }
  microBenchAllocationsReport(state, allocationsBefore);
  if (queue.members() != state.range(0)) state.SkipWithError("the queue lost or gained members");
  state.counters["perOp"] = benchmark::Counter(static_cast<double>(state.iterations() * 2),
                                               benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_LinkQueueEnqDeqIndex(benchmark::State& state) { linkQueueEnqDeq<std::uint32_t>(state, 7); }
BENCHMARK(BM_LinkQueueEnqDeqIndex)->Arg(0)->Arg(1000);

// The monitor's queue: events with a short file name, copied in as
// inotifyEventEnq(e) copies them.
void BM_LinkQueueEnqDeqInotifyEvent(benchmark::State& state) {
  linkQueueEnqDeq(state, FileReplication::InotifyEvent(FileReplication::InotifyEvent::modified, false, 1, "data.bin"));
}
BENCHMARK(BM_LinkQueueEnqDeqInotifyEvent)->Arg(0)->Arg(1000);

}  // namespace
