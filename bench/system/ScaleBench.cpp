// Scale: 10,000 files in 100 directories under a periodic and an inotify
// requester, with scripted children. What building, a periodic expiry over
// busy machines and tearing down cost, and whether teardown gives all
// memory back.
#include <algorithm>
#include <limits>
#include <stdexcept>

#include "FileReplication/ConfigSm.h"
#include "bench/system/Benches.h"
#include "bench/system/Machines.h"
#include "bench/system/ManualTime.h"
#include "bench/system/Measure.h"
#include "bench/system/ScriptedLauncher.h"
#include "bench/system/TempTree.h"
#include "entities/Config.h"
#include "entities/Status.h"
#include "runtime/ActivityManager.h"

namespace SystemBench {

namespace {

using FileReplication::RequesterConfig;

constexpr double period = 60;

// Delivers every child end reported so far, and what those ends start.
void settle() {
  auto& loop = Kel::activityManager()->loop();
  while (loop.deferred() > 0) loop.turn(0);
}

std::ptrdiff_t heapSince(std::size_t before) { return std::ptrdiff_t(heapInUse()) - std::ptrdiff_t(before); }

struct Modes {
  bool periodic;
  bool inotify;
  int count() const { return int(periodic) + int(inotify); }
};

Kel::Ptr<FileReplication::Config> configOf(Modes modes, std::vector<Kel::Name> const& names) {
  auto config = FileReplication::Config::ConfigIs();
  for (auto mode : {RequesterConfig::periodic, RequesterConfig::inotify}) {
    if (!(mode == RequesterConfig::periodic ? modes.periodic : modes.inotify)) continue;
    auto rc = config->newRequester(mode == RequesterConfig::periodic ? "scale-periodic" : "scale-inotify", mode);
    rc->periodIs(period);
    rc->replicationTimeoutIs(1e9);
    for (auto const& name : names) rc->newFile(name, "/srv/replica" + name.str(), "");
    rc->enabledIs(true);
  }
  return config;
}

struct Cycle {
  double buildNs = 0;
  // Heap bytes held by the configuration, and by the machines and status.
  std::ptrdiff_t configBytes = 0;
  std::ptrdiff_t machineBytes = 0;
  double expiryFoldNs = 0;
  double teardownNs = 0;
  std::ptrdiff_t residualBytes = 0;
};

// With expiry, the periodic requester's period expires twice with every
// machine busy. An expiry over idle machines, which starts a run for every
// file, is measured with the real agent and Replicate.
Cycle cycle(Modes modes, std::vector<Kel::Name> const& names, ScriptedLauncher& children, bool expiry) {
  Cycle c;
  auto clock = Kel::activityManager()->clock();
  children.runSecondsIs(0);
  std::size_t const start = heapInUse();
  auto config = configOf(modes, names);
  auto status = FileReplication::Status::StatusIs();
  c.configBytes = heapSince(start);

  std::size_t const launches = children.launches();
  std::int64_t t0 = monotonicNs();
  auto sm = FileReplication::configSmFactory(config, status);
  c.buildNs = double(monotonicNs() - t0);
  settle();
  c.machineBytes = heapSince(start) - c.configBytes;
  if (children.launches() - launches != names.size() * std::size_t(modes.count())) {
    throw std::runtime_error("not every machine started its first run");
  }
  auto machines = replicationSms(*sm);
  if (!allStandby(machines)) throw std::runtime_error("first runs did not end");

  if (expiry) {
    // Every machine busy: the second expiry only folds a further run into
    // each.
    children.runSecondsIs(Kel::Clock::never);
    clock->advance(period);
    settle();
    if (children.launches() - launches != names.size() * std::size_t(modes.count() + 1)) {
      throw std::runtime_error("an expiry did not start a run per file");
    }
    t0 = monotonicNs();
    clock->advance(period);
    c.expiryFoldNs = double(monotonicNs() - t0);
    for (auto const& rsm : machines) {
      if (rsm->state() != FileReplication::ReplicationSm::queued &&
          rsm->requesterConfig()->mode() == RequesterConfig::periodic) {
        throw std::runtime_error("a busy machine did not queue a further run");
      }
    }
  }
  // Its buffer would count as left behind.
  decltype(machines)().swap(machines);
  t0 = monotonicNs();
  sm = nullptr;
  settle();
  c.teardownNs = double(monotonicNs() - t0);
  status = nullptr;
  config = nullptr;
  c.residualBytes = heapSince(start);
  return c;
}

}  // namespace

void scaleBench(Options const& options, Report& report) {
  int const dirs = 100;
  int const perDir = options.quick ? 10 : 100;
  int const repeats = options.quick ? 2 : 3;
  std::size_t const files = std::size_t(dirs * perDir);
  TempTree tree("scale");
  auto const paths = tree.filesIs("src", dirs, perDir, true);
  ManualTime manual;
  ScriptedLauncher children(0);
  Kel::activityManager()->children().maxRunningIs(0);

  // Names are interned for the life of the process: they are made before
  // any baseline and their cost is counted apart.
  std::size_t const beforeNames = heapInUse();
  std::vector<Kel::Name> const names(paths.begin(), paths.end());
  double const nameBytes = double(heapSince(beforeNames)) / double(files);
  for (char const* n : {"scale-periodic", "scale-inotify", "scale-inotify-inotifyMonitor"}) {
    Kel::Name const interned(n);
  }

  std::string const b = "scale";
  // The first cycle of a kind raises containers to their high-water mark
  // and makes what lives on once; from the second on, teardown must give
  // back everything.
  std::ptrdiff_t firstResidual = 0;
  std::ptrdiff_t laterResidual = 0;
  auto residual = [&](int repeat, Cycle const& c) {
    std::ptrdiff_t& worst = repeat == 0 ? firstResidual : laterResidual;
    worst = std::max(worst, c.residualBytes);
  };

  for (Modes modes : {Modes{true, false}, Modes{false, true}}) {
    std::string const mode = modes.periodic ? "periodic" : "inotify";
    Cycle best;
    best.buildNs = std::numeric_limits<double>::infinity();
    for (int r = 0; r < repeats; ++r) {
      Cycle c = cycle(modes, names, children, false);
      residual(r, c);
      if (c.buildNs < best.buildNs) best = c;
    }
    double const perFileUs = best.buildNs / double(files) / 1e3;
    report.figureIs(b, "build, " + mode + ", per file", perFileUs, "us", Report::target, "< 20 us", perFileUs < 20);
    double const bytes = double(best.configBytes + best.machineBytes) / double(files) + nameBytes;
    report.figureIs(b, "memory, " + mode + ", per file", bytes / 1024, "KiB", Report::target, "< 2 KiB", bytes < 2048);
    report.figureIs(b, "  of which machines and status", double(best.machineBytes) / double(files), "B");
  }
  report.figureIs(b, "  of which the interned path name", nameBytes, "B");

  Cycle best;
  best.buildNs = std::numeric_limits<double>::infinity();
  double expiryFold = std::numeric_limits<double>::infinity(), teardown = expiryFold;
  for (int r = 0; r < repeats; ++r) {
    Cycle c = cycle({true, true}, names, children, true);
    residual(r, c);
    best.buildNs = std::min(best.buildNs, c.buildNs);
    expiryFold = std::min(expiryFold, c.expiryFoldNs);
    teardown = std::min(teardown, c.teardownNs);
  }
  std::string const both = std::to_string(files) + " files x 2 requesters";
  report.figureIs(b, "build, both requesters, per file", best.buildNs / double(2 * files) / 1e3, "us");
  report.figureIs(b, "periodic expiry, all busy (folded)", expiryFold / 1e6, "ms", Report::target, "< 10 ms",
                  expiryFold < 10e6);
  report.figureIs(b, "teardown, both requesters", teardown / 1e6, "ms");
  report.figureIs(b, "heap left after a first teardown (max)", double(firstResidual) / 1024, "KiB");
  report.figureIs(b, "heap left after later teardowns (max)", double(laterResidual) / 1024, "KiB", Report::check,
                  "< 4 KiB", laterResidual < 4096);
  report.noteIs(b, both + " in " + std::to_string(dirs) + " directories; scripted children; best of " +
                       std::to_string(repeats) +
                       " builds and of as many expiries over busy machines; per-file "
                       "memory includes the interned path name");
}

}  // namespace SystemBench
