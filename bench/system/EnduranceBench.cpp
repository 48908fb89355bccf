// Endurance: 100,000 replications with scripted children and 1,000 with the
// stand-in Replicate. Descriptors and memory after a warm-up must be what
// they are at the end.
#include <fcntl.h>
#include <unistd.h>

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

struct Usage {
  std::size_t descriptors;
  std::size_t resident;
  std::size_t heap;

  static Usage now() { return {openDescriptors(), residentAnonymousBytes(), heapInUse()}; }
};

// A periodic requester on the first files and, when inotifyFiles is not
// empty, an inotify requester on those.
struct Setup {
  Kel::Ptr<FileReplication::Config> config = FileReplication::Config::ConfigIs();
  Kel::Ptr<FileReplication::Status> status = FileReplication::Status::StatusIs();
  Kel::Ptr<FileReplication::ConfigSm> sm;
  std::vector<Kel::Ptr<FileReplication::ReplicationSm>> machines;
  Kel::Ptr<FileReplication::InotifyMonitor> monitor;

  Setup(std::vector<std::string> const& periodicFiles, std::vector<std::string> const& inotifyFiles) {
    for (auto mode : {RequesterConfig::periodic, RequesterConfig::inotify}) {
      auto const& files = mode == RequesterConfig::periodic ? periodicFiles : inotifyFiles;
      if (files.empty()) continue;
      auto rc =
          config->newRequester(mode == RequesterConfig::periodic ? "endurance-periodic" : "endurance-inotify", mode);
      rc->periodIs(period);
      rc->replicationTimeoutIs(1e9);
      for (auto const& p : files) rc->newFile(Kel::Name(p), "/srv/replica" + p, "");
      rc->enabledIs(true);
    }
    sm = FileReplication::configSmFactory(config, status);
    machines = replicationSms(*sm);
    monitor = inotifyMonitorOf(*sm, "endurance-inotify");
  }
  ~Setup() {
    machines.clear();
    sm = nullptr;
  }

  bool settled() const {
    if (Kel::activityManager()->loop().deferred() != 0 || Kel::activityManager()->children().running() != 0) {
      return false;
    }
    if (monitor && (monitor->inotifyEvents() != 0 || unreadInotifyBytes(*monitor) != 0)) return false;
    return allStandby(machines);
  }
  void settle() const {
    if (!Kel::activityManager()->loop().runUntil([this] { return settled(); }, 30)) {
      throw std::runtime_error("replications did not settle");
    }
  }
};

void rewrite(std::vector<std::string> const& files, int round) {
  char const byte = char('a' + round % 26);
  for (auto const& p : files) {
    int const fd = open(p.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0 || write(fd, &byte, 1) != 1) throw std::runtime_error("cannot write " + p);
    close(fd);
  }
}

void figures(Report& report, std::string const& what, std::size_t replications, Usage const& warm, Usage const& end) {
  std::string const b = "endurance";
  auto const fdGrowth = double(std::ptrdiff_t(end.descriptors) - std::ptrdiff_t(warm.descriptors));
  auto const rssGrowth = double(std::ptrdiff_t(end.resident) - std::ptrdiff_t(warm.resident)) / 1024;
  auto const heapGrowth = double(std::ptrdiff_t(end.heap) - std::ptrdiff_t(warm.heap)) / 1024;
  report.figureIs(b, what + ": replications", double(replications), "");
  report.figureIs(b, what + ": descriptor growth", fdGrowth, "", Report::check, "0", fdGrowth == 0);
  report.figureIs(b, what + ": anonymous resident growth", rssGrowth, "KiB", Report::target, "<= 0 (+/- 64 KiB)",
                  rssGrowth <= 64);
  report.figureIs(b, what + ": heap growth", heapGrowth, "KiB", Report::check, "<= 0 (+/- 4 KiB)", heapGrowth <= 4);
}

}  // namespace

void enduranceBench(Options const& options, Report& report) {
  std::size_t const scriptedTarget = options.quick ? 10000 : 100000;
  std::size_t const realTarget = options.quick ? 200 : 1000;
  TempTree tree("endurance");
  auto const periodicFiles = tree.filesIs("periodic", 10, 10, true);
  auto const inotifyFiles = tree.filesIs("inotify", 10, 10, true);
  auto clock = Kel::activityManager()->clock();
  Kel::activityManager()->children().maxRunningIs(0);
  ManualTime manual;

  {
    ScriptedLauncher children(0);
    Setup setup(periodicFiles, inotifyFiles);
    setup.settle();
    Usage warm{};
    bool warmed = false;
    for (int round = 0; children.launches() < scriptedTarget; ++round) {
      clock->advance(period);
      rewrite(inotifyFiles, round);
      setup.settle();
      if (!warmed && children.launches() >= scriptedTarget / 10) {
        warm = Usage::now();
        warmed = true;
      }
    }
    figures(report, "scripted", children.launches(), warm, Usage::now());
  }

  {
    // The stand-in, started for real; few files so that it is the number
    // of runs that grows, not the configuration.
    std::vector<std::string> const files(periodicFiles.begin(), periodicFiles.begin() + 10);
    Setup setup(files, {});
    setup.settle();
    std::size_t runs = files.size();
    Usage warm{};
    bool warmed = false;
    while (runs < realTarget) {
      clock->advance(period);
      runs += files.size();
      setup.settle();
      if (!warmed && runs >= realTarget / 10) {
        warm = Usage::now();
        warmed = true;
      }
    }
    figures(report, "real children", runs, warm, Usage::now());
  }
  report.noteIs("endurance",
                "scripted: a periodic requester (100 files, its period stepped on manual time) and an "
                "inotify requester (100 files rewritten each round); real: 10 files, stand-in Replicate; "
                "growth from the end of a warm-up (a tenth of the runs) to the end");
}

}  // namespace SystemBench
