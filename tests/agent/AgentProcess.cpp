#include "tests/agent/AgentProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "agent/ControlClient.h"

extern char** environ;

namespace Agent {

namespace {

// The inherited environment, with PATH led by the built Replicate and each
// extra "NAME=value" replacing the inherited NAME: glibc takes the first.
std::vector<std::string> environment(std::vector<std::string> const& extra) {
  std::vector<std::string> env = extra;
  auto given = [&](std::string const& entry) {
    std::string const name = entry.substr(0, entry.find('=') + 1);
    for (auto const& e : env) {
      if (e.compare(0, name.size(), name) == 0) return true;
    }
    return false;
  };
  std::string const path = std::string("PATH=") + REPLICATE_DIR + ":" + (getenv("PATH") ? getenv("PATH") : "");
  if (!given(path)) env.push_back(path);
  for (char** e = environ; *e; ++e) {
    if (!given(*e)) env.emplace_back(*e);
  }
  return env;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (auto& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

pid_t spawn(std::vector<std::string> argv, std::vector<std::string> const& env, int out, int err) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  if (out >= 0) posix_spawn_file_actions_adddup2(&actions, out, 1);
  if (err >= 0) posix_spawn_file_actions_adddup2(&actions, err, 2);
  auto envStrings = environment(env);
  auto args = pointers(argv);
  auto envp = pointers(envStrings);
  pid_t pid = -1;
  int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("cannot start " + argv[0]);
  return pid;
}

int waitFor(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

CommandResult runCommand(std::vector<std::string> const& argv, std::vector<std::string> const& env) {
  TempDir dir;
  int out = open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  int err = open((dir / "err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  pid_t pid = spawn(argv, env, out, err);
  close(out);
  close(err);
  CommandResult result;
  result.status = waitFor(pid);
  result.out = readFile(dir / "out");
  result.err = readFile(dir / "err");
  return result;
}

bool eventually(std::function<bool()> const& cond, double seconds) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

TempDir::TempDir() {
  char dir[] = "/tmp/filerep-test-XXXXXX";
  if (!mkdtemp(dir)) throw std::runtime_error("mkdtemp failed");
  path_ = dir;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void writeFile(std::string const& path, std::string const& content) { std::ofstream(path) << content; }

void replaceFile(std::string const& path, std::string const& content) {
  writeFile(path + ".new", content);
  std::filesystem::rename(path + ".new", path);
}

std::string readFile(std::string const& path) {
  std::stringstream s;
  s << std::ifstream(path).rdbuf();
  return s.str();
}

AgentProcess::AgentProcess(std::string const& config, std::string socket, std::vector<std::string> const& env)
    : socket_(std::move(socket)), logPath_(socket_ + ".log") {
  int log = open(logPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  pid_ = spawn({FILEREP_PROGRAM, "run", "--config", config, "--socket", socket_}, env, log, log);
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
  }) && pid_ > 0;
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
  int const status = waitFor(pid_);
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
