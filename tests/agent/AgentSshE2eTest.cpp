#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

#include "tests/agent/AgentProcess.h"
#include "tests/support/TestSshd.h"

namespace Agent {
namespace {

struct Requester {
  std::string name;
  std::string mode;
  std::string hosts;  // the YAML list's items
  std::vector<std::pair<std::string, std::string>> files;  // path, dstPath
};

std::string configText(std::vector<Requester> const& requesters) {
  std::string text = "requesters:\n";
  for (auto const& r : requesters) {
    text += "  " + r.name + ":\n    mode: " + r.mode + "\n    enabled: true\n    remoteHosts: [" + r.hosts +
            "]\n    period: 600\n    replicationTimeout: 20\n    retryInterval: 1\n"
            "    remoteHostReplicationDelay: 1\n    files:\n";
    for (auto const& [path, dstPath] : r.files) {
      text += "      - path: " + path + "\n        dstPath: " + dstPath + "\n        rsyncOptions: \"-a\"\n";
    }
  }
  return text;
}

// Through the command line, as an operator or a monitoring script sees it.
nlohmann::json statusOf(AgentProcess const& agent) {
  ProcessResult const result = runCommand({FILEREP_PROGRAM, "status", "--json", "--socket", agent.socket()});
  if (result.status != 0) return nullptr;
  nlohmann::json status = nlohmann::json::parse(result.out, nullptr, false);
  return status.is_discarded() ? nullptr : status;
}

bool fileIs(AgentProcess const& agent, std::string const& requester, std::string const& path,
            std::string const& status, std::string const& state) {
  nlohmann::json const file = fileStatus(statusOf(agent), requester, path);
  return file.is_object() && file["status"] == status && file["state"] == state;
}

TEST(AgentSshE2e, ReplicatesOverSshAndToAHostAddedAtRunTime) {
  TempDir d;
  TestSshd sshd;
  std::filesystem::create_directories(d / "src");
  writeFile(d / "src/a", "a over ssh");
  writeFile(d / "src/b", "b everywhere");
  Requester web{"web", "inotify", "localhost", {{d / "src/a", d / "remote/a"}}};
  Requester late{"late", "periodic", "", {{d / "src/b", d / "copies/b"}}};
  writeFile(d / "filerep.yaml", configText({web, late}));
  AgentProcess agent(d / "filerep.yaml", d / "filerep.sock", {"RSYNC_RSH=" + sshd.rsyncRsh()});
  ASSERT_TRUE(agent.ready()) << agent.log();

  ASSERT_TRUE(eventually([&] { return fileIs(agent, "web", d / "src/a", "synchronized", "standby"); }))
      << agent.log() << sshd.log();
  EXPECT_EQ("a over ssh", readFile(d / "remote/a"));
  EXPECT_NE(std::string::npos, sshd.log().find("Accepted publickey")) << "the copy went through sshd";
  // Without hosts the copy is local; removing it lets the host's copy show.
  ASSERT_TRUE(eventually([&] { return fileIs(agent, "late", d / "src/b", "synchronized", "standby"); }))
      << agent.log();
  EXPECT_EQ("b everywhere", readFile(d / "copies/b"));
  std::filesystem::remove(d / "copies/b");

  late.hosts = "localhost";
  auto const added = std::chrono::steady_clock::now();
  replaceFile(d / "filerep.yaml", configText({web, late}));
  ASSERT_TRUE(eventually([&] { return readFile(d / "copies/b") == "b everywhere"; })) << agent.log();
  EXPECT_GE(std::chrono::steady_clock::now() - added, std::chrono::seconds(1))
      << "the new host waits remoteHostReplicationDelay";
  EXPECT_TRUE(eventually([&] { return fileIs(agent, "late", d / "src/b", "synchronized", "standby"); }));

  EXPECT_EQ(0, agent.stop(SIGTERM)) << agent.log();
}

TEST(AgentSshE2e, BacksOffWhileSshdIsDownAndCatchesUpOnceItIsBack) {
  TempDir d;
  TestSshd sshd;
  std::filesystem::create_directories(d / "src");
  writeFile(d / "src/a", "before");
  writeFile(d / "filerep.yaml", configText({{"web", "inotify", "localhost", {{d / "src/a", d / "remote/a"}}}}));
  AgentProcess agent(d / "filerep.yaml", d / "filerep.sock", {"RSYNC_RSH=" + sshd.rsyncRsh()});
  ASSERT_TRUE(agent.ready()) << agent.log();
  ASSERT_TRUE(eventually([&] { return fileIs(agent, "web", d / "src/a", "synchronized", "standby"); }))
      << agent.log() << sshd.log();

  sshd.stop();
  writeFile(d / "src/a", "during the outage");
  EXPECT_TRUE(eventually([&] { return fileIs(agent, "web", d / "src/a", "failed", "backoff"); })) << agent.log();
  EXPECT_EQ("before", readFile(d / "remote/a"));

  // Retries every retryInterval until the host answers again.
  sshd.start();
  EXPECT_TRUE(eventually([&] { return fileIs(agent, "web", d / "src/a", "synchronized", "standby"); }))
      << agent.log();
  EXPECT_EQ("during the outage", readFile(d / "remote/a"));

  EXPECT_EQ(0, agent.stop(SIGTERM)) << agent.log();
}

}  // namespace
}  // namespace Agent
