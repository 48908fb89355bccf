#include "tests/support/ScriptedChildren.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

namespace Kel {

ScriptedChildren::ScriptedChildren(ChildManager& manager)
    : manager_(manager), previous_(&manager.launcher()), previousMaxRunning_(manager.maxRunning()) {
  manager_.launcherIs(this);
}

ScriptedChildren::~ScriptedChildren() {
  for (auto const& child : children_) {
    if (child.stdoutFd != -1) close(child.stdoutFd);
  }
  manager_.launcherIs(previous_);
  manager_.maxRunningIs(previousMaxRunning_);
}

ScriptedChildren::Child const& ScriptedChildren::child(Ptr<ChildSiginfo const> const& siginfo) const {
  return children_[indexOf(siginfo.ptr())];
}

std::size_t ScriptedChildren::indexOf(ChildSiginfo const* siginfo) const {
  auto it = index_.find(siginfo);
  if (it == index_.end()) throw std::invalid_argument("child not launched by ScriptedChildren");
  return it->second;
}

void ScriptedChildren::endExited(Ptr<ChildSiginfo const> const& siginfo, int status, std::string_view output) {
  int const fd = children_[indexOf(siginfo.ptr())].stdoutFd;
  if (!output.empty() && (fd == -1 || write(fd, output.data(), output.size()) != ssize_t(output.size()))) {
    throw std::invalid_argument("the child's output cannot be written");
  }
  end(siginfo, ChildSiginfo::exited, status);
}

void ScriptedChildren::endKilled(Ptr<ChildSiginfo const> const& siginfo, int signal) {
  end(siginfo, ChildSiginfo::killed, signal);
}

void ScriptedChildren::endDumped(Ptr<ChildSiginfo const> const& siginfo, int signal) {
  end(siginfo, ChildSiginfo::dumped, signal);
}

void ScriptedChildren::end(Ptr<ChildSiginfo const> const& siginfo, ChildSiginfo::SignalCode code, int status) {
  manager_.reportEnd(children_[indexOf(siginfo.ptr())].siginfo, code, status);
}

pid_t ScriptedChildren::launch(Ptr<ChildSiginfo> const& child, ChildSetup const& setup) {
  index_.emplace(child.ptr(), children_.size());
  Child& entry = children_.emplace_back(Child{child, child->argv().strings(), 0, {}, {}, -1});
  if (setup.stdinFd != -1) {
    char buffer[4096];
    ssize_t n;
    while ((n = pread(setup.stdinFd, buffer, sizeof buffer, off_t(entry.input.size()))) > 0) {
      entry.input.append(buffer, std::size_t(n));
    }
  }
  if (setup.stdoutFd != -1) entry.stdoutFd = fcntl(setup.stdoutFd, F_DUPFD_CLOEXEC, 0);
  if (!startFails_) entry.pid = static_cast<pid_t>(1000 + children_.size());
  return entry.pid;
}

void ScriptedChildren::kill(ChildSiginfo const& child, int signal) {
  Child& entry = children_[indexOf(&child)];
  entry.signals.push_back(signal);
  if (endOnKill_) manager_.reportEnd(entry.siginfo, ChildSiginfo::killed, signal);
}

}  // namespace Kel
