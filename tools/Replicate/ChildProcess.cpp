#include "tools/Replicate/ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace Replicate {

namespace {

bool isExecutableFile(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
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

int runChild(const std::string& path, const std::vector<std::string>& arguments) {
  // posix_spawn cannot set a parent-death signal in the child, so the child
  // is a fresh copy of this program that sets it and then execs the program.
  const std::string parent = std::to_string(getpid());
  std::vector<const char*> argv = {"Replicate", execWithParentDeathSignalOption.data(), parent.c_str(),
                                   path.c_str()};
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  // Whoever started us may have blocked or ignored signals; rsync and ssh
  // expect the defaults.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigfillset(&signals);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = 0;
  const int error = posix_spawn(&pid, "/proc/self/exe", &actions, &attributes,
                                const_cast<char* const*>(argv.data()), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + path + ": " + std::strerror(error));

  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error(std::string("waitpid: ") + std::strerror(errno));
  }
  return status;
}

void execWithParentDeathSignal(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "Replicate: %s is for internal use\n", execWithParentDeathSignalOption.data());
    _exit(2);
  }
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
    std::fprintf(stderr, "Replicate: prctl: %s\n", std::strerror(errno));
    _exit(126);
  }
  // The parent may have died before the signal was armed; then nobody would
  // kill us, so go now.
  if (std::to_string(getppid()) != argv[2]) _exit(126);
  execv(argv[3], argv + 4);
  std::fprintf(stderr, "Replicate: cannot run %s: %s\n", argv[3], std::strerror(errno));
  _exit(126);
}

}  // namespace Replicate
