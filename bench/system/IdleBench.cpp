// Idle: the real agent with 10,000 configured files and nothing changing.
// What CPU it uses over a window once its first runs are done.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "agent/ControlClient.h"
#include "bench/system/Benches.h"
#include "bench/system/Measure.h"
#include "bench/system/StandinLog.h"
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

// The agent as a child of ours, stopped with SIGTERM at the end of scope.
class AgentProcess {
 public:
  AgentProcess(std::string const& program, std::string const& config, std::string const& socket,
               std::string const& logFile) {
    std::vector<std::string> args = {program, "run", "--config", config, "--socket", socket};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    int const rc = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) throw std::runtime_error("cannot start " + program);
  }
  ~AgentProcess() {
    if (pid_ > 0) stop();
  }
  AgentProcess(AgentProcess const&) = delete;
  AgentProcess& operator=(AgentProcess const&) = delete;

  pid_t pid() const { return pid_; }
  // The exit status, or -1 when it did not exit by itself.
  int stop() {
    kill(pid_, SIGTERM);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
};

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
  StandinLog log(tree / "standin.fifo");

  std::int64_t const t0 = monotonicNs();
  AgentProcess agent(options.filerepProgram, tree / "etc/filerep.yaml", tree / "filerep.sock", tree / "agent.log");
  std::size_t const started = log.awaitCount(paths.size(), 30);
  if (started < paths.size()) {
    throw std::runtime_error("only " + std::to_string(started) + " first runs started; the agent said:\n" +
                             readText(tree / "agent.log"));
  }
  // The last children may still be ending: ask until every file is done.
  bool done = false;
  for (int attempt = 0; attempt < 200 && !done; ++attempt) {
    try {
      done = allSynchronized(Agent::request(tree / "filerep.sock", {{"command", "status"}}), paths.size());
    } catch (std::exception const&) {
    }
    if (!done) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  if (!done)
    throw std::runtime_error("the first runs did not all succeed; the agent said:\n" + readText(tree / "agent.log"));
  double const startupMs = double(monotonicNs() - t0) / 1e6;

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
