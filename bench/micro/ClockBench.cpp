#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "runtime/ActivityManager.h"
#include "runtime/Clock.h"

std::uint64_t microBenchAllocations();
void microBenchAllocationsReport(benchmark::State& state, std::uint64_t before);

namespace {

constexpr std::size_t armedTimers = 100'000;
// Precomputed random choices, cycled through; a power of two so the cycle
// costs a mask.
constexpr std::size_t choices = 1 << 16;

// A periodic timer: when it fires it arms itself again one period (give or
// take) later, as the machines' retry and scan timers do.
class Timer : public Kel::Clock::NotifieeConst {
 public:
  explicit Timer(std::vector<double> const* periods) : periods_(periods) {}
  void onTime() override {
    ++firedTotal;
    if (periods_) timeMinIs(notifier()->now() + (*periods_)[firedTotal & (choices - 1)]);
  }
  static inline std::uint64_t firedTotal = 0;

 private:
  std::vector<double> const* periods_;
};

// The process's clock on manual time, with armedTimers reactors armed at
// random times within the next armedTimers seconds. The timers leave the
// clock when the fixture goes, so benchmarks do not see each other's.
class ArmedClock {
 public:
  explicit ArmedClock(std::vector<double> const* periods = nullptr) : clock_(Kel::activityManager()->clock()) {
    clock_->manualTimeIs(true);
    clock_->nowIs(start);
    std::mt19937_64 random(42);
    std::uniform_real_distribution<double> ahead(1, armedTimers);
    std::uniform_int_distribution<std::size_t> pick(0, armedTimers - 1);
    timers_.reserve(armedTimers);
    for (std::size_t i = 0; i < armedTimers; ++i) {
      timers_.emplace_back(new Timer(periods));
      timers_.back()->notifierIs(clock_);
      timers_.back()->timeMinIs(start + ahead(random));
    }
    for (std::size_t i = 0; i < choices; ++i) {
      picks_.push_back(timers_[pick(random)].ptr());
      times_.push_back(start + ahead(random));
    }
  }
  ~ArmedClock() {
    timers_.clear();
    clock_->manualTimeIs(false);
  }
  Kel::Clock& clock() { return *clock_; }
  Timer* timer(std::size_t i) const { return timers_[i].ptr(); }
  Timer* pick(std::size_t i) const { return picks_[i & (choices - 1)]; }
  double time(std::size_t i) const { return times_[i & (choices - 1)]; }
  bool allArmed() const { return clock_->armedTimers() == armedTimers; }

  static constexpr double start = 1'000'000'000.0;

 private:
  Kel::Ptr<Kel::Clock> clock_;
  std::vector<Kel::Ptr<Timer>> timers_;
  std::vector<Timer*> picks_;
  std::vector<double> times_;
};

// Moving the pending time of an armed reactor, earlier or later.
void BM_ClockRearm(benchmark::State& state) {
  ArmedClock armed;
  std::size_t i = 0;
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    armed.pick(i)->timeMinIs(armed.time(i));
    ++i;
  }
  microBenchAllocationsReport(state, allocationsBefore);
  if (!armed.allArmed()) state.SkipWithError("a timer went missing");
  state.counters["armed"] = static_cast<double>(armed.clock().armedTimers());
}
BENCHMARK(BM_ClockRearm);

// The worst case of arming: the earliest timer moves past all the others,
// so it sinks from the top of the heap to its bottom, past reactors that lie
// anywhere in memory. Firing pays the same to take a timer off the top.
void BM_ClockRearmEarliest(benchmark::State& state) {
  ArmedClock armed;
  std::vector<Timer*> byTime;
  for (std::size_t i = 0; i < armedTimers; ++i) byTime.push_back(armed.timer(i));
  std::sort(byTime.begin(), byTime.end(), [](Timer* a, Timer* b) { return a->timeMin() < b->timeMin(); });
  double later = ArmedClock::start + armedTimers + 1;
  std::size_t i = 0;
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    byTime[i]->timeMinIs(later);
    later += 1;
    if (++i == armedTimers) i = 0;
  }
  microBenchAllocationsReport(state, allocationsBefore);
  if (!armed.allArmed()) state.SkipWithError("a timer went missing");
}
BENCHMARK(BM_ClockRearmEarliest);

// Disarming an armed reactor and arming it again; perOp is half an iteration.
void BM_ClockDisarmArm(benchmark::State& state) {
  ArmedClock armed;
  std::size_t i = 0;
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) {
    Timer* timer = armed.pick(i);
    timer->timeMinIs(Kel::Clock::never);
    timer->timeMinIs(armed.time(i));
    ++i;
  }
  microBenchAllocationsReport(state, allocationsBefore);
  if (!armed.allArmed()) state.SkipWithError("a timer went missing");
  state.counters["perOp"] = benchmark::Counter(static_cast<double>(state.iterations() * 2),
                                               benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ClockDisarmArm);

// Advancing manual time over a batch of deadlines; every timer fired arms
// itself again, so armedTimers stay armed. perFire includes that re-arming.
void BM_ClockFire(benchmark::State& state) {
  double const batchSeconds = static_cast<double>(state.range(0));
  std::vector<double> periods;
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> period(armedTimers / 2.0, armedTimers * 1.5);
  for (std::size_t i = 0; i < choices; ++i) periods.push_back(period(random));
  ArmedClock armed(&periods);
  std::uint64_t const firedBefore = Timer::firedTotal;
  std::uint64_t const allocationsBefore = microBenchAllocations();
  for (auto _ : state) armed.clock().advance(batchSeconds);
  microBenchAllocationsReport(state, allocationsBefore);
  if (!armed.allArmed()) state.SkipWithError("a timer went missing");
  auto const fired = static_cast<double>(Timer::firedTotal - firedBefore);
  state.SetItemsProcessed(static_cast<std::int64_t>(fired));
  state.counters["firedPerBatch"] = benchmark::Counter(fired, benchmark::Counter::kAvgIterations);
  state.counters["perFire"] = benchmark::Counter(fired, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ClockFire)->Arg(1000);

}  // namespace
