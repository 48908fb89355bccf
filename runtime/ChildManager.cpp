#include "runtime/ChildManager.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "runtime/SpawnLauncher.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("KelChild")

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

// An anonymous file in memory holding text, read from its start: a child
// reads it as stdin, or writes into it as stdout, and neither side can
// block the other the way a full pipe would. -1 when it cannot be made.
int memoryFileOf(std::string const& text) {
  int const fd = ::memfd_create("kel-batch", MFD_CLOEXEC);
  if (fd < 0) return -1;
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t const n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ::close(fd);
      return -1;
    }
    done += std::size_t(n);
  }
  ::lseek(fd, 0, SEEK_SET);
  return fd;
}

// At most the last limit bytes of fd, which is closed.
std::string contentsOf(int fd, std::size_t limit = std::string::npos) {
  std::string text;
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    ::close(fd);
    return text;
  }
  std::size_t const size = std::size_t(st.st_size);
  std::size_t const from = size > limit ? size - limit : 0;
  text.resize(size - from);
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t const n = ::pread(fd, text.data() + done, text.size() - done, off_t(from + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += std::size_t(n);
  }
  text.resize(done);
  ::close(fd);
  return text;
}

}  // namespace

ChildManager::ChildManager(EventLoop& loop)
    : loop_(loop), spawnLauncher_(std::make_unique<SpawnLauncher>(*this, loop)), launcher_(spawnLauncher_.get()) {}

ChildManager::~ChildManager() { childDelAll(); }

Ptr<ChildSiginfo> ChildManager::run(ChildArgs argv, ChildSetup const& setup) {
  Ptr<ChildSiginfo> child = new ChildSiginfo(std::move(argv));
  child->manager_ = this;
  child->capturesStderr_ = setup.captureStderr && setup.stderrFd == -1;
  std::string key = keyOf(*child, setup);
  bool const mergeable = !key.empty();
  // The first child of a turn starts at once; mergeable ones asked for after
  // it in the same turn wait for the next, so that they can share a process.
  if (waiting_.empty() && slotFree() && !(mergeable && startWaitingScheduled_)) {
    start(child, setup);
    if (mergeable) startWaitingSoon();
    return child;
  }
  Waiting entry{child, {}, nullptr};
  if (!keepStdio(setup, entry.setup)) {
    endEarly(child, ChildSiginfo::exited, 127);
    return child;
  }
  auto* const byKey = mergeable ? &*waitingByKey_.try_emplace(std::move(key)).first : nullptr;
  if (byKey) entry.key = &byKey->first;
  child->waitIndex_ = waiting_.enq(std::move(entry));
  if (byKey) byKey->second.emplace_back(child->waitIndex_, child.ptr());
  if (slotFree()) startWaitingSoon();
  return child;
}

std::string ChildManager::keyOf(ChildSiginfo& child, ChildSetup const& setup) const {
  // A child with descriptors or a group of its own expects a process of its own.
  bool const plain = setup.stdinFd == -1 && setup.stdoutFd == -1 && setup.stderrFd == -1 && setup.processGroup == -1;
  if (!batcher_ || setup.batchLimit < 2 || !plain) return {};
  std::string key = batcher_->batchKey(child.argv_);
  if (key.empty()) return key;
  key += '\0' + std::to_string(setup.batchLimit) + (child.capturesStderr_ ? "e" : "");
  child.batchLimit_ = setup.batchLimit;
  return key;
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
  auto batches = std::exchange(batches_, {});
  waitingByKey_.clear();
  for (auto const& child : running) launcher_->childDel(*child);
  auto letGo = [](ChildSiginfo& child) {
    child.phase_ = ChildSiginfo::Phase::done;
    child.manager_ = nullptr;
    child.carrier_ = nullptr;
    if (child.errorOutputFd_ >= 0) ::close(std::exchange(child.errorOutputFd_, -1));
  };
  for (auto* set : {&running, &ending}) {
    for (auto const& child : *set) letGo(*child);
  }
  for (auto& [carrier, batch] : batches) {
    ::close(batch.outputFd);
    for (auto const& member : batch.members) {
      if (member->carrier_ == carrier) letGo(*member);
    }
  }
  while (auto entry = waiting_.deq()) {
    closeStdio(entry->setup);
    letGo(*entry->child);
  }
}

