#include <benchmark/benchmark.h>

#include <cstdint>

#include "FileReplication/Inotify.h"

std::uint64_t microBenchAllocations();
void microBenchAllocationsReport(benchmark::State& state, std::uint64_t before);

namespace {

FileReplication::InotifyEvent sampleEvent() {
  return {FileReplication::InotifyEvent::created, false, 12, "report 2026-11.csv"};
}

void BM_InotifyEventWrite(benchmark::State& state) {
  FileReplication::InotifyEvent const event = sampleEvent();
  std::size_t bytes = 0;
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    Kel::String text = FileReplication::valueToStrep(event);
    bytes += text.size();
    benchmark::DoNotOptimize(text);
  }
  microBenchAllocationsReport(state, allocationsBefore);
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(BM_InotifyEventWrite);

void BM_InotifyEventParse(benchmark::State& state) {
  FileReplication::InotifyEvent const event = sampleEvent();
  Kel::String const text = FileReplication::valueToStrep(event);
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    FileReplication::InotifyEvent parsed = FileReplication::InotifyEvent::strepToValue(text);
    benchmark::DoNotOptimize(parsed);
  }
  microBenchAllocationsReport(state, allocationsBefore);
  if (FileReplication::InotifyEvent::strepToValue(text) != event) state.SkipWithError("the text did not read back");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_InotifyEventParse);

}  // namespace
