#include "runtime/ChildManager.h"

#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "runtime/SpawnLauncher.h"

namespace Kel {

namespace {

constexpr int ChildSetup::*stdio[] = {&ChildSetup::stdinFd, &ChildSetup::stdoutFd, &ChildSetup::stderrFd};

void closeStdio(ChildSetup& setup) {
  for (auto fd : stdio) {
    if (setup.*fd != -1) ::close(setup.*fd);
    setup.*fd = -1;
  }
}

// Copies the caller's descriptors for a child that starts later; false when
// one cannot be copied (it was not open, or the table is full).
bool keepStdio(ChildSetup const& from, ChildSetup& to) {
  to = ChildSetup{-1, -1, -1, from.processGroup};
  for (auto fd : stdio) {
    if (from.*fd == -1) continue;
    int const copy = ::fcntl(from.*fd, F_DUPFD_CLOEXEC, 0);
    if (copy < 0) {
      closeStdio(to);
      return false;
    }
    to.*fd = copy;
  }
  return true;
}

}  // namespace

ChildManager::ChildManager(EventLoop& loop)
    : loop_(loop), spawnLauncher_(std::make_unique<SpawnLauncher>(*this, loop)), launcher_(spawnLauncher_.get()) {}

ChildManager::~ChildManager() { childDelAll(); }

Ptr<ChildSiginfo> ChildManager::run(std::vector<std::string> argv, ChildSetup const& setup) {
  Ptr<ChildSiginfo> child = new ChildSiginfo(std::move(argv));
  child->manager_ = this;
  if (waiting_.empty() && slotFree()) {
    start(child, setup);
    return child;
  }
  Waiting entry{child, {}};
  if (!keepStdio(setup, entry.setup)) {
    endUnstarted(child, ChildSiginfo::exited, 127);
    return child;
  }
  child->waitIndex_ = waiting_.enq(std::move(entry));
  return child;
}

void ChildManager::maxRunningIs(std::size_t n) {
  maxRunning_ = n;
  startWaiting();
}

void ChildManager::launcherIs(ChildLauncher* launcher) {
  ChildLauncher* const next = launcher ? launcher : spawnLauncher_.get();
  if (next == launcher_) return;
  childDelAll();
  launcher_ = next;
}

void ChildManager::childDelAll() {
  // Moved out first: childDel of a real child blocks until it is reaped,
  // and nothing may reach these sets meanwhile.
  auto running = std::exchange(running_, {});
  auto ending = std::exchange(ending_, {});
  for (auto const& child : running) launcher_->childDel(*child);
  for (auto* set : {&running, &ending}) {
    for (auto const& child : *set) {
      child->phase_ = ChildSiginfo::Phase::done;
      child->manager_ = nullptr;
    }
  }
  while (auto entry = waiting_.deq()) {
    closeStdio(entry->setup);
    entry->child->phase_ = ChildSiginfo::Phase::done;
    entry->child->manager_ = nullptr;
  }
}

void ChildManager::reportEnd(Ptr<ChildSiginfo> const& child, ChildSiginfo::SignalCode code, int exitStatus) {
  // The child, not the manager, is asked on delivery: a manager that let the
  // child go (or is gone) has cleared its back pointer.
  loop_.deferredIs([child, code, exitStatus] {
    if (ChildManager* manager = child->manager_) manager->deliverEnd(child, code, exitStatus);
  });
}

void ChildManager::start(Ptr<ChildSiginfo> const& child, ChildSetup const& setup) {
  pid_t const pid = launcher_->launch(child, setup);
  if (pid <= 0) {
    endUnstarted(child, ChildSiginfo::exited, 127);
    return;
  }
  child->pid_ = pid;
  child->phase_ = ChildSiginfo::Phase::running;
  running_.insert(child);
}

void ChildManager::startWaiting() {
  while (!waiting_.empty() && slotFree()) {
    auto entry = waiting_.deq();
    start(entry->child, entry->setup);
    closeStdio(entry->setup);
  }
}

void ChildManager::kill(ChildSiginfo& child, int signal) {
  switch (child.phase_) {
    case ChildSiginfo::Phase::waiting: {
      Ptr<ChildSiginfo> const keep = &child;
      ChildSetup setup = waiting_.at(child.waitIndex_)->setup;
      waiting_.del(child.waitIndex_);
      closeStdio(setup);
      endUnstarted(keep, ChildSiginfo::killed, signal);
      break;
    }
    case ChildSiginfo::Phase::running:
      launcher_->kill(child, signal);
      break;
    case ChildSiginfo::Phase::ending:
    case ChildSiginfo::Phase::done:
      break;
  }
}

void ChildManager::endUnstarted(Ptr<ChildSiginfo> const& child, ChildSiginfo::SignalCode code, int exitStatus) {
  child->phase_ = ChildSiginfo::Phase::ending;
  ending_.insert(child);
  reportEnd(child, code, exitStatus);
}

void ChildManager::deliverEnd(Ptr<ChildSiginfo> const& child, ChildSiginfo::SignalCode code, int exitStatus) {
  if (child->phase_ == ChildSiginfo::Phase::running) {
    running_.erase(child);
  } else if (child->phase_ == ChildSiginfo::Phase::ending) {
    ending_.erase(child);
  } else {
    return;
  }
  child->phase_ = ChildSiginfo::Phase::done;
  child->manager_ = nullptr;
  startWaiting();
  child->endedIs(code, exitStatus);
}

}  // namespace Kel