void ChildManager::reportEnd(Ptr<ChildSiginfo> const& child, ChildSiginfo::SignalCode code, int exitStatus) {
  // The child, not the manager, is asked on delivery: a manager that let the
  // child go (or is gone) has cleared its back pointer.
  loop_.deferredIs([child, code, exitStatus] {
    if (ChildManager* manager = child->manager_) manager->deliverEnd(child, code, exitStatus);
  });
}

pid_t ChildManager::launch(Ptr<ChildSiginfo> const& child, ChildSetup const& setup) {
  try {
    return launcher_->launch(child, setup);
  } catch (...) {
    // The process may have been started before the failure: it is killed
    // and reaped, and the child ends as one that could not start, so that
    // no descriptor, zombie or half-started child is left.
    KEL_TRACE(1, "launching " << child->argv()[0] << " failed");
    launcher_->childDel(*child);
    return 0;
  }
}

void ChildManager::start(Ptr<ChildSiginfo> const& child, ChildSetup const& setup) {
  ChildSetup own = setup;
  // A capture that cannot be made leaves the child our stderr, as it would
  // have had without one.
  if (child->capturesStderr_) own.stderrFd = memoryFileOf({});
  pid_t const pid = launch(child, own);
  if (own.stderrFd != setup.stderrFd) {
    if (pid > 0) {
      child->errorOutputFd_ = own.stderrFd;
    } else {
      ::close(own.stderrFd);
    }
  }
  if (pid <= 0) {
    endEarly(child, ChildSiginfo::exited, 127);
    return;
  }
  child->phase_ = ChildSiginfo::Phase::running;
  running_.insert(child);
  child->pidIs(pid);
}

void ChildManager::startWaiting() {
  while (!waiting_.empty() && slotFree()) {
    auto entry = waiting_.deq();
    // Its own place in waitingByKey_ keeps the key standing.
    if (entry->key) {
      auto members = mergedWith(entry->child, *entry->key);
      if (members.size() > 1) {
        startBatch(members);
        continue;
      }
    }
    start(entry->child, entry->setup);
    closeStdio(entry->setup);
  }
  if (waiting_.empty()) waitingByKey_.clear();
}

void ChildManager::startWaitingSoon() {
  if (startWaitingScheduled_) return;
  startWaitingScheduled_ = true;
  loop_.deferredIs([self = std::weak_ptr<ChildManager*>(self_)] {
    auto const manager = self.lock();
    if (!manager) return;
    (*manager)->startWaitingScheduled_ = false;
    (*manager)->startWaiting();
  });
}

std::vector<Ptr<ChildSiginfo>> ChildManager::mergedWith(Ptr<ChildSiginfo> const& head, std::string const& key) {
  std::vector<Ptr<ChildSiginfo>> members{head};
  auto const found = waitingByKey_.find(key);
  if (found == waitingByKey_.end()) return members;
  auto& queue = found->second;
  while (!queue.empty() && members.size() < head->batchLimit_) {
    auto const [index, child] = queue.front();
    queue.pop_front();
    // The head has left the queue already; so has a child killed while it
    // waited, whose index may since have gone to another.
    Waiting const* entry = waiting_.at(index);
    if (!entry || entry->child.ptr() != child) continue;
    members.push_back(entry->child);
    waiting_.del(index);
  }
  if (queue.empty()) waitingByKey_.erase(found);
  return members;
}

