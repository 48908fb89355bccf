#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "FileReplication/DirWatch.h"
#include "FileReplication/Log.h"
#include "agent/AgentConfig.h"
#include "agent/TreeDirFollower.h"
#include "agent/TreeEntry.h"
#include "entities/Config.h"
#include "entities/Status.h"
#include "runtime/Name.h"

namespace Agent {

// The trees and patterns of one requester, expanded into the files they hold
// now. Those files are ordinary files of the requester, added and removed
// through its mutators, so its machines never know where they came from.
//
// Inotify mode follows each directory of a tree through the shared inotify
// instance; periodic mode reads the trees again a moment before each
// period's runs. A file that goes (deleted, moved out, its directory gone)
// stays until a run has replicated its deletion, then is dropped.
class TreeRequester : private TreeDirFollower::Listener {
 public:
  struct Hooks {
    std::function<void(FileReplication::LogPriority, std::string const&)> say;
    // When the requester's machine next runs its period; +infinity unknown.
    std::function<double()> nextRun;
    // Asks the file's machine for a run now: a directory moved away by a
    // rename of its parent tells the machines nothing.
    std::function<void(std::string const&)> replicate;
  };

  // settings: the requester as configured, trees and files alike.
  TreeRequester(Kel::Ptr<FileReplication::Config> config, Kel::Ptr<FileReplication::Status> status,
                RequesterSettings const& settings, Hooks hooks);
  virtual ~TreeRequester();
  TreeRequester(TreeRequester const&) = delete;
  TreeRequester& operator=(TreeRequester const&) = delete;

  // Whether settings expand the same way, so this can stay.
  bool sameEntries(RequesterSettings const& settings) const;
  void settingsIs(RequesterSettings const& settings);
  // Reads every tree again. Until follow(), only what it holds changes, not
  // the requester: what it holds is then applied with the configuration.
  void rescan();
  // Every file held, those still to be deleted included.
  void appendFiles(std::vector<FileSettings>& files) const;
  // Keeps the requester in line with the trees from now on.
  void follow();

  // Per entry: its path, kind, file count and counts by status.
  nlohmann::json status() const;
  // The path of the entry that holds the file; null when none does.
  std::string const* entryOf(std::string const& path) const;

 private:
  class DepartureReactor;
  class SweepTimer;
  class RescanTimer;

  struct Member {
    std::size_t entry;
    // When it was seen gone; +infinity while it is there.
    double departedAt;
    Kel::Ptr<DepartureReactor> reactor;
  };
  using FollowerKey = std::pair<std::size_t, std::string>;
  // Paths in the order of their text, found by a string as well: the
  // configuration interns every file's path anyway, so a member costs no
  // copy of it.
  struct ByPath {
    using is_transparent = void;
    static std::string_view text(Kel::Name n) { return n.str(); }
    static std::string_view text(std::string const& s) { return s; }
    static std::string_view text(std::string_view s) { return s; }
    template <class A, class B>
    bool operator()(A const& a, B const& b) const {
      return text(a) < text(b);
    }
  };

  Kel::Ptr<FileReplication::RequesterConfig> requesterConfig() const;
  Kel::Ptr<FileReplication::FileStatus> fileStatus(std::string const& path) const;
  bool inotify() const;

  void rescanUnder(std::size_t k, std::string const& dir);
  void considerFile(std::size_t k, std::string const& path);
  void add(std::size_t k, std::string const& path);
  void depart(std::string const& path, Member& m);
  void departUnder(std::size_t k, std::string const& dir);
  void returned(std::string const& path, Member& m);
  void watchDeparture(std::string const& path, Member& m);
  void unwatchUnder(std::size_t k, std::string const& dir);
  void watchDir(std::size_t k, std::string const& dir);
  void unreadableIs(std::size_t k, std::string const& dir, std::vector<std::pair<std::string, int>> const& found);
  void sweepSoon();
  void sweep();
  void armRescan();

  void onTreeDirEntry(std::size_t k, std::string const& dir, FileReplication::InotifyEvent const& event) override;
  void onTreeDirAnew(std::size_t k, std::string const& dir) override;
  void onTreeDirOverflow() override;

  Kel::Ptr<FileReplication::Config> config_;
  Kel::Ptr<FileReplication::Status> status_;
  RequesterSettings settings_;
  Hooks hooks_;
  std::vector<TreeEntry> entries_;
  // Files named alone: never taken by a tree.
  std::set<std::string, std::less<>> alone_;
  std::map<Kel::Name, Member, ByPath> members_;
  std::set<std::string, std::less<>> departing_;
  std::vector<std::map<std::string, int, std::less<>>> unreadable_;
  std::map<FollowerKey, std::unique_ptr<TreeDirFollower>> followers_;
  // Let go inside their own callbacks; freed on a later turn.
  std::vector<std::unique_ptr<TreeDirFollower>> retired_;
  Kel::Ptr<SweepTimer> sweepTimer_;
  Kel::Ptr<RescanTimer> rescanTimer_;
  std::uint64_t overflowsSeen_ = 0;
  bool live_ = false;
};

}  // namespace Agent
