#include "agent/ConfigApplier.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <stdexcept>

#include "FileReplication/ConfigSm.h"
#include "entities/Status.h"
#include "runtime/ActivityManager.h"
#include "runtime/Exception.h"
#include "tests/FileReplication/SmTest.h"
#include "tests/entities/RequesterLog.h"

namespace Agent {
namespace {

using FileReplication::Config;
using FileReplication::RequesterConfig;
using FileReplication::RequesterLog;
using Lines = std::vector<std::string>;

// Records the requesters coming and going, and follows each one added.
class TreeLog : public Config::NotifieeConst {
 public:
  using Config::NotifieeConst::onRequester;
  void onNotifier() override {
    for (auto const& [name, rc] : notifier()->requester()) follow(name);
  }
  void onRequester(Kel::Name name) override {
    bool const present = notifier()->requester(name) != nullptr;
    log.push_back((present ? "+" : "-") + name.str());
    if (present) follow(name);
  }
  Lines take() { return std::exchange(log, {}); }

  Lines log;

 private:
  void follow(Kel::Name name) {
    auto& r = requesters_[name.str()];
    r = new RequesterLog(log);
    r->notifierIs(notifier()->requester(name));
  }
  std::map<std::string, Kel::Ptr<RequesterLog>> requesters_;
};

// Stands in for a machine that cannot get its inotify resources.
class FailingRequester : public Config::NotifieeConst {
 public:
  using Config::NotifieeConst::onRequester;
  FailingRequester(std::string name, int error) : name_(std::move(name)), error_(error) {}
  void onRequester(Kel::Name name) override {
    if (name.str() != name_ || !notifier()->requester(name)) return;
    if (error_ == 0) throw std::runtime_error("no machine today");
    throw Kel::ErrnoException(error_, "inotify_init");
  }

 private:
  std::string name_;
  int error_;
};

RequesterSettings web() {
  RequesterSettings r;
  r.name = "web";
  r.remoteHosts = {"h1", "h2"};
  r.period = 30;
  r.sshOptions = "-p 2222";
  r.files = {{"/srv/a", "/dst/a", "-a"}, {"/srv/b", "/srv/b", "-a"}};
  return r;
}

AgentConfig configOf(std::vector<RequesterSettings> requesters) {
  AgentConfig c;
  c.requesters = std::move(requesters);
  return c;
}

class ConfigApplierTest : public testing::Test {
 protected:
  void SetUp() override { log_->notifierIs(config_); }
  Lines apply(AgentConfig const& wanted) { return applyConfig(wanted, *config_); }

