#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "tests/support/Thing.h"

std::uint64_t microBenchAllocations();
void microBenchAllocationsReport(benchmark::State& state, std::uint64_t before);

namespace {

class CountingReactor : public Thing::NotifieeConst {
 public:
  void onValue() override { ++calls; }
  std::uint64_t calls = 0;
};

// One change of the value, delivered to every bound reactor.
void BM_NotificationFanOut(benchmark::State& state) {
  auto const fanOut = static_cast<std::size_t>(state.range(0));
  Kel::Ptr<Thing> thing = Thing::ThingIs();
  std::vector<Kel::Ptr<CountingReactor>> reactors;
  for (std::size_t i = 0; i < fanOut; ++i) {
    reactors.emplace_back(new CountingReactor());
    reactors.back()->notifierIs(thing);
  }
  int value = 0;
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) thing->valueIs(++value);
  microBenchAllocationsReport(state, allocationsBefore);

  std::uint64_t delivered = 0;
  for (auto const& r : reactors) delivered += r->calls;
  if (delivered != state.iterations() * fanOut) state.SkipWithError("a reactor missed a notification");
  state.SetItemsProcessed(static_cast<std::int64_t>(delivered));
  state.counters["perReactor"] =
      benchmark::Counter(static_cast<double>(delivered), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_NotificationFanOut)->Arg(1)->Arg(10)->Arg(100);

// Setting the present value again: the mutator's early out.
void BM_NotificationUnchangedValue(benchmark::State& state) {
  Kel::Ptr<Thing> thing = Thing::ThingIs();
  Kel::Ptr<CountingReactor> reactor(new CountingReactor());
  reactor->notifierIs(thing);
  thing->valueIs(1);
  for (auto _ : state) {
    thing->valueIs(1);
    benchmark::ClobberMemory();
  }
  if (reactor->calls != 1) state.SkipWithError("an unchanged value notified");
}
BENCHMARK(BM_NotificationUnchangedValue);

// Binding a reactor to a notifier and unbinding it again.
void BM_NotificationBindUnbind(benchmark::State& state) {
  Kel::Ptr<Thing> thing = Thing::ThingIs();
  Kel::Ptr<CountingReactor> reactor(new CountingReactor());
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    reactor->notifierIs(thing);
    reactor->notifierIs(nullptr);
  }
  microBenchAllocationsReport(state, allocationsBefore);
}
BENCHMARK(BM_NotificationBindUnbind);

}  // namespace
