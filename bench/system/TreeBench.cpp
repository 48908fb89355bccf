// A directory tree of many small files as one entry of one requester, with
// the real agent, Replicate and rsync: the initial sync, a new file in a new
// directory, the agent's memory per file, and the periodic rescan. Each
// against rsync, or the agent's own edit of a single file, measured in the
// same run: this machine is too noisy for figures measured apart.
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "agent/ControlClient.h"
#include "bench/system/Benches.h"
#include "bench/system/Edits.h"
#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "bench/system/Replicas.h"

namespace SystemBench {

namespace {

constexpr std::int64_t sampleGuardNs = 10'000'000'000;
constexpr int filesPerDir = 100;

std::int64_t nanoseconds(double seconds) { return std::int64_t(seconds * 1e9); }
double secondsSince(std::int64_t t0, std::int64_t t1) { return double(t1 - t0) / 1e9; }

// The content of dir/file under parent, where dir does not exist yet: the
// copy has to make it, and a watch on a directory made beforehand would
// spare it that.
class NewDirContent {
 public:
  NewDirContent(std::string const& parent, std::string const& dir, std::string const& file)
      : dirPath_(parent + "/" + dir), path_(dirPath_ + "/" + file) {
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0 || inotify_add_watch(fd_, parent.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR) < 0) {
      int const error = errno;
      if (fd_ >= 0) close(fd_);
      throw std::runtime_error("inotify on " + parent + ": " + std::strerror(error));
    }
  }
  ~NewDirContent() { close(fd_); }
  NewDirContent(NewDirContent const&) = delete;
  NewDirContent& operator=(NewDirContent const&) = delete;

  // When path came to hold text, or -1 at deadlineNs.
  std::int64_t await(std::string const& text, std::int64_t deadlineNs) {
    alignas(inotify_event) char buffer[4096];
    for (;;) {
      // The directory's watch may come after the file was renamed into it.
      if (dirWatch_ < 0) dirWatch_ = inotify_add_watch(fd_, dirPath_.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO);
      if (dirWatch_ >= 0 && readText(path_) == text) return monotonicNs();
      std::int64_t const wait = deadlineNs - monotonicNs();
      if (wait <= 0) return -1;
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, int(wait / 1000000 + 1)) <= 0) continue;
      while (read(fd_, buffer, sizeof buffer) > 0) {
      }
    }
  }

 private:
  std::string dirPath_;
  std::string path_;
  int fd_ = -1;
  int dirWatch_ = -1;
};

// Makes dir/file holding text and times it as timedEdit does: from the
// writer's close() to text at the destination.
double newFileSample(AgentProcess& agent, std::string const& sourceRoot, std::string const& destinationRoot,
                     std::string const& dir, std::string const& text) {
  awaitQuiet(agent.pid(), 0.02, monotonicNs() + sampleGuardNs);
  NewDirContent destination(destinationRoot, dir, "file.dat");
  std::string const source = sourceRoot + "/" + dir;
  if (mkdir(source.c_str(), 0755) != 0) throw std::runtime_error("mkdir " + source + ": " + std::strerror(errno));
  writeFile(source + "/file.dat", text);
  std::int64_t const t0 = monotonicNs();
  std::int64_t const t1 = destination.await(text, t0 + sampleGuardNs);
  if (t1 < 0) throw std::runtime_error("a new file did not reach the destination:\n" + agent.logTail());
  return double(t1 - t0) / 1e6;
}

// The agent's own counts, from its metrics: a status reply lists every file,
// which for a large tree costs the agent seconds.
struct MetricsCounts {
  StatusCounts files;
  std::size_t runsStarted = 0;
};
MetricsCounts metricsCounts(AgentProcess& agent) {
  MetricsCounts counts;
  std::string text;
  try {
    text = Agent::request(agent.socket(), {{"command", "metrics"}}, 60).at("text").get<std::string>();
  } catch (std::exception const&) {
    return counts;
  }
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    auto const n = std::size_t(std::atoll(line.substr(line.rfind(' ') + 1).c_str()));
    if (line.starts_with("filerep_runs_started_total{")) counts.runsStarted += n;
    if (!line.starts_with("filerep_files{")) continue;
    counts.files.files += n;
    if (line.find("status=\"synchronized\"") != std::string::npos) counts.files.synchronized += n;
    if (line.find("status=\"failed\"") != std::string::npos) counts.files.failed += n;
  }
  return counts;
}

