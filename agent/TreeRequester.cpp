#include "agent/TreeRequester.h"

#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <cmath>
#include <sstream>

#include "FileReplication/FileReplicationUtils.h"
#include "agent/TreeWalk.h"
#include "runtime/ActivityManager.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("AgentTree")

namespace Agent {

using FileReplication::FileStatus;
using FileReplication::InotifyEvent;
using FileReplication::LogPriority;

namespace {

// How long before the period's runs the trees are read, so that the runs
// find the files the trees hold.
constexpr double rescanLead = 0.001;

// The first key past every path under dir: '0' follows '/'.
std::string pastUnder(std::string const& dir) { return dir + "0"; }

bool isUnder(std::string const& path, std::string const& dir) {
  return path.size() > dir.size() && path.starts_with(dir) && path[dir.size()] == '/';
}

std::string rootDir(TreeEntry const& entry) { return entry.root().substr(0, entry.root().size() - 1); }

// A regular file, or a link to one.
bool isFile(std::string const& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool isDirectory(std::string const& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool isGone(std::string const& path) {
  struct stat st;
  return lstat(path.c_str(), &st) != 0 && FileReplication::Utils::missing(errno);
}

double clockMs(clockid_t clock) {
  timespec ts;
  clock_gettime(clock, &ts);
  return double(ts.tv_sec) * 1e3 + double(ts.tv_nsec) / 1e6;
}

std::string describeErrno(int error) {
  char buffer[256];
  return strerror_r(error, buffer, sizeof buffer);
}

}  // namespace

// Hears the runs of a file that went: once one has replicated its deletion,
// the file can be dropped.
class TreeRequester::DepartureReactor : public FileStatus::NotifieeConst {
 public:
  explicit DepartureReactor(TreeRequester* owner) : owner_(owner) {}
  void onStatus() override {
    // Not now: the machine is still inside the run's ending.
    if (notifier()->status() == FileStatus::synchronized) owner_->sweepSoon();
  }

 private:
  TreeRequester* owner_;
};

class TreeRequester::SweepTimer : public Kel::Clock::NotifieeConst {
 public:
  explicit SweepTimer(TreeRequester* owner) : owner_(owner) {}
  void onTime() override { owner_->sweep(); }

 private:
  TreeRequester* owner_;
};

class TreeRequester::RescanTimer : public Kel::Clock::NotifieeConst {
 public:
  explicit RescanTimer(TreeRequester* owner) : owner_(owner) {}
  void onTime() override {
    owner_->rescan();
    owner_->armRescan();
  }

 private:
  TreeRequester* owner_;
};

TreeRequester::TreeRequester(Kel::Ptr<FileReplication::Config> config, Kel::Ptr<FileReplication::Status> status,
                             RequesterSettings const& settings, Hooks hooks)
    : config_(std::move(config)), status_(std::move(status)), hooks_(std::move(hooks)) {
  for (auto const& f : settings.files) {
    if (TreeEntry::kindOf(f.path) == TreeEntry::Kind::file) {
      alone_.insert(f.path);
    } else {
      entries_.emplace_back(f);
    }
  }
  unreadable_.resize(entries_.size());
  settings_ = settings;
  sweepTimer_ = new SweepTimer(this);
  sweepTimer_->notifierIs(Kel::activityManager()->clock());
  rescanTimer_ = new RescanTimer(this);
  rescanTimer_->notifierIs(Kel::activityManager()->clock());
}

TreeRequester::~TreeRequester() {
  sweepTimer_->notifierIs(nullptr);
  rescanTimer_->notifierIs(nullptr);
  for (auto& [path, m] : members_) {
    if (m.reactor) m.reactor->notifierIs(nullptr);
  }
}

bool TreeRequester::sameEntries(RequesterSettings const& settings) const {
  return settings.mode == settings_.mode && settings.files == settings_.files;
}

void TreeRequester::settingsIs(RequesterSettings const& settings) {
  settings_ = settings;
  // The applier brings the requester in line with what is held, in its own
  // order; until then nothing is changed behind its back.
  live_ = false;
  if (!settings_.enabled) {
    // A disabled requester runs nothing: nothing to follow either.
    for (auto& [key, follower] : followers_) follower->retire();
    followers_.clear();
  }
}

Kel::Ptr<FileReplication::RequesterConfig> TreeRequester::requesterConfig() const {
  return config_->requester(Kel::Name(settings_.name));
}

Kel::Ptr<FileStatus> TreeRequester::fileStatus(std::string const& path) const {
  auto rs = status_->requester(Kel::Name(settings_.name));
  return rs ? rs->file(Kel::Name(path)) : nullptr;
}

bool TreeRequester::inotify() const {
  return settings_.mode == FileReplication::RequesterConfig::inotify && settings_.enabled;
}

// Traced with what it cost, which grows with the trees.
void TreeRequester::rescan() {
  double const wall = clockMs(CLOCK_MONOTONIC), cpu = clockMs(CLOCK_THREAD_CPUTIME_ID);
  for (std::size_t k = 0; k < entries_.size(); ++k) rescanUnder(k, rootDir(entries_[k]));
  KEL_TRACE(2, "rescan of " << settings_.name << ": " << members_.size() << " files, "
                            << clockMs(CLOCK_MONOTONIC) - wall << " ms, " << clockMs(CLOCK_THREAD_CPUTIME_ID) - cpu
                            << " ms CPU");
}

void TreeRequester::appendFiles(std::vector<FileSettings>& files) const {
  for (auto const& [path, m] : members_) files.push_back(entries_[m.entry].fileOf(path.str()));
}

void TreeRequester::follow() {
  live_ = true;
  // Gone while not followed: nothing may have asked their machines yet.
  for (auto const& path : departing_) {
    watchDeparture(path, members_.find(path)->second);
    if (hooks_.replicate) hooks_.replicate(path);
  }
  armRescan();
  sweepSoon();
}

void TreeRequester::armRescan() {
  if (settings_.mode != FileReplication::RequesterConfig::periodic || !settings_.enabled) {
    rescanTimer_->timeMinIs(Kel::Clock::never);
    return;
  }
  double const now = Kel::now();
  double next = hooks_.nextRun ? hooks_.nextRun() : Kel::Clock::never;
  if (!std::isfinite(next)) next = now + settings_.period;
  while (next - rescanLead <= now) next += settings_.period;
  rescanTimer_->timeMinIs(next - rescanLead);
}

// Watches come before the reading, so that nothing made in between is missed.
void TreeRequester::rescanUnder(std::size_t k, std::string const& dir) {
  TreeEntry const& entry = entries_[k];
  auto watch = [&](std::string const& d) { watchDir(k, d); };
  TreeWalk const walk = walkTree(entry, dir, inotify() ? std::function<void(std::string const&)>(watch) : nullptr);
  std::vector<std::pair<std::string, int>> unreadable;
  for (auto const& u : walk.unreadable) unreadable.emplace_back(u.dir, u.error);
  unreadableIs(k, dir, unreadable);
  std::set<std::string_view> const found(walk.files.begin(), walk.files.end());
  // What is under a directory that cannot be read is not known to be gone.
  auto unknown = [&](std::string const& path) {
    for (auto const& u : walk.unreadable) {
      if (isUnder(path, u.dir)) return true;
    }
    return false;
  };
  std::string const past = pastUnder(dir);
  for (auto it = members_.lower_bound(dir + "/"); it != members_.end() && it->first.str() < past; ++it) {
    if (it->second.entry != k) continue;
    std::string const& path = it->first.str();
    if (found.contains(path)) {
      returned(path, it->second);
    } else if (!unknown(path)) {
      depart(path, it->second);
    }
  }
  for (auto const& path : walk.files) {
    if (!members_.contains(path)) add(k, path);
  }
  // A directory may have taken the name of a file that went.
  if (!departing_.empty()) sweepSoon();
}

void TreeRequester::considerFile(std::size_t k, std::string const& path) {
  if (!entries_[k].wants(path)) return;
  auto const it = members_.find(path);
  if (it != members_.end()) {
    if (it->second.entry == k && isFile(path)) returned(path, it->second);
    return;
  }
  if (isFile(path)) add(k, path);
}

void TreeRequester::add(std::size_t k, std::string const& path) {
  if (alone_.contains(path)) return;
  members_.emplace(Kel::Name(path), Member{k, Kel::Clock::never, nullptr});
  if (!live_) return;
  auto rc = requesterConfig();
  if (!rc || rc->file(Kel::Name(path))) return;
  auto const f = entries_[k].fileOf(path);
  rc->newFile(Kel::Name(path), f.dstPath, f.rsyncOptions);
}

void TreeRequester::depart(std::string const& path, Member& m) {
  if (std::isfinite(m.departedAt)) return;
  m.departedAt = Kel::now();
  departing_.insert(path);
  if (!live_) return;
  watchDeparture(path, m);
  if (hooks_.replicate) hooks_.replicate(path);
}

void TreeRequester::departUnder(std::size_t k, std::string const& dir) {
  std::string const past = pastUnder(dir);
  for (auto it = members_.lower_bound(dir + "/"); it != members_.end() && it->first.str() < past; ++it) {
    if (it->second.entry == k) depart(it->first.str(), it->second);
  }
  if (auto it = members_.find(dir); it != members_.end() && it->second.entry == k) depart(dir, it->second);
}

void TreeRequester::returned(std::string const& path, Member& m) {
  if (!std::isfinite(m.departedAt)) return;
  m.departedAt = Kel::Clock::never;
  departing_.erase(path);
  if (m.reactor) m.reactor->notifierIs(nullptr);
  m.reactor = nullptr;
}

void TreeRequester::watchDeparture(std::string const& path, Member& m) {
  auto const fs = fileStatus(path);
  if (!m.reactor) m.reactor = new DepartureReactor(this);
  m.reactor->notifierIs(fs);
}

void TreeRequester::sweepSoon() { sweepTimer_->timeMinIs(Kel::now()); }

// A file is dropped once a run that began after it went has succeeded and it
// is still gone: that run deleted its copies. One whose name a directory
// took is dropped at once, since its machine would try to copy the
// directory, and its copies are deleted on the way: a deletion refuses a
// directory, so one already copied in their place stays.
void TreeRequester::sweep() {
  retired_.clear();
  auto rc = requesterConfig();
  std::vector<std::string> dropped;
  for (auto const& path : departing_) {
    Member& m = members_.find(path)->second;
    if (isDirectory(path)) {
      auto const f = rc ? rc->file(Kel::Name(path)) : nullptr;
      if (f) FileReplication::Commands::deleteFile(rc->remoteHostsString(), f->dstPath(), rc->sshOptions());
      dropped.push_back(path);
      continue;
    }
    auto const fs = fileStatus(path);
    if (!fs || fs->status() != FileStatus::synchronized || fs->lastSynchronized() < m.departedAt) continue;
    if (!isGone(path)) continue;
    dropped.push_back(path);
  }
  for (auto const& path : dropped) {
    auto it = members_.find(path);
    if (it->second.reactor) it->second.reactor->notifierIs(nullptr);
    members_.erase(it);
    departing_.erase(path);
    if (rc && rc->file(Kel::Name(path))) rc->fileDel(Kel::Name(path));
  }
}

void TreeRequester::watchDir(std::size_t k, std::string const& dir) {
  FollowerKey key{k, dir};
  if (followers_.contains(key)) return;
  TreeDirFollower::Listener* const listener = this;
  followers_.emplace(key, std::make_unique<TreeDirFollower>(listener, k, dir, settings_.retryInterval));
}

void TreeRequester::unwatchUnder(std::size_t k, std::string const& dir) {
  auto retire = [this](auto it) {
    it->second->retire();
    retired_.push_back(std::move(it->second));
    return followers_.erase(it);
  };
  if (auto it = followers_.find({k, dir}); it != followers_.end()) retire(it);
  // "dir-x" sorts between dir and what is under it.
  for (auto it = followers_.lower_bound({k, dir + "/"});
       it != followers_.end() && it->first.first == k && isUnder(it->first.second, dir);) {
    it = retire(it);
  }
  sweepSoon();
}

void TreeRequester::unreadableIs(std::size_t k, std::string const& dir,
                                 std::vector<std::pair<std::string, int>> const& found) {
  auto& known = unreadable_[k];
  known.erase(dir);
  for (auto it = known.lower_bound(dir + "/"); it != known.end() && isUnder(it->first, dir);) it = known.erase(it);
  for (auto const& [d, error] : found) {
    if (known.emplace(d, error).second && live_) {
      hooks_.say(LogPriority::warning, "requester " + settings_.name + ": cannot read the directory " + d + " (" +
                                           describeErrno(error) + "); the rest of " + entries_[k].settings().path +
                                           " is replicated");
    }
  }
}

void TreeRequester::onTreeDirEntry(std::size_t k, std::string const& dir, InotifyEvent const& event) {
  std::string const name = event.fileName().str();
  if (name.empty()) return;
  std::string const path = dir + "/" + name;
  if (event.eventType() == InotifyEvent::deleted) {
    if (event.isDirectory()) {
      unwatchUnder(k, path);
      departUnder(k, path);
    } else if (auto it = members_.find(path); it != members_.end() && it->second.entry == k) {
      depart(path, it->second);
    }
  } else if (event.isDirectory()) {
    if (event.eventType() == InotifyEvent::created && entries_[k].entersDir(path)) rescanUnder(k, path);
  } else if (event.eventType() != InotifyEvent::none) {
    considerFile(k, path);
  }
}

void TreeRequester::onTreeDirAnew(std::size_t k, std::string const& dir) {
  // The watch reports its own failures, with the sysctl to raise. A
  // directory below the root that went is its parent's to see again.
  if (dir != rootDir(entries_[k]) && isGone(dir)) {
    unwatchUnder(k, dir);
    departUnder(k, dir);
    return;
  }
  rescanUnder(k, dir);
}

void TreeRequester::onTreeDirOverflow() {
  auto const* watches = FileReplication::InotifyWatches::current();
  std::uint64_t const overflows = watches ? watches->overflows() : 0;
  if (overflows == overflowsSeen_) return;
  overflowsSeen_ = overflows;
  rescan();
}

std::string const* TreeRequester::entryOf(std::string const& path) const {
  auto const it = members_.find(path);
  return it == members_.end() ? nullptr : &entries_[it->second.entry].settings().path;
}

nlohmann::json TreeRequester::status() const {
  nlohmann::json entries = nlohmann::json::array();
  std::vector<std::map<std::string, std::size_t>> counts(entries_.size());
  std::vector<std::size_t> files(entries_.size());
  std::vector<std::size_t> going(entries_.size());
  for (auto const& [path, m] : members_) {
    ++files[m.entry];
    going[m.entry] += std::isfinite(m.departedAt);
    auto const fs = fileStatus(path.str());
    std::ostringstream text;
    if (fs && fs->status() != FileStatus::unknown) {
      text << fs->status();
    } else {
      text << "unknown";
    }
    ++counts[m.entry][text.str()];
  }
  for (std::size_t k = 0; k < entries_.size(); ++k) {
    nlohmann::json entry = {{"path", entries_[k].settings().path},
                            {"kind", entries_[k].kind() == TreeEntry::Kind::tree ? "tree" : "pattern"},
                            {"files", files[k]},
                            {"deleting", going[k]},
                            {"byStatus", counts[k]}};
    if (!unreadable_[k].empty()) {
      nlohmann::json unreadable = nlohmann::json::object();
      for (auto const& [dir, error] : unreadable_[k]) unreadable[dir.empty() ? "/" : dir] = describeErrno(error);
      entry["unreadable"] = std::move(unreadable);
    }
    entries.push_back(std::move(entry));
  }
  return entries;
}

}  // namespace Agent
