// Many small files with the real agent, Replicate and rsync: the initial
// sync, locally and over ssh to an sshd of our own on 127.0.0.1, and a
// periodic expiry over files that did not change. Each against one rsync
// of the same files, timed the same way in the same run: this machine is
// too noisy for figures measured apart.
#include <chrono>
#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "agent/ControlClient.h"
#include "bench/system/Benches.h"
#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "bench/system/Replicas.h"
#include "bench/system/SshTarget.h"
#include "tests/support/TestProcess.h"

namespace SystemBench {

namespace {

// The requester's maxFilesPerRun line, when the run sets one.
std::string perRun(Options const& options) {
  if (options.maxFilesPerRun <= 0) return "";
  return "    maxFilesPerRun: " + std::to_string(options.maxFilesPerRun) + "\n";
}

std::int64_t nanoseconds(double seconds) { return std::int64_t(seconds * 1e9); }
double secondsSince(std::int64_t t0, std::int64_t t1) { return double(t1 - t0) / 1e9; }

int fileCount(Options const& options) { return options.files > 0 ? options.files : options.quick ? 300 : 10000; }

// A status reply for 10,000 files costs the agent a lot: it is asked once,
// at the end.
StatusCounts finalStatus(AgentProcess& agent) {
  awaitQuiet(agent.pid(), 0.05, monotonicNs() + nanoseconds(5));
  try {
    return statusCounts(Agent::request(agent.socket(), {{"command", "status"}}, 60));
  } catch (std::exception const&) {
    return {};
  }
}

// A failed run leaves its file failed for retryInterval (10 s by default)
// before it is tried again: a failure whose copy arrived anyway still shows
// at the end, and one whose copy did not holds the wait up that long and
// shows only in the lines Replicate left in the agent's log.
// The agent's time as a ratio to the mean of a floor run before and one
// after it, against the target, with the times it comes from.
struct Figures {
  std::string what;
  std::string agentRow;
  std::string floorRow;
};
void ratioRows(Report& report, std::string const& bench, Figures const& names, bool converged, double agentSeconds,
               Timed const& before, Timed const& after, double cpuSeconds) {
  double const floorSeconds = (before.arrivedSeconds + after.arrivedSeconds) / 2;
  double const ratio = agentSeconds / floorSeconds;
  report.figureIs(bench, names.what + ", agent / floor" + (converged ? "" : " (gave up: more)"), ratio, "x",
                  Report::target, "<= 1.5 x floor", converged && ratio <= 1.5);
  report.figureIs(bench, "  agent: " + names.agentRow, agentSeconds, "s");
  report.figureIs(bench, "  floor: " + names.floorRow, floorSeconds, "s");
  report.figureIs(bench, "  floor: start to exit", (before.exitedSeconds + after.exitedSeconds) / 2, "s");
  report.figureIs(bench, "  agent CPU with its children", cpuSeconds, "s");
}

void correctness(Report& report, std::string const& bench, std::size_t files, std::size_t wrong,
                 StatusCounts const& status, std::string const& agentLog) {
  report.figureIs(bench, "destinations wrong or missing", double(wrong), "", Report::check, "0", wrong == 0);
  double const unsynchronized = double(files - std::min(files, status.synchronized));
  report.figureIs(bench, "files not synchronized at the end", unsynchronized, "", Report::check, "0",
                  unsynchronized == 0);
  report.figureIs(bench, "  of which failed", double(status.failed), "");
  std::size_t complaints = agentLog.rfind("Replicate: ", 0) == 0;
  for (std::size_t at = 0; (at = agentLog.find("\nReplicate: ", at)) != std::string::npos; ++at) ++complaints;
  report.figureIs(bench, "Replicate's failure lines in the agent's log", double(complaints), "");
}

// Where the copies go: this machine, or an ssh host.
struct Target {
  std::string host;
  std::vector<std::string> env;
};

void initialSync(Options const& options, Report& report, std::string const& bench, TempTree& tree,
                 Target const& target) {
  double const limit = convergenceLimit(options);
  SourceFiles files(tree, fileCount(options));
  std::string const prefix = target.host.empty() ? "" : target.host + ":";
  auto floor = [&](std::string const& under) {
    Arrivals arrivals(files.destinationsIs(under));
    return timedCopy({"rsync", "-a", "--files-from=" + files.listFile, files.root + "/", prefix + tree / under + "/"},
                     target.env, arrivals, monotonicNs() + nanoseconds(limit), tree / (under + ".log"));
  };
  Timed const before = floor("floor-before");

  auto const destinations = files.destinationsIs("dst");
  Arrivals arrivals(destinations);
  std::string settings = "    mode: inotify\n";
  if (!target.host.empty()) settings += "    remoteHosts: [" + target.host + "]\n";
  writeFile(tree / "filerep.yaml", agentConfig(settings + perRun(options), files.paths, destinations));
  std::int64_t const t0 = monotonicNs();
  AgentProcess agent(options.filerepProgram, tree / "filerep.yaml", tree / "filerep.sock", tree / "agent.log",
                     target.env);
  std::int64_t const last = arrivals.awaitAll(t0 + nanoseconds(limit), [&] { return !agent.running(); });
  bool const converged = last >= 0;
  double const agentSeconds = secondsSince(t0, converged ? last : monotonicNs());
  if (!agent.running()) throw std::runtime_error("the agent ended:\n" + agent.logTail());
  std::size_t const wrong = wrongDestinations(files.paths, destinations);
  StatusCounts const status = finalStatus(agent);
  ProcessTimes const cpu = processTimes(agent.pid());
  agent.stop();
  std::string const agentLog = agent.log();
  Timed const after = floor("floor-after");

  ratioRows(report, bench, {"initial sync", "start to all arrived", "rsync --files-from, start to all arrived"},
            converged, agentSeconds, before, after, double(cpu.totalNs()) / 1e9);
  correctness(report, bench, files.paths.size(), wrong, status, agentLog);
  std::string text = std::to_string(files.paths.size()) + " files in " + std::to_string(files.dirs) +
                     " directories, an inotify requester with default settings";
  if (!target.host.empty()) text += ", remoteHosts: [" + target.host + "]";
  if (!converged) {
    text += "; gave up after " + std::to_string(int(limit)) + " s with " + std::to_string(arrivals.arrived()) +
            " files arrived";
  }
  report.noteIs(bench, text +
                           "; floor: the mean of one rsync just before the agent and one just after; arrival: "
                           "renamed into place, as inotify on the destination directories sees it");
}

}  // namespace

void syncBench(Options const& options, Report& report) {
  TempTree tree("sync");
  initialSync(options, report, "sync", tree, {"", realEnvironment(options)});
}

void sshSyncBench(Options const& options, Report& report) {
  auto const ssh = sshTarget(options, report, "sshsync");
  if (!ssh) return;
  TempTree tree("sshsync");
  initialSync(options, report, "sshsync", tree, {"127.0.0.1", ssh->environment()});
}

void expiryBench(Options const& options, Report& report) {
  std::string const b = "expiry";
  double const limit = convergenceLimit(options);
  TempTree tree("expiry");
  SourceFiles files(tree, fileCount(options));
  auto const env = realEnvironment(options);

  // Over copies already there, as the agent's runs go; --ignore-times
  // rewrites every file, as Replicate does.
  auto const floorDestinations = files.destinationsIs("floor");
  Arrivals floorArrivals(floorDestinations);
  std::vector<std::string> const floorArgv = {
      "rsync", "-a", "--ignore-times", "--files-from=" + files.listFile, files.root + "/", tree / "floor/"};
  auto floor = [&] {
    floorArrivals.reset();
    return timedCopy(floorArgv, env, floorArrivals, monotonicNs() + nanoseconds(limit), tree / "floor.log");
  };
  floor();
  Timed const before = floor();

  auto const destinations = files.destinationsIs("dst");
  Arrivals arrivals(destinations);
  auto config = [&](int period) {
    return agentConfig("    mode: periodic\n    period: " + std::to_string(period) + "\n" + perRun(options),
                       files.paths, destinations);
  };
  writeFile(tree / "filerep.yaml", config(86400));
  std::int64_t const t0 = monotonicNs();
  AgentProcess agent(options.filerepProgram, tree / "filerep.yaml", tree / "filerep.sock", tree / "agent.log", env);
  auto ended = [&] { return !agent.running(); };
  std::int64_t const synced = arrivals.awaitAll(t0 + nanoseconds(limit), ended);
  if (synced < 0) {
    if (ended()) throw std::runtime_error("the agent ended:\n" + agent.logTail());
    report.noteIs(b, "not measured: the initial sync did not end within " + std::to_string(int(limit)) + " s (" +
                         std::to_string(arrivals.arrived()) + " of " + std::to_string(arrivals.size()) +
                         " files arrived); raise --limit");
    return;
  }
  double const initialSeconds = secondsSince(t0, synced);
  awaitQuiet(agent.pid(), 0.1, monotonicNs() + nanoseconds(limit));

  // The period goes short only now, so that the expiry finds every machine
  // idle however long the initial sync took; twice what the initial sync
  // took (the same work), so that the next expiry does not fall inside the
  // one measured.
  int const period = std::max(options.quick ? 1 : 2, int(std::ceil(2 * initialSeconds)));
  arrivals.reset();
  writeFile(tree / "filerep.yaml.new", config(period));
  std::filesystem::rename(tree / "filerep.yaml.new", tree / "filerep.yaml");
  std::int64_t const rewritten = monotonicNs();
  // The first child the agent starts is the expiry; looking closely only
  // near the time keeps the looking cheap.
  std::int64_t expiry = -1;
  while (expiry < 0 && monotonicNs() < rewritten + nanoseconds(period + 30) && !ended()) {
    if (!childrenOf(agent.pid()).empty()) {
      expiry = monotonicNs();
    } else {
      bool const near = monotonicNs() > rewritten + nanoseconds(0.9 * period);
      std::this_thread::sleep_for(std::chrono::milliseconds(near ? 1 : 50));
    }
  }
  if (expiry < 0) throw std::runtime_error("no run started after the period expired:\n" + agent.logTail());
  ProcessTimes const cpuBefore = processTimes(agent.pid());
  std::int64_t const last = arrivals.awaitAll(expiry + nanoseconds(limit), ended);
  bool const converged = last >= 0;
  double const agentSeconds = secondsSince(expiry, converged ? last : monotonicNs());
  if (ended()) throw std::runtime_error("the agent ended:\n" + agent.logTail());
  std::size_t const wrong = wrongDestinations(files.paths, destinations);
  StatusCounts const status = finalStatus(agent);
  ProcessTimes const cpuAfter = processTimes(agent.pid());
  agent.stop();
  std::string const agentLog = agent.log();
  Timed const after = floor();

  ratioRows(report, b, {"periodic expiry", "expiry to all rewritten", "rsync --ignore-times, start to all rewritten"},
            converged, agentSeconds, before, after, double(cpuAfter.totalNs() - cpuBefore.totalNs()) / 1e9);
  report.figureIs(b, "  initial sync before it", initialSeconds, "s");
  report.figureIs(b, "  new period written to first run", secondsSince(rewritten, expiry), "s");
  correctness(report, b, files.paths.size(), wrong, status, agentLog);
  std::string text = std::to_string(files.paths.size()) + " unchanged files in " + std::to_string(files.dirs) +
                     " directories, a periodic requester whose period is made " + std::to_string(period) +
                     " s once its initial sync is done; the expiry starts with the agent's first child";
  if (!converged) {
    text += "; gave up after " + std::to_string(int(limit)) + " s with " + std::to_string(arrivals.arrived()) +
            " files rewritten";
  }
  report.noteIs(b, text + "; floor: the mean of one rsync just before the agent and one just after");
}

}  // namespace SystemBench
