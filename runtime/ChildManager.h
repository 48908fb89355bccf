#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "runtime/ChildBatcher.h"
#include "runtime/ChildLauncher.h"
#include "runtime/ChildSiginfo.h"
#include "runtime/EventLoop.h"
#include "runtime/LinkQueue.h"

namespace Kel {

class SpawnLauncher;

// The table of child processes started by Kel::run. It holds every child
// until its end has been delivered, so a caller may drop its handle at any
// time and the child is still reaped. Starting and signalling go through a
// replaceable launcher; the manager alone enforces the limit on running
// children.
//
// With a batcher, children that allow it and share a key are merged into
// one process when they are asked for in the same turn or wait for a slot
// together; the first of a turn still starts at once and alone, and the
// others start with the next turn. A merged process takes one slot.
//
// Ends are delivered on a turn of the loop after the launcher learnt of
// them. When a running child ends, the next waiting one is started before
// the ended one's reactors are notified, so that a run started from that
// notification queues behind the children already waiting.
class ChildManager {
 public:
  explicit ChildManager(EventLoop& loop);
  // Kills the running children with SIGKILL and reaps them; none is reported.
  ~ChildManager();
  ChildManager(ChildManager const&) = delete;
  ChildManager& operator=(ChildManager const&) = delete;

  // Kel::run after its checks. A child past the limit waits with pid() 0.
  Ptr<ChildSiginfo> run(ChildArgs argv, ChildSetup const& setup);

  // At most this many children run at once; 0, the default, means no limit.
  // Children past it wait and start first come first served.
  std::size_t maxRunning() const { return maxRunning_; }
  void maxRunningIs(std::size_t n);
  // Started children whose end has not been delivered yet.
  std::size_t running() const { return running_.size(); }
  std::size_t waiting() const { return waiting_.members(); }

  // Not owned; null (the default) runs every child alone.
  ChildBatcher* batcher() const { return batcher_; }
  void batcherIs(ChildBatcher* batcher) { batcher_ = batcher; }

  ChildLauncher& launcher() const { return *launcher_; }
  // Null restores the spawning launcher. Switching first drops every child
  // the manager holds, without reporting it: a test's children must not
  // outlive the test.
  void launcherIs(ChildLauncher* launcher);

  // Kills and reaps every running child and forgets the waiting ones; none
  // of them is reported. For shutdown, and for tests.
  void childDelAll();

  // For launchers: child ended. Delivered on a later turn; a report for a
  // child already delivered or dropped is ignored.
  void reportEnd(Ptr<ChildSiginfo> const& child, ChildSiginfo::SignalCode code, int exitStatus);

  EventLoop& loop() const { return loop_; }

 private:
  friend class ChildSiginfo;

  // A child waiting for a slot. Descriptors given for its stdio are
  // duplicates owned here, so the caller may close its own at once. Its
  // key, when it may share a process, is the one in waitingByKey_, which
  // stands for as long as one of its children waits: thousands waiting
  // together hold it once.
  struct Waiting {
    Ptr<ChildSiginfo> child;
    ChildSetup setup;
    std::string const* key;
  };

  // A process doing the work of several children. Owns outputFd, where
  // the process writes what tells each member's end.
  struct Batch {
    std::vector<Ptr<ChildSiginfo>> members;
    std::size_t attached;
    int outputFd;
  };

  bool slotFree() const { return maxRunning_ == 0 || running_.size() < maxRunning_; }
  // Empty for a child that runs alone.
  std::string keyOf(ChildSiginfo& child, ChildSetup const& setup) const;
  // The launcher's launch; a launcher that throws counts as a failed start.
  pid_t launch(Ptr<ChildSiginfo> const& child, ChildSetup const& setup);
  void start(Ptr<ChildSiginfo> const& child, ChildSetup const& setup);
  void startWaiting();
  // Starts the waiting children on a later turn, after the others asked
  // for in this one.
  void startWaitingSoon();
  // head and the oldest waiting children of its key, up to its limit; they
  // leave the queue.
  std::vector<Ptr<ChildSiginfo>> mergedWith(Ptr<ChildSiginfo> const& head, std::string const& key);
  void startBatch(std::vector<Ptr<ChildSiginfo>> const& members);
  void endMembers(ChildSiginfo& carrier, Batch& batch, ChildBatcher::End end);
  void kill(ChildSiginfo& child, int signal);
  void deliverEnd(Ptr<ChildSiginfo> const& child, ChildSiginfo::SignalCode code, int exitStatus);
  // Decides the end of a child that does not run (any more) and reports it.
  void endEarly(Ptr<ChildSiginfo> const& child, ChildSiginfo::SignalCode code, int exitStatus);

  EventLoop& loop_;
  std::unique_ptr<SpawnLauncher> spawnLauncher_;
  ChildLauncher* launcher_;
  std::size_t maxRunning_ = 0;
  std::unordered_set<Ptr<ChildSiginfo>> running_;
  // Children that never ran, whose end is reported on a later turn.
  std::unordered_set<Ptr<ChildSiginfo>> ending_;
  LinkQueue<Waiting> waiting_;
  ChildBatcher* batcher_ = nullptr;
  bool startWaitingScheduled_ = false;
  // Lets a scheduled start find out that its manager is gone.
  std::shared_ptr<ChildManager*> self_ = std::make_shared<ChildManager*>(this);
  std::unordered_map<ChildSiginfo const*, Batch> batches_;
  // Waiting children by key, oldest first, by wait index. Entries of
  // children that left the queue are skipped when met, and all go when the
  // queue empties.
  std::unordered_map<std::string, std::deque<std::pair<std::uint32_t, ChildSiginfo const*>>> waitingByKey_;
};

}  // namespace Kel
