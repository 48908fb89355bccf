// Files rewritten in a tight loop under an inotify requester of the real
// agent with the real Replicate: what the agent and everything it starts
// spend per write, and how soon after the last write every destination
// holds its source.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "bench/system/Benches.h"
#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "bench/system/Replicas.h"

namespace SystemBench {

namespace {

// base: where the files are, "" for the temporary directory.
void stormIn(std::string const& base, std::string const& b, Options const& options, Report& report) {
  int const fileCount = options.stormFiles > 0 ? options.stormFiles : options.quick ? 20 : 100;
  int const rewrites = options.rewrites > 0 ? options.rewrites : options.quick ? 50 : 1000;
  auto const limitNs = std::int64_t(convergenceLimit(options) * 1e9);
  TempTree tree("rsyncstorm", base);
  SourceFiles files(tree, fileCount);
  auto const destinations = files.destinationsIs("dst");
  Arrivals arrivals(destinations);
  writeFile(tree / "filerep.yaml", agentConfig("    mode: inotify\n", files.paths, destinations));
  AgentProcess agent(options.filerepProgram, tree / "filerep.yaml", tree / "filerep.sock", tree / "agent.log",
                     realEnvironment(options));
  if (arrivals.awaitAll(monotonicNs() + limitNs, [&] { return !agent.running(); }) < 0 ||
      awaitQuiet(agent.pid(), 0.2, monotonicNs() + limitNs) < 0) {
    throw std::runtime_error("the first runs did not end:\n" + agent.logTail());
  }

  // The children's share counts once they are reaped, which the agent does
  // for Replicate, and Replicate for rsync.
  ProcessTimes const before = processTimes(agent.pid());
  std::int64_t const burstStart = monotonicNs();
  char text[32];
  int length = 0;
  for (int round = 0; round < rewrites; ++round) {
    length = std::snprintf(text, sizeof text, "%d\n", round);
    for (auto const& path : files.paths) {
      int const fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
      if (fd < 0 || write(fd, text, std::size_t(length)) != length) throw std::runtime_error("cannot rewrite " + path);
      close(fd);
    }
  }
  std::int64_t const lastWrite = monotonicNs();
  std::string const last(text, std::size_t(length));
  auto wrong = [&] {
    std::size_t n = 0;
    for (auto const& d : destinations) n += readText(d) != last;
    return n;
  };
  std::int64_t right = -1;
  while (right < 0 && monotonicNs() < lastWrite + limitNs) {
    if (wrong() == 0) {
      right = monotonicNs();
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  bool const settled = awaitQuiet(agent.pid(), 0.2, monotonicNs() + limitNs) >= 0;
  ProcessTimes const after = processTimes(agent.pid());
  std::size_t const wrongAtEnd = wrong();
  agent.stop();
  if (!settled) throw std::runtime_error("the agent did not settle after the storm");

  double const writes = double(fileCount) * rewrites;
  double const perWriteMs = double(after.totalNs() - before.totalNs()) / writes / 1e6;
  report.figureIs(b, "CPU of the agent and its children per write", perWriteMs, "ms", Report::target, "<= 0.2 ms",
                  perWriteMs <= 0.2);
  report.figureIs(b, "  agent's own CPU", double(after.ownNs - before.ownNs) / 1e9, "s");
  report.figureIs(b, "  its children's CPU", double(after.childrenNs - before.childrenNs) / 1e9, "s");
  report.figureIs(b, "  burst length", double(lastWrite - burstStart) / 1e6, "ms");
  double const toRightMs = right < 0 ? double(limitNs) / 1e6 : double(right - lastWrite) / 1e6;
  report.figureIs(b, std::string("last write to every destination right") + (right < 0 ? " (gave up: more)" : ""),
                  toRightMs, "ms", Report::target, "<= 500 ms", right >= 0 && toRightMs <= 500);
  report.figureIs(b, "destinations not equal to their source", double(wrongAtEnd), "", Report::check, "0",
                  wrongAtEnd == 0);
  report.noteIs(b, std::to_string(fileCount) + " files x " + std::to_string(rewrites) +
                       " rewrites (open O_TRUNC, write, close) in a loop, in " +
                       (base.empty() ? "the temporary directory (a disk file system)" : base) +
                       ", an inotify requester with default settings; CPU from /proc/PID/stat of the agent "
                       "(utime, stime, cutime, cstime) once everything settled; destinations compared every 10 ms");
}

}  // namespace

void rsyncStormBench(Options const& options, Report& report) {
  // In memory the writer is as fast as it gets; on a disk file system every
  // rewrite that truncates waits for the journal, so the burst lasts longer
  // and the runs that follow it are more.
  if (access("/dev/shm", W_OK) == 0) stormIn("/dev/shm", "rsyncstorm", options, report);
  stormIn("", "rsyncstorm-disk", options, report);
}

}  // namespace SystemBench