void ChildManager::startBatch(std::vector<Ptr<ChildSiginfo>> const& members) {
  ChildBatcher::Carrier work = batcher_->carrierOf(members);
  int const input = memoryFileOf(work.input);
  int const output = input < 0 ? -1 : memoryFileOf({});
  int const errors = output < 0 ? -1 : members.front()->capturesStderr_ ? memoryFileOf({}) : -1;
  Ptr<ChildSiginfo> carrier = new ChildSiginfo(ChildArgs(work.argv));
  carrier->manager_ = this;
  pid_t const pid = output < 0 ? 0 : launch(carrier, ChildSetup{input, output, errors, -1});
  if (input >= 0) ::close(input);
  carrier->errorOutputFd_ = errors;
  if (pid <= 0) {
    if (output >= 0) ::close(output);
    for (auto const& member : members) endEarly(member, ChildSiginfo::exited, 127);
    return;
  }
  carrier->phase_ = ChildSiginfo::Phase::running;
  carrier->pid_ = pid;
  running_.insert(carrier);
  batches_.emplace(carrier.ptr(), Batch{members, members.size(), output});
  for (auto const& member : members) {
    member->phase_ = ChildSiginfo::Phase::running;
    member->carrier_ = carrier.ptr();
  }
  for (auto const& member : members) member->pidIs(pid);
}

void ChildManager::endMembers(ChildSiginfo& carrier, Batch& batch, ChildBatcher::End end) {
  std::string const output = contentsOf(batch.outputFd);
  std::vector<ChildBatcher::End> ends(batch.members.size(), end);
  if (batcher_) ends = batcher_->endsOf(batch.members.size(), end, output);
  std::vector<std::string> errors;
  if (!carrier.errorOutput_.empty()) {
    errors = batcher_ ? batcher_->errorOutputsOf(batch.members, ends, carrier.errorOutput_)
                      : std::vector<std::string>(batch.members.size(), carrier.errorOutput_);
  }
  std::vector<bool> attached(batch.members.size());
  for (std::size_t i = 0; i < batch.members.size(); ++i) {
    ChildSiginfo& member = *batch.members[i];
    // A member killed meanwhile has been told its own end.
    attached[i] = member.carrier_ == &carrier;
    if (!attached[i]) continue;
    member.carrier_ = nullptr;
    member.phase_ = ChildSiginfo::Phase::done;
    member.manager_ = nullptr;
  }
  startWaiting();
  // What the members ask for next is due together again: it waits for the
  // next turn as a whole instead of its first child starting alone.
  if (std::count(attached.begin(), attached.end(), true) > 1) startWaitingSoon();
  for (std::size_t i = 0; i < batch.members.size(); ++i) {
    if (!attached[i] || i >= ends.size()) continue;
    if (i < errors.size()) batch.members[i]->errorOutput_ = std::move(errors[i]);
    batch.members[i]->endedIs(ends[i].code, ends[i].exitStatus);
  }
}

void ChildManager::kill(ChildSiginfo& child, int signal) {
  switch (child.phase_) {
    case ChildSiginfo::Phase::waiting: {
      Ptr<ChildSiginfo> const keep = &child;
      ChildSetup setup = waiting_.at(child.waitIndex_)->setup;
      waiting_.del(child.waitIndex_);
      closeStdio(setup);
      endEarly(keep, ChildSiginfo::killed, signal);
      break;
    }
    case ChildSiginfo::Phase::running:
      if (ChildSiginfo* const carrier = std::exchange(child.carrier_, nullptr)) {
        // The others go on; the process goes once none of them is left.
        endEarly(&child, ChildSiginfo::killed, signal);
        if (--batches_.at(carrier).attached == 0) launcher_->kill(*carrier, signal);
        break;
      }
      launcher_->kill(child, signal);
      break;
    case ChildSiginfo::Phase::ending:
    case ChildSiginfo::Phase::done: break;
  }
}

void ChildManager::endEarly(Ptr<ChildSiginfo> const& child, ChildSiginfo::SignalCode code, int exitStatus) {
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
  if (child->errorOutputFd_ >= 0) {
    child->errorOutput_ = contentsOf(std::exchange(child->errorOutputFd_, -1), ChildSiginfo::maxErrorOutput);
  }
  if (auto batch = batches_.extract(child.ptr())) {
    endMembers(*child, batch.mapped(), {code, exitStatus});
    return;
  }
  startWaiting();
  child->endedIs(code, exitStatus);
}

}  // namespace Kel
