#include "tools/Replicate/ChildProcess.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace Replicate {

namespace {

bool isExecutableFile(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
}

// The child's side of startChild. Another thread may have held a lock of
// the allocator or of stdio at the fork, so the child calls only what is
// async-signal-safe: everything it needs was prepared before the fork.
[[noreturn]] void becomeChild(pid_t parent, const char* path, char* const* argv, ChildStreams streams) {
  // Armed before the check: a parent that dies after it kills us, one that
  // died before it leaves us orphaned with another parent id.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(126);
  if (streams.input == STDIN_FILENO) {
    // dup2 onto itself would keep close-on-exec.
    if (fcntl(STDIN_FILENO, F_SETFD, 0) != 0) _exit(126);
  } else if (streams.input >= 0) {
    if (dup2(streams.input, STDIN_FILENO) < 0) _exit(126);
  } else {
    const int null = open("/dev/null", O_RDONLY);
    if (null < 0 || (null != STDIN_FILENO && (dup2(null, STDIN_FILENO) < 0 || close(null) != 0))) _exit(126);
  }
  if (streams.outputToStderr && dup2(STDERR_FILENO, STDOUT_FILENO) < 0) _exit(126);
  if (streams.errors >= 0 && dup2(streams.errors, STDERR_FILENO) < 0) _exit(126);
  // Whoever started us may have ignored or blocked signals; rsync and ssh
  // expect the defaults. Handlers of our own would be reset by exec anyway,
  // ignored signals would not.
  struct sigaction defaultAction {};
  defaultAction.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) sigaction(signal, &defaultAction, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);

  execv(path, argv);
  // strerror may build its text in a locale; this one is a constant.
  const char* why = strerrordesc_np(errno);
  if (!why) why = "unknown error";
  const iovec message[] = {{const_cast<char*>("Replicate: cannot run "), 22},
                           {const_cast<char*>(path), std::strlen(path)},
                           {const_cast<char*>(": "), 2},
                           {const_cast<char*>(why), std::strlen(why)},
                           {const_cast<char*>("\n"), 1}};
  [[maybe_unused]] const ssize_t written = writev(STDERR_FILENO, message, 5);
  _exit(126);
}

}  // namespace

std::string findOnPath(std::string_view program) {
  if (program.find('/') != std::string_view::npos) return std::string(program);
  const char* path = std::getenv("PATH");
  // execvp's default search path when PATH is unset.
  const std::string_view directories = path ? path : "/bin:/usr/bin";
  size_t start = 0;
  while (start <= directories.size()) {
    size_t end = directories.find(':', start);
    if (end == std::string_view::npos) end = directories.size();
    std::string directory(directories.substr(start, end - start));
    if (directory.empty()) directory = ".";
    std::string candidate = directory + "/" + std::string(program);
    if (isExecutableFile(candidate)) return candidate;
    start = end + 1;
  }
  return {};
}

pid_t startChild(const std::string& path, const std::vector<std::string>& arguments, ChildStreams streams) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  // posix_spawn cannot arm a parent-death signal in the child; fork can,
  // and for a program this small it costs little more.
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("cannot start " + path + ": " + std::strerror(errno));
  if (child == 0) becomeChild(parent, path.c_str(), argv.data(), streams);
  return child;
}

int awaitChild(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error(std::string("waitpid: ") + std::strerror(errno));
  }
  return status;
}

int runChild(const std::string& path, const std::vector<std::string>& arguments, ChildStreams streams) {
  return awaitChild(startChild(path, arguments, streams));
}

ChildRun runCapturingErrors(const std::string& path, const std::vector<std::string>& arguments, ChildStreams streams) {
  const int capture = memfd_create("Replicate-errors", MFD_CLOEXEC);
  if (capture < 0) throw std::runtime_error(std::string("memfd_create: ") + std::strerror(errno));
  ChildRun run;
  try {
    streams.errors = capture;
    run.status = runChild(path, arguments, streams);
    // The child shared our offset; reading from the start does not care.
    char buffer[8192];
    for (off_t offset = 0;;) {
      const ssize_t count = pread(capture, buffer, sizeof buffer, offset);
      if (count == 0) break;
      if (count < 0) {
        if (errno == EINTR) continue;
        throw std::runtime_error(std::string("reading the errors of ") + path + ": " + std::strerror(errno));
      }
      run.errors.append(buffer, static_cast<size_t>(count));
      offset += count;
    }
  } catch (...) {
    close(capture);
    throw;
  }
  close(capture);
  return run;
}

}  // namespace Replicate
