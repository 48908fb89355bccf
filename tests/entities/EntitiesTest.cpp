#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "entities/Config.h"
#include "entities/Status.h"
#include "runtime/Exception.h"
#include "tests/entities/RequesterLog.h"

namespace FileReplication {
namespace {

TEST(EntitiesTest, RequesterConfigNotifiesEachRealChangeOnce) {
  auto rc = RequesterConfig::RequesterConfigIs("r", RequesterConfig::inotify);
  std::vector<std::string> log;
  Kel::Ptr<RequesterLog> logger(new RequesterLog(log));
  logger->notifierIs(rc);
  rc->enabledIs(true);
  rc->enabledIs(true);
  rc->periodIs(60);  // the default: no change
  rc->periodIs(30);
  rc->replicationTimeoutIs(5);
  rc->retryIntervalIs(2);
  rc->syncErrorThresholdIs(7);
  rc->remoteHostReplicationDelayIs(1);
  rc->sshOptionsIs("");  // the default: no change
  rc->sshOptionsIs("-p 2222");
  rc->sshOptionsIs("-p 2222");
  auto f = rc->newFile("/a", "/b", "-a");
  rc->fileIs(f);  // the same entity again
  rc->newFile("/c", "/c", "");
  rc->fileDel("/a");
  rc->fileDel("/missing");
  rc->remoteHostIs("h1");
  rc->remoteHostIs("h1");
  rc->remoteHostIs("h2");
  rc->remoteHostDel("h1");
  rc->remoteHostDel(rc->remoteHost("h2")->hostOrIp());  // the entry's own key
  rc->remoteHostIs("h2");
  rc->remoteHostDelAll();
  rc->fileDelAll();
  EXPECT_EQ((std::vector<std::string>{"r enabled", "r period", "r replicationTimeout", "r retryInterval",
                                      "r syncErrorThreshold", "r remoteHostReplicationDelay", "r sshOptions -p 2222",
                                      "r file /a", "r file /c", "r file /a", "r host h1", "r host h2", "r host h1",
                                      "r host h2", "r host h2", "r hosts", "r file /c", "r files"}),
            log);
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
