#include "agent/ConfigApplier.h"

#include <cerrno>
#include <exception>
#include <string_view>
#include <unordered_set>

#include "runtime/Exception.h"

namespace Agent {

namespace {

using FileReplication::Config;
using FileReplication::RequesterConfig;

// The setters notify only on a real change.
void scalarsIs(RequesterConfig& rc, RequesterSettings const& s) {
  rc.periodIs(s.period);
  rc.replicationTimeoutIs(s.replicationTimeout);
  rc.retryIntervalIs(s.retryInterval);
  rc.syncErrorThresholdIs(s.syncErrorThreshold);
  rc.remoteHostReplicationDelayIs(s.remoteHostReplicationDelay);
  rc.maxFilesPerRunIs(s.maxFilesPerRun);
  rc.deleteDelayIs(s.deleteDelay);
  rc.sshOptionsIs(s.sshOptions);
}

// New hosts go in before gone ones come out: a requester that swaps its only
// host never passes through having none, which would stop the replication
// of every file whose dstPath is its path, and start it again.
void remoteHostsIs(RequesterConfig& rc, RequesterSettings const& s) {
  for (auto const& host : s.remoteHosts) rc.remoteHostIs(host);
  if (rc.remoteHosts() == s.remoteHosts.size()) return;
  std::unordered_set<std::string_view> const wanted(s.remoteHosts.begin(), s.remoteHosts.end());
  std::vector<Kel::String> gone;
  for (auto const& [key, host] : rc.remoteHost()) {
    if (!wanted.contains(key)) gone.push_back(key);
  }
  for (auto const& host : gone) rc.remoteHostDel(host);
}

std::vector<Kel::Name> goneFiles(RequesterConfig const& rc, RequesterSettings const& s) {
  std::vector<Kel::Name> gone;
  if (rc.files() == 0) return gone;
  std::unordered_set<std::string_view> wanted;
  for (auto const& f : s.files) wanted.insert(f.path);
  for (auto const& [path, file] : rc.file()) {
    if (!wanted.contains(path.str())) gone.push_back(path);
  }
  return gone;
}

// A file that stays keeps its entity: its replication machine holds it and
// reads dstPath and rsyncOptions on every run, so changing them in place
// restarts nothing and the next run uses the new values.
void filesIs(RequesterConfig& rc, RequesterSettings const& s) {
  for (auto const& f : s.files) {
    Kel::Name const path(f.path);
    auto const present = rc.file(path);
    if (!present) {
      rc.newFile(path, f.dstPath, f.rsyncOptions);
      continue;
    }
    if (present->dstPath().str() != f.dstPath) present->dstPathIs(f.dstPath);
    if (present->rsyncOptions().str() != f.rsyncOptions) present->rsyncOptionsIs(f.rsyncOptions);
  }
}

// Complete before it is inserted, so its machine is created with everything
// at once rather than reacting to each setting.
Kel::Ptr<RequesterConfig> requesterConfigOf(RequesterSettings const& s) {
  auto rc = RequesterConfig::RequesterConfigIs(Kel::Name(s.name), s.mode);
  scalarsIs(*rc, s);
  for (auto const& host : s.remoteHosts) rc->remoteHostIs(host);
  for (auto const& f : s.files) rc->newFile(Kel::Name(f.path), f.dstPath, f.rsyncOptions);
  rc->enabledIs(s.enabled);
  return rc;
}

// The machines react to each change as it is made, so the order matters.
// Disabling comes first, so that nothing is started for the changes that
// follow (a new file's machine starts a run at once, a new host schedules
// one); enabling comes last, so that the requester starts once, with all of
// its new settings. Removed files are the exception: the machines ignore
// file changes while a requester is disabled, so they go while it is still
// enabled. A disabled requester that loses files is rebuilt by the caller.
void requesterUpdate(RequesterConfig& rc, RequesterSettings const& s) {
  for (auto const& path : goneFiles(rc, s)) rc.fileDel(path);
  if (!s.enabled) rc.enabledIs(false);
  scalarsIs(rc, s);
  remoteHostsIs(rc, s);
  filesIs(rc, s);
  if (s.enabled) rc.enabledIs(true);
}

void requesterIs(Config& config, RequesterSettings const& s) {
  Kel::Name const name(s.name);
  auto present = config.requester(name);
  // A machine's mode is fixed for its life. A disabled requester would keep
  // the machine of a removed file, which would run again once the requester
  // is enabled; a disabled requester runs nothing, so rebuilding it loses
  // nothing.
  if (present && (present->mode() != s.mode || (!present->enabled() && !goneFiles(*present, s).empty()))) {
    config.requesterDel(name);
    present = nullptr;
  }
  if (present) {
    requesterUpdate(*present, s);
  } else {
    config.requesterIs(requesterConfigOf(s));
  }
}

std::string failureLine(RequesterSettings const& s, std::exception const& e) {
  return "requester \"" + s.name + "\": cannot be set up: " + e.what();
}

std::string failureLine(RequesterSettings const& s, Kel::ErrnoException const& e) {
  std::string const head = "requester \"" + s.name + "\": ";
  if (s.mode == RequesterConfig::inotify) {
    switch (e.error()) {
      case ENOSPC:
        return head +
               "cannot watch its directories: the limit of inotify watches per user is reached; raise "
               "fs.inotify.max_user_watches (sysctl -w fs.inotify.max_user_watches=N)";
      case EMFILE:
        return head +
               "cannot start watching its directories: the limit of inotify instances per user (or of open "
               "descriptors of this process) is reached; raise fs.inotify.max_user_instances (sysctl -w "
               "fs.inotify.max_user_instances=N), or the descriptor limit (ulimit -n)";
    }
  }
  std::string what = e.what();
  if (!e.text().empty()) what = e.text() + ": " + what;
  return head + "cannot be set up: " + what;
}

}  // namespace

std::vector<std::string> applyConfig(AgentConfig const& wanted, Config& config) {
  std::vector<std::string> failures;
  // Removals first: they give back inotify instances and watches that the
  // new requesters may need.
  std::unordered_set<std::string_view> wantedNames;
  for (auto const& s : wanted.requesters) wantedNames.insert(s.name);
  std::vector<Kel::Name> gone;
  for (auto const& [name, rc] : config.requester()) {
    if (!wantedNames.contains(name.str())) gone.push_back(name);
  }
  for (auto const name : gone) {
    try {
      config.requesterDel(name);
    } catch (std::exception const& e) {
      failures.push_back("requester \"" + name.str() + "\": removing it failed: " + e.what());
    }
  }
  for (auto const& s : wanted.requesters) {
    // Out of the tree, the next application adds it again from scratch:
    // that is the retry.
    auto const leaveOut = [&](std::string line) {
      failures.push_back(std::move(line));
      try {
        config.requesterDel(Kel::Name(s.name));
      } catch (std::exception const&) {
        // The entry is erased before anyone is told, so the tree holds
        // without it whatever a reactor did.
      }
    };
    try {
      requesterIs(config, s);
    } catch (Kel::ErrnoException const& e) {
      leaveOut(failureLine(s, e));
    } catch (std::exception const& e) {
      leaveOut(failureLine(s, e));
    }
  }
  return failures;
}

}  // namespace Agent
