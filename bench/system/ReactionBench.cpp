// Reaction latency: from the writer's close() to the start of the Replicate
// that copies the file, against the floor of starting that same program
// directly.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "FileReplication/ConfigSm.h"
#include "bench/system/Benches.h"
#include "bench/system/Machines.h"
#include "bench/system/Measure.h"
#include "bench/system/StandinLog.h"
#include "bench/system/TempTree.h"
#include "entities/Config.h"
#include "entities/Status.h"
#include "runtime/ActivityManager.h"
#include "runtime/ChildLauncher.h"
#include "runtime/ChildManager.h"

namespace SystemBench {

namespace {

using FileReplication::ReplicationSm;

// Counts the runs of one machine that ended: its returns to standby.
class StandbyCounter : public ReplicationSm::NotifieeConst {
 public:
  explicit StandbyCounter(Kel::Ptr<ReplicationSm> const& rsm) { notifierIs(rsm); }
  ~StandbyCounter() override { notifierIs(nullptr); }
  void onState() override {
    if (notifier()->state() == ReplicationSm::standby) ++ended_;
  }
  int ended() const { return ended_; }

 private:
  int ended_ = 0;
};

// Notes when the manager hands a child to the spawning launcher, which
// splits the reaction into our part and the spawn's.
class LaunchClock : public Kel::ChildLauncher {
 public:
  explicit LaunchClock(Kel::ChildManager& manager) : manager_(manager), spawner_(manager.launcher()) {
    manager_.launcherIs(this);
  }
  ~LaunchClock() override { manager_.launcherIs(&spawner_); }
  LaunchClock(LaunchClock const&) = delete;
  LaunchClock& operator=(LaunchClock const&) = delete;

  std::int64_t lastLaunchNs() const { return lastLaunchNs_; }

  pid_t launch(Kel::Ptr<Kel::ChildSiginfo> const& child, Kel::ChildSetup const& setup) override {
    lastLaunchNs_ = monotonicNs();
    return spawner_.launch(child, setup);
  }
  void kill(Kel::ChildSiginfo const& child, int signal) override { spawner_.kill(child, signal); }
  void childDel(Kel::ChildSiginfo const& child) override { spawner_.childDel(child); }

 private:
  Kel::ChildManager& manager_;
  Kel::ChildLauncher& spawner_;
  std::int64_t lastLaunchNs_ = 0;
};

double floorSample(std::string const& program, std::vector<std::string> args, StandinLog& log) {
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid;
  std::int64_t const t0 = monotonicNs();
  if (posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
    throw std::runtime_error("posix_spawn " + program);
  }
  int status;
  waitpid(pid, &status, 0);
  StandinRecord record;
  if (!log.next(record, 5)) throw std::runtime_error("the stand-in started directly left no record");
  return double(record.startNs - t0) / 1e3;
}

}  // namespace

void reactionBench(Options const& options, Report& report) {
  int const warmUp = options.quick ? 2 : 10;
  int const samples = options.quick ? 20 : 200;
  TempTree tree("reaction");
  std::string const file = tree.filesIs("src", 1, 1, true).front();
  std::string const dst = tree / "dst.dat";
  StandinLog log(tree / "standin.fifo");

  auto config = FileReplication::Config::ConfigIs();
  auto rc = config->newRequester("reaction", FileReplication::RequesterConfig::inotify);
  rc->newFile(Kel::Name(file), dst, "");
  rc->enabledIs(true);
  auto status = FileReplication::Status::StatusIs();
  auto& loop = Kel::activityManager()->loop();
  LaunchClock launches(Kel::activityManager()->children());
  auto sm = FileReplication::configSmFactory(config, status);
  auto const rsm = replicationSms(*sm).at(0);
  auto const monitor = inotifyMonitorOf(*sm, "reaction");
  StandbyCounter runs(rsm);
  auto settled = [&](int ended) {
    return runs.ended() >= ended && rsm->state() == ReplicationSm::standby && monitor->inotifyEvents() == 0;
  };
  if (!loop.runUntil([&] { return settled(1); }, 10)) throw std::runtime_error("the first run did not end");
  log.drain();

  std::vector<std::string> const args = {"Replicate", "--cmd", "rsyncFile",      "--source", file,
                                         "--target",  dst,     "--rsyncOptions", ""};
  std::vector<double> ours, floor, toLaunch, launchToStart;
  int extraRuns = 0;
  for (int i = 0; i < warmUp + samples; ++i) {
    double const floorUs = floorSample(options.standinDir + "/Replicate", args, log);

    int const ended = runs.ended();
    int const fd = open(file.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    char const byte = char('a' + i % 26);
    if (fd < 0 || write(fd, &byte, 1) != 1) throw std::runtime_error("cannot write " + file);
    std::int64_t const t0 = monotonicNs();
    close(fd);
    if (!loop.runUntil([&] { return settled(ended + 1); }, 10)) throw std::runtime_error("no run after a write");
    auto const records = log.drain();
    if (records.empty()) throw std::runtime_error("the run left no record");
    extraRuns += int(records.size()) - 1;
    if (i < warmUp) continue;
    floor.push_back(floorUs);
    ours.push_back(double(records.front().startNs - t0) / 1e3);
    // The launch of the last run, which is the first one when there was one.
    if (records.size() == 1) {
      toLaunch.push_back(double(launches.lastLaunchNs() - t0) / 1e3);
      launchToStart.push_back(double(records.front().startNs - launches.lastLaunchNs()) / 1e3);
    }
  }
  sm = nullptr;

  double const floorP99 = percentile(floor, 99), oursP99 = percentile(ours, 99);
  std::string const b = "reaction";
  report.figureIs(b, "floor (posix_spawn) p50", percentile(floor, 50) / 1e3, "ms");
  report.figureIs(b, "floor (posix_spawn) p99", floorP99 / 1e3, "ms");
  report.figureIs(b, "write to Replicate start p50", percentile(ours, 50) / 1e3, "ms");
  report.figureIs(b, "write to Replicate start p99", oursP99 / 1e3, "ms");
  report.figureIs(b, "write to Replicate start max", percentile(ours, 100) / 1e3, "ms");
  double const overP99 = (oursP99 - floorP99) / 1e3;
  report.figureIs(b, "p99 above the floor's p99", overP99, "ms", Report::target, "< 0.5 ms", overP99 < 0.5);
  report.figureIs(b, "  of which write to launch p50", percentile(toLaunch, 50) / 1e3, "ms");
  report.figureIs(b, "  of which write to launch p99", percentile(toLaunch, 99) / 1e3, "ms");
  report.figureIs(b, "  of which launch to start p50", percentile(launchToStart, 50) / 1e3, "ms");
  report.figureIs(b, "  of which launch to start p99", percentile(launchToStart, 99) / 1e3, "ms");
  report.figureIs(b, "p50 above the floor's p50", (percentile(ours, 50) - percentile(floor, 50)) / 1e3, "ms");
  report.noteIs(b, std::to_string(samples) +
                       " writes, each after the previous run ended, alternating with as many "
                       "direct starts; " +
                       std::to_string(extraRuns) + " writes made a second run");
}

}  // namespace SystemBench
