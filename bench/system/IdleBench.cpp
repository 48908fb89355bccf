// Idle: the real agent with 10,000 configured files and nothing changing.
// What CPU it uses over a window once its first runs are done.

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "agent/ControlClient.h"
#include "bench/system/Benches.h"
#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "bench/system/TempTree.h"

namespace SystemBench {

namespace {

std::string configText(std::vector<std::string> const& paths) {
  std::size_t const half = paths.size() / 2;
  std::string text = "maxConcurrentReplications: 16\nrequesters:\n";
  text += "  idle-inotify:\n    mode: inotify\n    files:\n";
  for (std::size_t i = 0; i < half; ++i) {
    text += "      - path: " + paths[i] + "\n        dstPath: /srv/replica" + paths[i] + "\n";
  }
  text += "  idle-periodic:\n    mode: periodic\n    period: 86400\n    files:\n";
  for (std::size_t i = half; i < paths.size(); ++i) {
    text += "      - path: " + paths[i] + "\n        dstPath: /srv/replica" + paths[i] + "\n";
  }
  return text;
}

bool allSynchronized(nlohmann::json const& status, std::size_t files) {
  std::size_t synchronized = 0;
  for (auto const& [name, requester] : status["requesters"].items()) {
    for (auto const& [path, file] : requester["files"].items()) {
      if (file["status"] == "synchronized" && file["state"] == "standby") ++synchronized;
    }
  }
  return synchronized == files;
}

}  // namespace

void idleBench(Options const& options, Report& report) {
  int const perDir = options.quick ? 20 : 100;
  double const windowSeconds = options.quick ? 2 : 30;
  TempTree tree("idle");
  auto const paths = tree.filesIs("src", 100, perDir, true);
  std::filesystem::create_directories(tree / "etc");
  writeFile(tree / "etc/filerep.yaml", configText(paths));

  std::int64_t const t0 = monotonicNs();
  AgentProcess agent(options.filerepProgram, tree / "etc/filerep.yaml", tree / "filerep.sock", tree / "agent.log",
                     environmentWith({}));
  // The first runs are done when the agent has been quiet a while: a
  // status reply for every file is asked for only then, since it costs.
  std::int64_t done = -1;
  for (int attempt = 0; attempt < 10 && done < 0; ++attempt) {
    std::int64_t const quiet = awaitQuiet(agent.pid(), 0.2, monotonicNs() + 30'000'000'000);
    try {
      if (quiet >= 0 && allSynchronized(Agent::request(tree / "filerep.sock", {{"command", "status"}}), paths.size())) {
        done = quiet;
      }
    } catch (std::exception const&) {
    }
  }
  if (done < 0) {
    throw std::runtime_error("the first runs did not all succeed; the agent said:\n" + agent.logTail());
  }
  double const startupMs = double(done - t0) / 1e6;

  // Let the status request's own work finish before the window opens.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  std::int64_t const cpu0 = processCpuNs(agent.pid()), ticks0 = processCpuTicksNs(agent.pid());
  std::this_thread::sleep_for(std::chrono::duration<double>(windowSeconds));
  std::int64_t const cpu1 = processCpuNs(agent.pid()), ticks1 = processCpuTicksNs(agent.pid());
  std::size_t const resident = processResidentBytes(agent.pid());
  int const exitStatus = agent.stop();

  std::string const b = "idle";
  double const cpuMs = double(cpu1 - cpu0) / 1e6;
  report.figureIs(b, "agent CPU over the window", cpuMs, "ms", Report::target, "< 10 ms", cpuMs < 10);
  report.figureIs(b, "agent CPU over the window, /proc stat ticks", double(ticks1 - ticks0) / 1e6, "ms");
  report.figureIs(b, "start to all first runs done", startupMs, "ms");
  report.figureIs(b, "agent CPU until then", double(cpu0) / 1e6, "ms");
  report.figureIs(b, "agent resident memory", double(resident) / (1024 * 1024), "MiB");
  report.figureIs(b, "agent exit status on SIGTERM", double(exitStatus), "", Report::check, "0", exitStatus == 0);
  report.noteIs(b, "the filerep agent with " + std::to_string(paths.size()) +
                       " files (half inotify, half periodic "
                       "with a period of a day), stand-in Replicate, " +
                       std::to_string(int(windowSeconds)) + " s window; CPU from /proc/PID/task/*/schedstat");
}

}  // namespace SystemBench
