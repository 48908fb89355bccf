#pragma once

#include <unordered_map>

#include "runtime/ChildLauncher.h"
#include "runtime/EventLoop.h"

namespace Kel {

class ChildManager;

// Starts real processes with posix_spawnp and learns of their ends through a
// pidfd per child, watched by the loop. Each child is reaped by waitid on its
// own pidfd, never by a wait for any child, so children started elsewhere in
// the process are left to their owners.
class SpawnLauncher : public ChildLauncher {
 public:
  SpawnLauncher(ChildManager& manager, EventLoop& loop);
  ~SpawnLauncher() override;
  SpawnLauncher(SpawnLauncher const&) = delete;
  SpawnLauncher& operator=(SpawnLauncher const&) = delete;

  pid_t launch(Ptr<ChildSiginfo> const& child, ChildSetup const& setup) override;
  // Through the pidfd: a pid the kernel reused after the reaping is never hit.
  void kill(ChildSiginfo const& child, int signal) override;
  // Blocks until the killed child is reaped.
  void childDel(ChildSiginfo const& child) override;

 private:
  // The pidfd of one unreaped child. Owns the descriptor.
  class Watch final : public EventLoop::Source {
   public:
    Watch(SpawnLauncher& launcher, Ptr<ChildSiginfo> child, int pidfd)
        : launcher_(launcher), child_(std::move(child)), pidfd_(pidfd) {}
    void onReadable() override { launcher_.reap(*this); }

    SpawnLauncher& launcher_;
    Ptr<ChildSiginfo> child_;
    int pidfd_;
  };

  void reap(Watch& watch);
  void unwatch(Watch& watch);

  ChildManager& manager_;
  EventLoop& loop_;
  // Nodes stay put, so the loop may keep pointers to the watches.
  std::unordered_map<ChildSiginfo const*, Watch> watches_;
};

}  // namespace Kel