double timedRun(std::vector<std::string> const& argv, std::vector<std::string> const& env, std::string const& log) {
  std::int64_t const t0 = monotonicNs();
  int const status = run(argv, env, log);
  if (status != 0) throw std::runtime_error(argv[0] + " exited with " + std::to_string(status) + ":\n" + readText(log));
  return secondsSince(t0, monotonicNs());
}

// The agent's traces of its rescans, in order: milliseconds on the clock
// and on the CPU.
struct Rescan {
  double ms;
  double cpuMs;
};
std::vector<Rescan> rescansIn(std::string const& log) {
  std::vector<Rescan> rescans;
  std::istringstream lines(log);
  std::string const mark = " AgentTree 2 rescan of ";
  for (std::string line; std::getline(lines, line);) {
    auto const at = line.find(mark);
    if (at == std::string::npos) continue;
    // "... N files, W ms, C ms CPU"
    std::istringstream rest(line.substr(line.find(": ", at) + 2));
    std::string files, word;
    Rescan r{};
    if (rest >> files >> word >> r.ms >> word >> r.cpuMs) rescans.push_back(r);
  }
  return rescans;
}

}  // namespace

void treeBench(Options const& options, Report& report) {
  std::string const b = "tree";
  int const files = options.treeFiles > 0 ? options.treeFiles : options.quick ? 2000 : 100000;
  int const dirs = std::max(1, files / filesPerDir);
  int const perDir = std::max(1, files / dirs);
  int const warmUp = 3;
  int const samples = options.samples > 0 ? options.samples : options.quick ? 10 : 100;
  int const passes = options.quick ? 2 : 3;
  // rsync alone takes tens of seconds over the full tree here.
  double const limit = options.limitSeconds > 0 ? options.limitSeconds : options.quick ? 60 : 600;
  TempTree tree("tree");
  auto const env = realEnvironment(options);
  std::string const sourceRoot = tree / "tree-src";
  std::string const destinationRoot = tree / "tree-dst";
  auto const sources = tree.filesIs("tree-src", dirs, perDir, false);
  for (auto const& p : sources) writeFile(p, p.substr(sourceRoot.size() + 1) + "\n");
  std::string const config = agentConfig("    mode: inotify\n", {sourceRoot + "/"}, {destinationRoot + "/"});

  // What an agent of the same requester over an empty tree holds.
  std::filesystem::create_directories(tree / "empty-src");
  writeFile(tree / "empty.yaml", agentConfig("    mode: inotify\n", {tree / "empty-src/"}, {tree / "empty-dst/"}));
  std::size_t baseResident = 0;
  {
    AgentProcess empty(options.filerepProgram, tree / "empty.yaml", tree / "empty.sock", tree / "empty.log", env);
    awaitQuiet(empty.pid(), 0.2, monotonicNs() + nanoseconds(30));
    baseResident = processResidentBytes(empty.pid());
  }

  auto floor = [&](std::string const& under) {
    Arrivals arrivals(tree.filesIs(under, dirs, perDir, false));
    return timedCopy({"rsync", "-a", sourceRoot + "/", tree / under + "/"}, env, arrivals,
                     monotonicNs() + nanoseconds(limit), tree / (under + ".log"));
  };
  Timed const before = floor("floor-before");

  auto const destinations = tree.filesIs("tree-dst", dirs, perDir, false);
  std::optional<Arrivals> arrivals(std::in_place, destinations);
  writeFile(tree / "filerep.yaml", config);
  std::int64_t const t0 = monotonicNs();
  AgentProcess agent(options.filerepProgram, tree / "filerep.yaml", tree / "filerep.sock", tree / "agent.log", env);
  auto ended = [&] { return !agent.running(); };
  std::int64_t const last = arrivals->awaitAll(t0 + nanoseconds(limit), ended);
  bool const converged = last >= 0;
  double const agentSeconds = secondsSince(t0, converged ? last : monotonicNs());
  std::size_t const arrived = arrivals->arrived();
  arrivals.reset();
  if (ended()) throw std::runtime_error("the agent ended:\n" + agent.logTail());
  awaitQuiet(agent.pid(), 0.2, monotonicNs() + nanoseconds(limit));
  std::size_t const resident = processResidentBytes(agent.pid());
  ProcessTimes const cpu = processTimes(agent.pid());
  std::size_t const wrong = wrongDestinations(sources, destinations);

  // New files in new directories of the watched tree, alternating with
  // edits of one file under an agent of its own.
  EditedFile edited(options, tree, "edit", "", tree / "dst/edit/file.dat", {tree / "dst/edit/file.dat"}, env);
  if (edited.awaitFirstRun(monotonicNs() + sampleGuardNs) < 0) {
    throw std::runtime_error("the first run did not copy the file:\n" + edited.agent.logTail());
  }
  std::vector<double> newFiles;
  std::size_t const treeRunsBefore = metricsCounts(agent).runsStarted;
  std::size_t const editRunsBefore = metricsCounts(edited.agent).runsStarted;
  auto newFileSampleAt = [&](int i) {
    std::string const dir = "new-" + std::to_string(i);
    double const ms = newFileSample(agent, sourceRoot, destinationRoot, dir, dir + "\n");
    if (i >= warmUp) newFiles.push_back(ms);
  };
  auto editSample = [&](int i) {
    double const ms = edited.edit(i, sampleGuardNs);
    if (ms < 0) throw std::runtime_error("an edit did not reach the destination:\n" + edited.agent.logTail());
    if (i >= warmUp) edited.ms.push_back(ms);
  };
  for (int i = 0; i < warmUp + samples; ++i) {
    if (i % 2 == 0) {
      newFileSampleAt(i);
      editSample(i);
    } else {
      editSample(i);
      newFileSampleAt(i);
    }
  }
  awaitQuiet(edited.agent.pid(), 0.1, monotonicNs() + nanoseconds(limit));
  double const editRuns = double(metricsCounts(edited.agent).runsStarted - editRunsBefore);
  edited.agent.stop();
  awaitQuiet(agent.pid(), 0.1, monotonicNs() + nanoseconds(limit));
  auto const endCounts = metricsCounts(agent);
  StatusCounts const status = endCounts.files;
  double const newFileRuns = double(endCounts.runsStarted - treeRunsBefore);
  agent.stop();
  Timed const after = floor("floor-after");

  // The periodic rescan, from the agent's trace of each pass, against a dry
  // run of rsync over the same tree, already copied.
  std::vector<std::string> const dryRun = {"rsync", "-a", "--dry-run", sourceRoot + "/", destinationRoot + "/"};
  double const dryBefore = timedRun(dryRun, env, tree / "dry-run.log");
  auto const traced = realEnvironment(options, {"KEL_TRACE=AgentTree/2"});
  auto periodicConfig = [&](int period) {
    return agentConfig("    mode: periodic\n    period: " + std::to_string(period) + "\n", {sourceRoot + "/"},
                       {destinationRoot + "/"});
  };
  writeFile(tree / "periodic.yaml", periodicConfig(86400));
  std::vector<Rescan> passTimes;
  int period = 0;
  {
    Arrivals rewritten(destinations);
    std::int64_t const p0 = monotonicNs();
    AgentProcess periodic(options.filerepProgram, tree / "periodic.yaml", tree / "periodic.sock", tree / "periodic.log",
                          traced);
    if (rewritten.awaitAll(p0 + nanoseconds(limit), [&] { return !periodic.running(); }) < 0) {
      throw std::runtime_error("the periodic agent's first runs did not end:\n" + periodic.logTail());
    }
    // Short only now, and twice what all the runs take, so that each pass
    // finds the agent idle.
    period = std::max(1, int(std::ceil(2 * secondsSince(p0, monotonicNs()))));
    awaitQuiet(periodic.pid(), 0.1, monotonicNs() + nanoseconds(limit));
    std::size_t const startPasses = rescansIn(periodic.log()).size();
    writeFile(tree / "periodic.yaml.new", periodicConfig(period));
    std::filesystem::rename(tree / "periodic.yaml.new", tree / "periodic.yaml");
    // The reload reads the tree once more, then each period does.
    std::size_t const wanted = startPasses + 1 + std::size_t(passes);
    std::int64_t const deadline = monotonicNs() + nanoseconds((passes + 2) * period + limit);
    std::vector<Rescan> all;
    while ((all = rescansIn(periodic.log())).size() < wanted && monotonicNs() < deadline && periodic.running()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (all.size() < wanted) throw std::runtime_error("too few rescans traced:\n" + periodic.logTail());
    passTimes.assign(all.end() - passes, all.end());
  }
  double const dryAfter = timedRun(dryRun, env, tree / "dry-run.log");

  double const floorSeconds = (before.arrivedSeconds + after.arrivedSeconds) / 2;
  double const ratio = agentSeconds / floorSeconds;
  report.figureIs(b, "initial sync, agent / floor" + std::string(converged ? "" : " (gave up: more)"), ratio, "x",
                  Report::target, "<= 1.5 x floor", converged && ratio <= 1.5);
  report.figureIs(b, "  agent: start to all arrived", agentSeconds, "s");
  report.figureIs(b, "  floor: rsync -a of the tree, start to all arrived", floorSeconds, "s");
  report.figureIs(b, "  agent CPU with its children", double(cpu.totalNs()) / 1e9, "s");

  double const newRatio = percentile(newFiles, 50) / percentile(edited.ms, 50);
  report.figureIs(b, "new file in a new directory, p50: agent / single-file edit", newRatio, "x", Report::target,
                  "<= 1.1 x edit", newRatio <= 1.1);
  spreadRows(report, b, "new file", newFiles);
  spreadRows(report, b, "single-file edit", edited.ms);
  report.figureIs(b, "  runs per new file", newFileRuns / double(warmUp + samples), "");
  report.figureIs(b, "  runs per edit", editRuns / double(warmUp + samples), "");

  double const perFile = (double(resident) - double(baseResident)) / double(sources.size());
  report.figureIs(b, "memory per file (agent resident growth)", perFile / 1024, "KiB", Report::target, "<= 2 KiB",
                  perFile <= 2048);
  report.figureIs(b, "  agent resident, all replicated", double(resident) / (1 << 20), "MiB");
  report.figureIs(b, "  agent resident, empty tree", double(baseResident) / (1 << 20), "MiB");

  std::vector<double> passMs, passCpuMs;
  for (auto const& r : passTimes) {
    passMs.push_back(r.ms);
    passCpuMs.push_back(r.cpuMs);
  }
  double const dryMs = (dryBefore + dryAfter) / 2 * 1e3;
  double const rescanRatio = percentile(passMs, 50) / dryMs;
  report.figureIs(b, "periodic rescan pass, p50: agent / floor", rescanRatio, "x", Report::target, "<= 1.5 x floor",
                  rescanRatio <= 1.5);
  report.figureIs(b, "  agent: rescan pass p50", percentile(passMs, 50), "ms");
  report.figureIs(b, "  agent: its CPU p50", percentile(passCpuMs, 50), "ms");
  report.figureIs(b, "  floor: rsync -a --dry-run, start to exit", dryMs, "ms");

  report.figureIs(b, "destinations wrong or missing", double(wrong), "", Report::check, "0", wrong == 0);
  std::size_t const expected = sources.size() + std::size_t(warmUp + samples);
  double const unsynchronized = double(expected - std::min(expected, status.synchronized));
  report.figureIs(b, "files not synchronized at the end", unsynchronized, "", Report::check, "0", unsynchronized == 0);
  report.figureIs(b, "  of which failed", double(status.failed), "");

  std::string text = std::to_string(sources.size()) + " files in " + std::to_string(dirs) +
                     " directories, one tree entry of an inotify requester with default settings";
  if (!converged) {
    text += "; gave up after " + std::to_string(int(limit)) + " s with " + std::to_string(arrived) + " files arrived";
  }
  report.noteIs(b, text +
                       "; sync floor: the mean of one rsync -a of the tree just before the agent and one just "
                       "after; new files: " +
                       std::to_string(samples) + " after " + std::to_string(warmUp) +
                       " of warm-up, each a new directory holding one file, alternating with edits of one file "
                       "under an agent of its own, both from the writer's close() to the content seen at the "
                       "destination through inotify; memory: resident growth over an agent of an empty tree, once "
                       "quiet; rescan: the agent's own trace of each pass (walk and reconciliation, clock time), " +
                       std::to_string(passes) + " passes of a periodic requester whose period is made " +
                       std::to_string(period) +
                       " s once its first runs are done, against the mean of a dry run before and one after");
}

}  // namespace SystemBench