  Kel::Ptr<Config> config_ = Config::ConfigIs();
  Kel::Ptr<TreeLog> log_ = new TreeLog;
};

TEST_F(ConfigApplierTest, BuildsEachNewRequesterCompleteBeforeInsertingIt) {
  RequesterSettings db;
  db.name = "db";
  db.mode = RequesterConfig::inotify;
  db.enabled = false;
  db.replicationTimeout = 7;
  db.retryInterval = 3;
  db.syncErrorThreshold = 9;
  db.remoteHostReplicationDelay = 0;
  db.deleteDelay = 0;
  db.files = {{"/var/db/x", "/var/db/x", "-az"}};
  EXPECT_EQ(Lines{}, apply(configOf({web(), db})));
  EXPECT_EQ((Lines{"+web", "+db"}), log_->take()) << "no requester is seen half-built";

  auto const w = config_->requester("web");
  ASSERT_NE(nullptr, w);
  EXPECT_EQ(RequesterConfig::periodic, w->mode());
  EXPECT_TRUE(w->enabled());
  EXPECT_EQ(30, w->period());
  EXPECT_EQ(Kel::String("h1,h2"), w->remoteHostsString());
  EXPECT_EQ(Kel::String("-p 2222"), w->sshOptions());
  ASSERT_EQ(2u, w->files());
  EXPECT_EQ(Kel::String("/dst/a"), w->file("/srv/a")->dstPath());
  EXPECT_EQ(Kel::String("-a"), w->file("/srv/b")->rsyncOptions());

  auto const d = config_->requester("db");
  ASSERT_NE(nullptr, d);
  EXPECT_EQ(RequesterConfig::inotify, d->mode());
  EXPECT_FALSE(d->enabled());
  EXPECT_EQ(7, d->replicationTimeout());
  EXPECT_EQ(3, d->retryInterval());
  EXPECT_EQ(9, d->syncErrorThreshold());
  EXPECT_EQ(0, d->remoteHostReplicationDelay());
  EXPECT_EQ(0, d->deleteDelay());
  EXPECT_EQ(0u, d->remoteHosts());
  EXPECT_EQ(Kel::String("-az"), d->file("/var/db/x")->rsyncOptions());
}

TEST_F(ConfigApplierTest, ReapplyingChangesOnlyWhatDiffers) {
  RequesterSettings other = web();
  other.name = "other";
  apply(configOf({web(), other}));
  log_->take();
  auto const requester = config_->requester("web");
  auto const fileA = requester->file("/srv/a");

  EXPECT_EQ(Lines{}, apply(configOf({web(), other})));
  EXPECT_EQ(Lines{}, log_->take()) << "the same configuration again changes nothing";

  auto changed = web();
  changed.period = 45;
  changed.sshOptions = "-p 22";
  apply(configOf({changed, other}));
  EXPECT_EQ((Lines{"web period", "web sshOptions -p 22"}), log_->take());

  // Hosts: the new one goes in before the gone one comes out.
  changed.remoteHosts = {"h2", "h3"};
  changed.files = {{"/srv/a", "/dst/a2", "-az"}, {"/srv/c", "/srv/c", "-a"}};
  apply(configOf({changed, other}));
  EXPECT_EQ((Lines{"web file /srv/b", "web host h3", "web host h1", "web file /srv/c"}), log_->take());
  EXPECT_EQ(requester, config_->requester("web")) << "changed in place";
  EXPECT_EQ(fileA, requester->file("/srv/a")) << "a file's attributes change on its own entity, unnotified";
  EXPECT_EQ(Kel::String("/dst/a2"), fileA->dstPath());
  EXPECT_EQ(Kel::String("-az"), fileA->rsyncOptions());
  EXPECT_EQ(Kel::String("h2,h3"), requester->remoteHostsString());

  // Gone from the file: removed, and the others untouched.
  apply(configOf({changed}));
  EXPECT_EQ(Lines{"-other"}, log_->take());
  apply(AgentConfig());
  EXPECT_EQ(Lines{"-web"}, log_->take());
  EXPECT_EQ(0u, config_->requesters());
}

TEST_F(ConfigApplierTest, DisablesBeforeAndEnablesAfterTheOtherChanges) {
  apply(configOf({web()}));
  log_->take();

  auto disabled = web();
  disabled.enabled = false;
  disabled.period = 10;
  disabled.files = {{"/srv/a", "/dst/a", "-a"}, {"/srv/new", "/srv/new", "-a"}};
  apply(configOf({disabled}));
  // The gone file goes while the requester is still enabled: a disabled
  // requester's machine would not let go of it.
  EXPECT_EQ((Lines{"web file /srv/b", "web disabled", "web period", "web file /srv/new"}), log_->take());

  auto enabled = disabled;
  enabled.enabled = true;
  enabled.period = 20;
  enabled.remoteHosts = {"h1"};
  enabled.files.push_back({"/srv/later", "/srv/later", "-a"});
  apply(configOf({enabled}));
  EXPECT_EQ((Lines{"web period", "web host h2", "web file /srv/later", "web enabled"}), log_->take());

  // Losing a file while disabled rebuilds the requester instead.
  disabled = enabled;
  disabled.enabled = false;
  apply(configOf({disabled}));
  log_->take();
  disabled.files.pop_back();
  apply(configOf({disabled}));
  EXPECT_EQ((Lines{"-web", "+web"}), log_->take());
  EXPECT_EQ(nullptr, config_->requester("web")->file("/srv/later"));
}

TEST_F(ConfigApplierTest, AModeChangeReplacesTheRequester) {
  apply(configOf({web()}));
  auto const before = config_->requester("web");
  log_->take();
  auto inotify = web();
  inotify.mode = RequesterConfig::inotify;
  EXPECT_EQ(Lines{}, apply(configOf({inotify})));
  EXPECT_EQ((Lines{"-web", "+web"}), log_->take());
  EXPECT_NE(before, config_->requester("web"));
  EXPECT_EQ(RequesterConfig::inotify, config_->requester("web")->mode());
  EXPECT_EQ(2u, config_->requester("web")->files());
}

TEST_F(ConfigApplierTest, ARequesterThatFailsIsLeftOutAndTheOthersApplied) {
  Kel::Ptr<FailingRequester> failing = new FailingRequester("bad", ENOSPC);
  failing->notifierIs(config_);
  RequesterSettings bad = web();
  bad.name = "bad";
  bad.mode = RequesterConfig::inotify;
  RequesterSettings good = web();
  good.name = "good";
  auto const wanted = configOf({web(), bad, good});

  Lines const limit{
      "requester \"bad\": cannot watch its directories: the limit of inotify watches per user is reached; raise "
      "fs.inotify.max_user_watches (sysctl -w fs.inotify.max_user_watches=N)"};
  EXPECT_EQ(limit, apply(wanted));
  EXPECT_EQ((Lines{"+web", "+bad", "-bad", "+good"}), log_->take());
  EXPECT_EQ(nullptr, config_->requester("bad"));
  EXPECT_NE(nullptr, config_->requester("good"));

  // Every application tries it again from scratch, and once it works it stays.
  EXPECT_EQ(limit, apply(wanted));
  EXPECT_EQ((Lines{"+bad", "-bad"}), log_->take());
  failing->notifierIs(nullptr);
  EXPECT_EQ(Lines{}, apply(wanted));
  EXPECT_EQ(Lines{"+bad"}, log_->take());
  EXPECT_EQ(3u, config_->requesters());

  // The other limit, and failures that are not about inotify.
  config_->requesterDel("bad");
  failing = new FailingRequester("bad", EMFILE);
  failing->notifierIs(config_);
  auto const instances = apply(wanted);
  ASSERT_EQ(1u, instances.size());
  EXPECT_NE(std::string::npos, instances[0].find("sysctl -w fs.inotify.max_user_instances=N")) << instances[0];
  failing = new FailingRequester("web", 0);
  failing->notifierIs(config_);
  config_->requesterDel("web");
  EXPECT_EQ((Lines{"requester \"web\": cannot be set up: no machine today"}), apply(configOf({web()})));
}

// With the real machines: reapplying starts nothing, and a file's new options
// reach its next run without a restart.
class ConfigApplierIntegration : public FileReplication::SmTest {
 protected:
  void SetUp() override {
    writeFile(path("a"), "a");
    writeFile(path("b"), "b");
    configSm_ = FileReplication::configSmFactory(config_, status_);
  }
  void dropMachines() override { configSm_ = nullptr; }

