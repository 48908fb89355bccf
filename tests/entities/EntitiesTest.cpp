#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "entities/Config.h"
#include "entities/Status.h"
#include "runtime/Exception.h"

namespace FileReplication {
namespace {

class RequesterLog : public RequesterConfig::NotifieeConst {
 public:
  void onFile(Kel::Name n) override { log.push_back("file " + n.str()); }
  void onFile() override { log.push_back("files"); }
  void onEnabled() override { log.push_back("enabled"); }
  void onRemoteHost(Kel::String h) override { log.push_back("host " + h.str()); }
  void onRemoteHost() override { log.push_back("hosts"); }
  void onReplicationTimeout() override { log.push_back("replicationTimeout"); }
  void onPeriod() override { log.push_back("period"); }
  void onRetryInterval() override { log.push_back("retryInterval"); }
  void onSyncErrorThreshold() override { log.push_back("syncErrorThreshold"); }
  void onRemoteHostReplicationDelay() override { log.push_back("remoteHostReplicationDelay"); }
  std::vector<std::string> log;
};

TEST(EntitiesTest, RequesterConfigNotifiesEachRealChangeOnce) {
  auto rc = RequesterConfig::RequesterConfigIs("r", RequesterConfig::inotify);
  Kel::Ptr<RequesterLog> log(new RequesterLog);
  log->notifierIs(rc);
  rc->enabledIs(true);
  rc->enabledIs(true);
  rc->periodIs(60);  // the default: no change
  rc->periodIs(30);
  rc->replicationTimeoutIs(5);
  rc->retryIntervalIs(2);
  rc->syncErrorThresholdIs(7);
  rc->remoteHostReplicationDelayIs(1);
  auto f = rc->newFile("/a", "/b", "-a");
  rc->fileIs(f);  // the same entity again
  rc->newFile("/c", "/c", "");
  rc->fileDel("/a");
  rc->fileDel("/missing");
  rc->remoteHostIs("h1");
  rc->remoteHostIs("h1");
  rc->remoteHostIs("h2");
  rc->remoteHostDel("h1");
  rc->remoteHostDelAll();
  rc->fileDelAll();
  EXPECT_EQ((std::vector<std::string>{"enabled", "period", "replicationTimeout", "retryInterval",
                                      "syncErrorThreshold", "remoteHostReplicationDelay", "file /a", "file /c",
                                      "file /a", "host h1", "host h2", "host h1", "hosts", "files"}),
            log->log);
  EXPECT_EQ(0u, rc->files());
  EXPECT_EQ(RequesterConfig::inotify, rc->mode());
}

TEST(EntitiesTest, RemoteHostsStringJoinsInCollectionOrder) {
  auto rc = RequesterConfig::RequesterConfigIs("r", RequesterConfig::periodic);
  EXPECT_EQ(Kel::String(""), rc->remoteHostsString());
  rc->remoteHostIs("b.example");
  rc->remoteHostIs("a.example");
  rc->remoteHostIs(" ");
  EXPECT_EQ(Kel::String("b.example,a.example, "), rc->remoteHostsString());
  rc->remoteHostDel("a.example");
  EXPECT_EQ(Kel::String("b.example, "), rc->remoteHostsString());
  ASSERT_NE(nullptr, rc->remoteHost("b.example"));
  EXPECT_EQ(Kel::String("b.example"), rc->remoteHost("b.example")->hostOrIp());
}

TEST(EntitiesTest, ConfigAddsRequestersOnceAndRefusesAnotherModeUnderTheSameName) {
  auto config = Config::ConfigIs();
  auto r = config->newRequester("r", RequesterConfig::periodic);
  EXPECT_EQ(r, config->newRequester("r", RequesterConfig::periodic));
  EXPECT_THROW(config->newRequester("r", RequesterConfig::inotify), Kel::NameInUseException);
  EXPECT_EQ(r, config->requester("r"));
  config->requesterDel("r");
  EXPECT_EQ(nullptr, config->requester("r"));
}

TEST(EntitiesTest, StatusEntriesAreCreatedOnceAndReused) {
  auto status = Status::StatusIs();
  auto rs = status->requesterIs("r");
  EXPECT_EQ(rs, status->requesterIs("r"));
  auto fs = rs->fileIs("/a");
  EXPECT_EQ(fs, rs->fileIs("/a"));
  EXPECT_EQ(FileStatus::unknown, fs->status());
  EXPECT_EQ(0.0, fs->lastSynchronized());
  fs->statusIs(FileStatus::synchronized);
  std::ostringstream text;
  text << fs->status() << ' ' << FileStatus::inProgress << ' ' << FileStatus::failed << ' '
       << static_cast<FileStatus::Status>(9);
  EXPECT_EQ("synchronized inProgress failed FileStatus::Status(9)", text.str());
  rs->fileDel("/a");
  EXPECT_EQ(nullptr, rs->file("/a"));
  status->requesterIs("s");
  status->requesterDelAll();
  EXPECT_EQ(0u, status->requesters());
}

}  // namespace
}  // namespace FileReplication
