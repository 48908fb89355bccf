#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "runtime/Name.h"

std::uint64_t microBenchAllocations();
void microBenchAllocationsReport(benchmark::State& state, std::uint64_t before);

namespace {

// Counts in decimal inside a fixed buffer, so that each iteration has a text
// never interned before at the cost of a few byte increments.
class FreshText {
 public:
  explicit FreshText(std::string prefix) : text_(std::move(prefix)) { text_.append(10, '0'); }
  std::string_view next() {
    for (std::size_t i = text_.size(); i-- > 0;) {
      if (text_[i] != '9') {
        ++text_[i];
        break;
      }
      text_[i] = '0';
    }
    return text_;
  }

 private:
  std::string text_;
};

// Making a Name from the text of an existing one, among range(0) names.
void BM_NameLookupExisting(benchmark::State& state) {
  std::vector<std::string> texts;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    texts.push_back("/srv/data/file" + std::to_string(i * 7919 % state.range(0)) + ".txt");
    Kel::Name const interned(texts.back());
  }
  std::size_t i = 0;
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    Kel::Name name(texts[i]);
    benchmark::DoNotOptimize(name);
    if (++i == texts.size()) i = 0;
  }
  microBenchAllocationsReport(state, allocationsBefore);
}
BENCHMARK(BM_NameLookupExisting)->Arg(100)->Arg(10'000);

// Interning a text seen for the first time. The table keeps every name for
// the life of the process and grows by one per iteration, so the count is
// fixed: the figure is for a table of a few hundred thousand names, not for
// however many a long run would leave behind.
void BM_NameInternNew(benchmark::State& state) {
  // A prefix of its own per run, so that no run finds a previous one's texts.
  static int run = 0;
  FreshText fresh(std::to_string(run++) + "/");
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    Kel::Name name(fresh.next());
    benchmark::DoNotOptimize(name);
  }
  microBenchAllocationsReport(state, allocationsBefore);
}
BENCHMARK(BM_NameInternNew)->Iterations(200'000);

// What interning buys: comparing and hashing names cost a pointer.
void BM_NameCompareAndHash(benchmark::State& state) {
  Kel::Name const a("/srv/data/file1.txt"), b("/srv/data/file2.txt");
  for (auto _ : state) {
    benchmark::DoNotOptimize(a == b);
    benchmark::DoNotOptimize(std::hash<Kel::Name>()(a));
  }
}
BENCHMARK(BM_NameCompareAndHash);

}  // namespace