  RequesterSettings requester() const {
    RequesterSettings r;
    r.name = "web";
    r.remoteHosts = {"h1"};
    r.period = 60;
    // One launch per file, so that each file's options can be read off it.
    r.maxFilesPerRun = 1;
    r.files = {{path("a"), "/dst/a", "-a"}, {path("b"), "/dst/b", "-a"}};
    return r;
  }
  // The files of the launches from index first on, with their options and
  // any ssh options.
  Lines runs(std::size_t first) const {
    Lines seen;
    for (std::size_t i = first; i < children_.launches(); ++i) {
      auto const& argv = children_.child(i).argv;
      auto const source = std::find(argv.begin(), argv.end(), "--source");
      auto const options = std::find(argv.begin(), argv.end(), "--rsyncOptions");
      auto const ssh = std::find(argv.begin(), argv.end(), "--sshOptions");
      if (source == argv.end() || options == argv.end()) continue;
      seen.push_back(source[1].substr(dir_.path().size()) + " " + options[1] + (ssh == argv.end() ? "" : " " + ssh[1]));
    }
    return seen;
  }

  Kel::Ptr<Config> config_ = Config::ConfigIs();
  Kel::Ptr<FileReplication::Status> status_ = FileReplication::Status::StatusIs();
  Kel::Ptr<FileReplication::ConfigSm> configSm_;
};

TEST_F(ConfigApplierIntegration, ReapplyingRestartsNothingAndNewOptionsReachTheNextRun) {
  auto wanted = configOf({requester()});
  EXPECT_EQ(Lines{}, applyConfig(wanted, *config_));
  EXPECT_EQ((Lines{"/a -a", "/b -a"}), runs(0)) << "each new file is replicated at once";
  endRunning();

  EXPECT_EQ(Lines{}, applyConfig(wanted, *config_));
  wanted.requesters[0].files[0].rsyncOptions = "-az";
  wanted.requesters[0].sshOptions = "-p 2222";
  EXPECT_EQ(Lines{}, applyConfig(wanted, *config_));
  EXPECT_EQ(2u, children_.launches()) << "neither the same settings nor new options start a run";

  clock()->advance(60);
  EXPECT_EQ((Lines{"/a -az -p 2222", "/b -a -p 2222"}), runs(2)) << "the period's run uses the new options";
  wanted.requesters[0].sshOptions = "";
  applyConfig(wanted, *config_);
  ASSERT_EQ(4u, children_.launches());
  for (std::size_t i : {2, 3}) EXPECT_EQ(std::vector<int>{}, children_.child(i).signals) << "runs under way go on";
  endRunning();

  // A file removed while the requester is disabled must not come back
  // when it is enabled again.
  wanted.requesters[0].enabled = false;
  applyConfig(wanted, *config_);
  wanted.requesters[0].files.pop_back();
  applyConfig(wanted, *config_);
  std::size_t const before = children_.launches();
  wanted.requesters[0].enabled = true;
  applyConfig(wanted, *config_);
  EXPECT_EQ(Lines{"/a -az"}, runs(before));
  endRunning();
  clock()->advance(60);
  EXPECT_EQ((Lines{"/a -az", "/a -az"}), runs(before));
  EXPECT_EQ(nullptr, status_->requester("web")->file(Kel::Name(path("b"))));
}

}  // namespace
}  // namespace Agent
