#include "tests/support/TestProcess.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

extern char** environ;

namespace {

// Only a guard against a hung test; nothing waits for it to pass.
constexpr int guardMs = 20000;

std::vector<std::string> mergedEnvironment(std::vector<std::string> const& changes) {
  std::vector<std::string> merged = changes;
  for (char** entry = environ; *entry; ++entry) {
    std::string_view const current(*entry);
    std::string_view const name = current.substr(0, current.find('=') + 1);
    bool replaced = false;
    for (std::string const& change : changes) replaced = replaced || change.compare(0, name.size(), name) == 0;
    if (!replaced) merged.emplace_back(current);
  }
  return merged;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (auto& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

void check(int error, char const* what) {
  if (error != 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(error));
}

}  // namespace

pid_t spawnProcess(std::vector<std::string> const& argv, std::vector<std::string> const& environment,
                   std::string const& directory, int out, int err) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  for (auto [from, to] : {std::pair{out, STDOUT_FILENO}, std::pair{err, STDERR_FILENO}}) {
    if (from >= 0) {
      posix_spawn_file_actions_adddup2(&actions, from, to);
    } else {
      posix_spawn_file_actions_addopen(&actions, to, "/dev/null", O_WRONLY, 0);
    }
  }
  if (!directory.empty()) posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
  auto args = argv;
  auto env = mergedEnvironment(environment);
  auto argp = pointers(args);
  auto envp = pointers(env);
  pid_t pid = -1;
  int const error = posix_spawnp(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  check(error, "posix_spawnp");
  return pid;
}

std::map<int, std::string> openDescriptorTargets() {
  std::map<int, std::string> targets;
  DIR* const list = opendir("/proc/self/fd");
  if (!list) throw std::runtime_error(std::string("/proc/self/fd: ") + std::strerror(errno));
  while (dirent const* entry = readdir(list)) {
    if (entry->d_name[0] == '.' || std::atoi(entry->d_name) == dirfd(list)) continue;
    std::error_code error;
    // One another thread closes meanwhile is skipped.
    std::filesystem::path const target =
        std::filesystem::read_symlink(std::string("/proc/self/fd/") + entry->d_name, error);
    if (!error) targets.emplace(std::atoi(entry->d_name), target);
  }
  closedir(list);
  return targets;
}

std::vector<pid_t> childrenOf(pid_t pid) {
  std::vector<pid_t> children;
  std::error_code ignored;
  // Each thread lists the children it started.
  for (auto const& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ignored)) {
    std::ifstream list(thread.path() / "children");
    for (pid_t child; list >> child;) children.push_back(child);
  }
  return children;
}

int exitCode(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TestProcess::TestProcess(std::vector<std::string> const& argv, std::vector<std::string> const& environment,
                         std::string const& directory) {
  int outPipe[2];
  int errPipe[2];
  check(pipe2(outPipe, O_CLOEXEC) == 0 ? 0 : errno, "pipe2");
  check(pipe2(errPipe, O_CLOEXEC) == 0 ? 0 : errno, "pipe2");
  outFd_ = outPipe[0];
  errFd_ = errPipe[0];
  try {
    pid_ = spawnProcess(argv, environment, directory, outPipe[1], errPipe[1]);
  } catch (...) {
    for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) close(fd);
    throw;
  }
  close(outPipe[1]);
  close(errPipe[1]);
}

TestProcess::~TestProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    wait();
  }
  if (outFd_ >= 0) close(outFd_);
  if (errFd_ >= 0) close(errFd_);
}

bool TestProcess::readSome(int timeoutMs) {
  pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
  if (poll(fds, 2, timeoutMs) <= 0) return false;
  char buffer[4096];
  int* const descriptors[2] = {&outFd_, &errFd_};
  std::string* const texts[2] = {&out_, &err_};
  for (int i = 0; i < 2; ++i) {
    if (fds[i].fd < 0 || fds[i].revents == 0) continue;
    ssize_t const count = read(fds[i].fd, buffer, sizeof buffer);
    if (count > 0) {
      texts[i]->append(buffer, static_cast<size_t>(count));
    } else {
      close(fds[i].fd);
      *descriptors[i] = -1;
    }
  }
  return true;
}

bool TestProcess::awaitOutput() {
  while (out_.empty() && outFd_ >= 0) {
    if (!readSome(guardMs)) return false;
  }
  return !out_.empty();
}

bool TestProcess::drain() {
  using namespace std::chrono;
  auto const deadline = steady_clock::now() + milliseconds(guardMs);
  while (outFd_ >= 0 || errFd_ >= 0) {
    auto const left = duration_cast<milliseconds>(deadline - steady_clock::now());
    if (left.count() <= 0 || !readSome(static_cast<int>(left.count()))) return false;
  }
  return true;
}

int TestProcess::wait() {
  if (pid_ <= 0) throw std::logic_error("no child to wait for");
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return status;
}

ProcessResult runProcess(std::vector<std::string> const& argv, std::vector<std::string> const& environment,
                         std::string const& directory) {
  TestProcess process(argv, environment, directory);
  bool const drained = process.drain();
  int const status = process.wait();
  if (!drained) throw std::runtime_error(argv.at(0) + " did not finish");
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, process.out(), process.err()};
}
