#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "runtime/Collection.h"
#include "runtime/Name.h"
#include "runtime/String.h"

std::uint64_t microBenchAllocations();
void microBenchAllocationsReport(benchmark::State& state, std::uint64_t before);

namespace {

constexpr std::size_t entries = 100'000;

template <class K>
K keyOf(std::size_t i) {
  return K("/srv/data/dir" + std::to_string(i % 97) + "/file" + std::to_string(i) + ".txt");
}

// A collection of `entries` entries, keyed as the entities key theirs, plus
// as many keys not in it, made before timing starts.
template <class K>
struct Filled {
  Filled() {
    for (std::size_t i = 0; i < entries; ++i) {
      present.push_back(keyOf<K>(i));
      absent.push_back(keyOf<K>(entries + i));
      collection.insert(present.back(), i);
    }
    std::mt19937_64 random(3);
    std::shuffle(present.begin(), present.end(), random);
    // Copied in their new order, so that the keys looked up lie in memory in
    // the order of the lookups: the figure is the collection's, not that of
    // fetching each query's text from a random place.
    present = std::vector<K>(present.begin(), present.end());
  }
  Kel::Collection<K, std::uint64_t> collection;
  std::vector<K> present;
  std::vector<K> absent;
};

template <class K>
void BM_CollectionLookup(benchmark::State& state) {
  Filled<K> filled;
  std::size_t i = 0;
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    benchmark::DoNotOptimize(filled.collection.find(filled.present[i]));
    if (++i == entries) i = 0;
  }
  microBenchAllocationsReport(state, allocationsBefore);
}
BENCHMARK_TEMPLATE(BM_CollectionLookup, Kel::Name);
BENCHMARK_TEMPLATE(BM_CollectionLookup, Kel::String);

// Inserting a new key and erasing an existing one, so the size stays at
// `entries`; perOp is half an iteration. The keys go round between the two
// sets: each erased key is inserted again later.
template <class K>
void BM_CollectionInsertErase(benchmark::State& state) {
  Filled<K> filled;
  std::size_t i = 0;
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    filled.collection.insert(filled.absent[i], i);
    filled.collection.erase(filled.present[i]);
    std::swap(filled.absent[i], filled.present[i]);
    if (++i == entries) i = 0;
  }
  microBenchAllocationsReport(state, allocationsBefore);
  if (filled.collection.size() != entries) state.SkipWithError("the collection lost or gained entries");
  state.counters["perOp"] = benchmark::Counter(static_cast<double>(state.iterations() * 2),
                                               benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK_TEMPLATE(BM_CollectionInsertErase, Kel::Name);
BENCHMARK_TEMPLATE(BM_CollectionInsertErase, Kel::String);

}  // namespace
