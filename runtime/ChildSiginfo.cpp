#include "runtime/ChildSiginfo.h"

#include <unistd.h>

#include <csignal>

#include "runtime/ActivityManager.h"
#include "runtime/ChildLauncher.h"
#include "runtime/ChildManager.h"
#include "runtime/Exception.h"
#include "runtime/FifoArena.h"

namespace Kel {

ChildSiginfo::~ChildSiginfo() {
  if (errorOutputFd_ >= 0) ::close(errorOutputFd_);
}

void* ChildSiginfo::operator new(std::size_t bytes) { return FifoArena::instance().allocate(bytes); }

void ChildSiginfo::operator delete(void* p) noexcept { FifoArena::instance().release(p); }

void ChildSiginfo::kill(int signal) const {
  if (signal <= 0 || signal >= NSIG) throwRangeException("signal " + std::to_string(signal) + " out of range");
  // The manager created every child non-const; only callers see it const.
  if (manager_) manager_->kill(const_cast<ChildSiginfo&>(*this), signal);
}

void ChildSiginfo::pidIs(pid_t pid) {
  if (changed(pid_, pid)) notify(&NotifieeConst::onPid);
}

void ChildSiginfo::endedIs(SignalCode code, int exitStatus) {
  signalCode_ = code;
  exitStatus_ = exitStatus;
  notify(&NotifieeConst::onSignalCode);
}

std::ostream& operator<<(std::ostream& o, ChildSiginfo::SignalCode code) {
  switch (code) {
    case ChildSiginfo::notEnded: return o << "notEnded";
    case ChildSiginfo::killed: return o << "killed";
    case ChildSiginfo::dumped: return o << "dumped";
    case ChildSiginfo::exited: return o << "exited";
  }
  return o << static_cast<int>(code);
}

Ptr<ChildSiginfo> run(char const* const* argv, int stdinFd, int stdoutFd, int stderrFd, int processGroup) {
  return run(argv, ChildSetup{stdinFd, stdoutFd, stderrFd, processGroup});
}

Ptr<ChildSiginfo> run(char const* const* argv, ChildSetup const& setup) {
  if (!argv || !argv[0]) throwRangeException("run: empty argument vector");
  if (setup.stdinFd < -1 || setup.stdoutFd < -1 || setup.stderrFd < -1) {
    throwRangeException("run: descriptor out of range");
  }
  if (setup.processGroup < -1) throwRangeException("run: process group out of range");
  if (setup.batchLimit == 0) throwRangeException("run: batch limit 0");
  // Copied now: callers pass pointers into temporaries, and a child waiting
  // for a slot starts long after this returns.
  return activityManager()->children().run(ChildArgs(argv), setup);
}

}  // namespace Kel
