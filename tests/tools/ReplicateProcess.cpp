#include "tests/tools/ReplicateProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace {

// Only a guard against a hung test; nothing waits for it to pass.
constexpr int guardMs = 20000;

std::vector<std::string> mergedEnvironment(const std::vector<std::string>& changes) {
  std::vector<std::string> merged;
  for (char** entry = environ; *entry; ++entry) {
    const std::string_view current(*entry);
    const std::string_view name = current.substr(0, current.find('='));
    bool replaced = false;
    for (const std::string& change : changes) {
      replaced = replaced || change.substr(0, change.find('=')) == name;
    }
    if (!replaced) merged.emplace_back(current);
  }
  merged.insert(merged.end(), changes.begin(), changes.end());
  return merged;
}

void check(int error, const char* what) {
  if (error != 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(error));
}

}  // namespace

ReplicateProcess::ReplicateProcess(const std::vector<std::string>& arguments, const std::string& directory,
                                   const std::vector<std::string>& environment) {
  int outPipe[2];
  int errPipe[2];
  check(pipe2(outPipe, O_CLOEXEC) == 0 ? 0 : errno, "pipe2");
  check(pipe2(errPipe, O_CLOEXEC) == 0 ? 0 : errno, "pipe2");
  outFd_ = outPipe[0];
  errFd_ = errPipe[0];

  std::vector<const char*> argv = {REPLICATE_PROGRAM};
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());
  argv.push_back(nullptr);
  const std::vector<std::string> merged = mergedEnvironment(environment);
  std::vector<const char*> envp;
  for (const std::string& entry : merged) envp.push_back(entry.c_str());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
  posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
  const int error = posix_spawn(&pid_, REPLICATE_PROGRAM, &actions, nullptr, const_cast<char* const*>(argv.data()),
                                const_cast<char* const*>(envp.data()));
  posix_spawn_file_actions_destroy(&actions);
  close(outPipe[1]);
  close(errPipe[1]);
  check(error, "posix_spawn");
}

ReplicateProcess::~ReplicateProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    wait();
  }
  if (outFd_ >= 0) close(outFd_);
  if (errFd_ >= 0) close(errFd_);
}

bool ReplicateProcess::readSome(int timeoutMs) {
  pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
  const int ready = poll(fds, 2, timeoutMs);
  if (ready <= 0) return false;
  char buffer[4096];
  int* const descriptors[2] = {&outFd_, &errFd_};
  std::string* const texts[2] = {&out_, &err_};
  for (int i = 0; i < 2; ++i) {
    if (fds[i].fd < 0 || fds[i].revents == 0) continue;
    const ssize_t count = read(fds[i].fd, buffer, sizeof buffer);
    if (count > 0) {
      texts[i]->append(buffer, static_cast<size_t>(count));
    } else {
      close(fds[i].fd);
      *descriptors[i] = -1;
    }
  }
  return true;
}

bool ReplicateProcess::awaitOutput() {
  while (out_.empty() && outFd_ >= 0) {
    if (!readSome(guardMs)) return false;
  }
  return !out_.empty();
}

bool ReplicateProcess::drain() {
  using namespace std::chrono;
  const auto deadline = steady_clock::now() + milliseconds(guardMs);
  while (outFd_ >= 0 || errFd_ >= 0) {
    const auto left = duration_cast<milliseconds>(deadline - steady_clock::now());
    if (left.count() <= 0 || !readSome(static_cast<int>(left.count()))) return false;
  }
  return true;
}

int ReplicateProcess::wait() {
  if (pid_ <= 0) throw std::logic_error("no child to wait for");
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return status;
}

ReplicateResult runReplicate(const std::vector<std::string>& arguments, const std::string& directory,
                             const std::vector<std::string>& environment) {
  ReplicateProcess process(arguments, directory, environment);
  const bool drained = process.drain();
  const int status = process.wait();
  if (!drained) throw std::runtime_error("Replicate did not finish");
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, process.out(), process.err()};
}
