#include "runtime/SpawnLauncher.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
// glibc 2.36 declares these without C linkage for C++.
extern "C" {
#include <sys/pidfd.h>
}

#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

#include "runtime/ChildManager.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("KelChild")

namespace Kel {

namespace {

// Fills in what the child gets besides its arguments; returns an error number.
int describe(ChildSetup const& setup, posix_spawn_file_actions_t& actions, posix_spawnattr_t& attributes) {
  int const stdio[] = {setup.stdinFd, setup.stdoutFd, setup.stderrFd};
  for (int target = 0; target < 3; ++target) {
    if (stdio[target] == -1) continue;
    if (int error = ::posix_spawn_file_actions_adddup2(&actions, stdio[target], target)) return error;
  }
  // A mask or ignored signals of ours must not pass on: a child that ignores
  // SIGTERM could not be stopped.
  sigset_t none;
  sigset_t all;
  ::sigemptyset(&none);
  ::sigfillset(&all);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setsigdefault(&attributes, &all);
  int flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (setup.processGroup >= 0) {
    flags |= POSIX_SPAWN_SETPGROUP;
    ::posix_spawnattr_setpgroup(&attributes, setup.processGroup);
  }
  return ::posix_spawnattr_setflags(&attributes, static_cast<short>(flags));
}

// Returns 0 and the pid, or an error number.
int spawn(ChildArgs const& args, ChildSetup const& setup, pid_t& pid) {
  std::vector<char*> const argv = args.pointers();
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawnattr_init(&attributes);
  int error = describe(setup, actions, attributes);
  if (!error) error = ::posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environ);
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&actions);
  return error;
}

void waitBlocking(idtype_t type, int id) {
  siginfo_t info{};
  while (::waitid(type, static_cast<id_t>(id), &info, WEXITED) < 0 && errno == EINTR) {
  }
}

}  // namespace

SpawnLauncher::SpawnLauncher(ChildManager& manager, EventLoop& loop) : manager_(manager), loop_(loop) {}

SpawnLauncher::~SpawnLauncher() {
  while (!watches_.empty()) childDel(*watches_.begin()->first);
}

pid_t SpawnLauncher::launch(Ptr<ChildSiginfo> const& child, ChildSetup const& setup) {
  pid_t pid = 0;
  if (int error = spawn(child->argv(), setup, pid)) {
    KEL_TRACE(1, "posix_spawnp " << child->argv()[0] << ": " << std::strerror(error));
    return 0;
  }
  int const pidfd = ::pidfd_open(pid, 0);
  if (pidfd < 0) {
    int const error = errno;
    // Unwatchable, so it must not run. Unreaped, the pid is still ours.
    ::kill(pid, SIGKILL);
    waitBlocking(P_PID, pid);
    KEL_TRACE(1, "pidfd_open " << child->argv()[0] << ": " << std::strerror(error));
    return 0;
  }
  Watch& watch = watches_.try_emplace(child.ptr(), *this, child, pidfd).first->second;
  loop_.sourceIs(pidfd, &watch);
  return pid;
}

void SpawnLauncher::kill(ChildSiginfo const& child, int signal) {
  auto it = watches_.find(&child);
  if (it == watches_.end()) return;
  if (::pidfd_send_signal(it->second.pidfd_, signal, nullptr, 0) < 0) {
    KEL_TRACE(1, "pidfd_send_signal " << child.pid() << ": " << std::strerror(errno));
  }
}

void SpawnLauncher::childDel(ChildSiginfo const& child) {
  auto it = watches_.find(&child);
  if (it == watches_.end()) return;
  ::pidfd_send_signal(it->second.pidfd_, SIGKILL, nullptr, 0);
  waitBlocking(P_PIDFD, it->second.pidfd_);
  unwatch(it->second);
}

void SpawnLauncher::reap(Watch& watch) {
  siginfo_t info{};
  int result;
  do {
    result = ::waitid(P_PIDFD, static_cast<id_t>(watch.pidfd_), &info, WEXITED | WNOHANG);
  } while (result < 0 && errno == EINTR);
  if (result == 0 && info.si_pid == 0) return;
  // Only a child reaped behind our back (SIGCHLD ignored) leaves these.
  ChildSiginfo::SignalCode code = ChildSiginfo::exited;
  int status = 127;
  if (result < 0) {
    KEL_TRACE(1, "waitid " << watch.child_->pid() << ": " << std::strerror(errno));
  } else if (info.si_code == CLD_EXITED) {
    status = info.si_status;
  } else if (info.si_code == CLD_KILLED || info.si_code == CLD_DUMPED) {
    code = info.si_code == CLD_KILLED ? ChildSiginfo::killed : ChildSiginfo::dumped;
    status = info.si_status;
  }
  Ptr<ChildSiginfo> const child = watch.child_;
  unwatch(watch);
  manager_.reportEnd(child, code, status);
}

void SpawnLauncher::unwatch(Watch& watch) {
  loop_.sourceDel(watch.pidfd_, &watch);
  ::close(watch.pidfd_);
  // Destroys watch, whose onReadable may be the caller: nothing touches it after.
  watches_.erase(watch.child_.ptr());
}

}  // namespace Kel
