#include "tests/agent/AgentProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "agent/ControlClient.h"

namespace Agent {

namespace {

// An entry of env's own for PATH comes first and wins.
std::vector<std::string> withReplicate(std::vector<std::string> env) {
  env.push_back(std::string("PATH=") + REPLICATE_DIR + ":" + (getenv("PATH") ? getenv("PATH") : ""));
  return env;
}

}  // namespace

ProcessResult runCommand(std::vector<std::string> const& argv, std::vector<std::string> const& env) {
  return runProcess(argv, withReplicate(env));
}

bool eventually(std::function<bool()> const& cond, double seconds) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

AgentProcess::AgentProcess(std::string const& config, std::string socket, std::vector<std::string> const& env,
                           std::vector<std::string> launcher)
    : socket_(std::move(socket)), logPath_(socket_ + ".log") {
  int log = open(logPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  launcher.insert(launcher.end(), {FILEREP_PROGRAM, "run", "--config", config, "--socket", socket_});
  pid_ = spawnProcess(launcher, withReplicate(env), "", log, log);
  close(log);
}

AgentProcess::~AgentProcess() {
  if (pid_ > 0) stop(SIGKILL);
}

bool AgentProcess::ready() {
  return eventually([&] {
           if (pid_ <= 0 || waitpid(pid_, nullptr, WNOHANG) == pid_) {
             pid_ = -1;
             return true;
           }
           return !status().is_null();
         }) &&
         pid_ > 0;
}

nlohmann::json AgentProcess::status() {
  try {
    return request(socket_, {{"command", "status"}});
  } catch (std::exception const&) {
    return nullptr;
  }
}

int AgentProcess::exited(double seconds) {
  int status = 0;
  bool const ended = eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, seconds);
  if (!ended) return -2;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int AgentProcess::stop(int signal) {
  if (pid_ <= 0) return -1;
  kill(pid_, signal);
  int const status = exitCode(pid_);
  pid_ = -1;
  return status;
}

std::string AgentProcess::log() const { return readFile(logPath_); }

nlohmann::json fileStatus(nlohmann::json const& status, std::string const& requester, std::string const& path) {
  if (!status.is_object() || !status.contains("requesters")) return nullptr;
  auto const& requesters = status["requesters"];
  if (!requesters.contains(requester) || !requesters[requester]["files"].contains(path)) return nullptr;
  return requesters[requester]["files"][path];
}

}  // namespace Agent
