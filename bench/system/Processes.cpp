#include "bench/system/Processes.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "bench/system/Measure.h"
#include "tests/support/TestProcess.h"

extern char** environ;

namespace SystemBench {

namespace {

std::string nameOf(std::string const& entry) { return entry.substr(0, entry.find('=')); }

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (auto& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

}  // namespace

std::vector<std::string> environmentWith(std::vector<std::string> const& changes) {
  std::vector<std::string> env;
  for (char** entry = environ; *entry; ++entry) {
    std::string const current(*entry);
    bool replaced = false;
    for (auto const& change : changes) replaced = replaced || nameOf(change) == nameOf(current);
    if (!replaced) env.push_back(current);
  }
  for (auto const& change : changes) {
    if (change.find('=') != std::string::npos) env.push_back(change);
  }
  return env;
}

std::string programOnPath(std::string const& name, std::string const& path) {
  std::istringstream dirs(path);
  for (std::string dir; std::getline(dirs, dir, ':');) {
    std::string const candidate = (dir.empty() ? "." : dir) + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

pid_t spawn(std::vector<std::string> const& argv, std::vector<std::string> const& env, std::string const& output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, output.empty() ? "/dev/null" : output.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  auto args = argv;
  auto envCopy = env;
  auto argp = pointers(args);
  auto envp = pointers(envCopy);
  pid_t pid = -1;
  int const rc = posix_spawnp(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
  return pid;
}

int run(std::vector<std::string> const& argv, std::vector<std::string> const& env, std::string const& output) {
  return exitCode(spawn(argv, env, output));
}

std::int64_t awaitQuiet(pid_t pid, double quietSeconds, std::int64_t deadlineNs) {
  auto const quietNs = std::int64_t(quietSeconds * 1e9);
  std::int64_t since = monotonicNs();
  std::int64_t cpu = processCpuNs(pid);
  for (;;) {
    std::int64_t const now = monotonicNs();
    std::int64_t const cpuNow = processCpuNs(pid);
    if (!childrenOf(pid).empty() || cpuNow != cpu) {
      since = now;
      cpu = cpuNow;
    } else if (now - since >= quietNs) {
      return since;
    }
    if (now > deadlineNs) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

AgentProcess::AgentProcess(std::string const& program, std::string const& config, std::string socket,
                           std::string logFile, std::vector<std::string> const& env)
    : socket_(std::move(socket)), logFile_(std::move(logFile)) {
  pid_ = spawn({program, "run", "--config", config, "--socket", socket_}, env, logFile_);
}

AgentProcess::~AgentProcess() {
  if (pid_ > 0) stop();
}

bool AgentProcess::running() {
  int status = 0;
  if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
    exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    pid_ = -1;
  }
  return pid_ > 0;
}

int AgentProcess::stop() {
  if (pid_ <= 0) return exitStatus_;
  kill(pid_, SIGTERM);
  int status = 0;
  std::int64_t const deadline = monotonicNs() + 10'000'000'000;
  pid_t ended = 0;
  while ((ended = waitpid(pid_, &status, WNOHANG)) == 0 && monotonicNs() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (ended == 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  return ended > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string AgentProcess::log() const { return readText(logFile_); }

std::string AgentProcess::logTail() const {
  std::string const log = this->log();
  std::size_t const keep = 4000;
  return log.size() <= keep ? log : "..." + log.substr(log.size() - keep);
}

}  // namespace SystemBench
