#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>

#include "tests/agent/AgentProcess.h"
#include "tests/support/HungHost.h"
#include "tests/support/TestSshd.h"

namespace Agent {
namespace {

struct Requester {
  std::string name;
  std::string mode;
  std::string hosts;                                       // the YAML list's items
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
  // 2 is a status too: one with a file to alert on.
  if (result.status != 0 && result.status != 2) return nullptr;
  nlohmann::json status = nlohmann::json::parse(result.out, nullptr, false);
  return status.is_discarded() ? nullptr : status;
}

// What the agent says of one host of a requester, or null.
nlohmann::json hostStatus(nlohmann::json const& status, std::string const& requester, std::string const& host) {
  nlohmann::json::json_pointer const at("/requesters/" + requester + "/hosts/" + host);
  return status.is_object() && status.contains(at) ? status[at] : nullptr;
}

bool hostIs(AgentProcess const& agent, std::string const& host, char const* state) {
  nlohmann::json const status = hostStatus(statusOf(agent), "web", host);
  return status.is_object() && status["state"] == state;
}

// The hosts' states are kept per user, and each test has another server
// behind "localhost": a control directory of its own keeps them apart.
std::vector<std::string> sshEnvironment(TempDir const& d, std::string const& rsyncRsh) {
  std::filesystem::create_directory(d / "run");
  std::filesystem::permissions(d / "run", std::filesystem::perms::owner_all);
  return {"RSYNC_RSH=" + rsyncRsh, "XDG_RUNTIME_DIR=" + d / "run"};
}

bool fileIs(AgentProcess const& agent, std::string const& requester, std::string const& path, std::string const& status,
            std::string const& state) {
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
  AgentProcess agent(d / "filerep.yaml", d / "filerep.sock", sshEnvironment(d, sshd.rsyncRsh()));
  ASSERT_TRUE(agent.ready()) << agent.log();

  ASSERT_TRUE(eventually([&] { return fileIs(agent, "web", d / "src/a", "synchronized", "standby"); }))
      << agent.log() << sshd.log();
  EXPECT_EQ("a over ssh", readFile(d / "remote/a"));
  EXPECT_NE(std::string::npos, sshd.log().find("Accepted publickey")) << "the copy went through sshd";
  // Without hosts the copy is local; removing it lets the host's copy show.
  ASSERT_TRUE(eventually([&] { return fileIs(agent, "late", d / "src/b", "synchronized", "standby"); })) << agent.log();
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

TEST(AgentSshE2e, AHostThatWentDownIsCaughtUpOnceItIsBack) {
  TempDir d;
  TestSshd sshd;
  std::filesystem::create_directories(d / "src");
  writeFile(d / "src/a", "before");
  writeFile(d / "filerep.yaml", configText({{"web", "inotify", "localhost", {{d / "src/a", d / "remote/a"}}}}));
  AgentProcess agent(d / "filerep.yaml", d / "filerep.sock", sshEnvironment(d, sshd.rsyncRsh()));
  ASSERT_TRUE(agent.ready()) << agent.log();
  ASSERT_TRUE(eventually([&] { return fileIs(agent, "web", d / "src/a", "synchronized", "standby"); }))
      << agent.log() << sshd.log();

  closeSshConnections(d / ("run/replicate-" + std::to_string(geteuid())));
  sshd.stop();
  writeFile(d / "src/a", "during the outage");
  EXPECT_TRUE(eventually([&] { return hostIs(agent, "localhost", "down"); })) << agent.log();
  EXPECT_EQ("before", readFile(d / "remote/a"));

  // Runs skip the host while it is down; its probe finds it back, and then
  // it gets what it missed, with nothing else to trigger a run.
  sshd.start();
  EXPECT_TRUE(eventually([&] { return readFile(d / "remote/a") == "during the outage"; }, 120)) << agent.log();
  EXPECT_TRUE(hostIs(agent, "localhost", "up"));
  EXPECT_NE(std::string::npos, agent.log().find("host localhost is up again after")) << agent.log();

  EXPECT_EQ(0, agent.stop(SIGTERM)) << agent.log();
}

// "backup" is a name that ssh maps to a dead address first and to the live
// server later, as if the machine came back. Both names reach this machine,
// so their copies are one file.
TEST(AgentSshE2e, ADeadHostHoldsUpNoOneAndGetsEverythingOnceBack) {
  TempDir d;
  TestSshd sshd;
  HungHost const hole("127.0.0.2", sshd.port());
  auto const backupAt = [&](std::string const& address) {
    replaceFile(d / "ssh_config", "Host backup\n  HostName " + address + "\n");
  };
  backupAt("127.0.0.2");
  constexpr int connectTimeout = 5;
  std::string rsh = sshd.rsyncRsh();
  rsh.replace(rsh.find("-F /dev/null"), 12,
              "-F " + d / "ssh_config" + " -o ConnectTimeout=" + std::to_string(connectTimeout));
  std::filesystem::create_directories(d / "src");
  writeFile(d / "src/a", "first");
  writeFile(d / "filerep.yaml", configText({{"web", "inotify", "backup, localhost", {{d / "src/a", d / "remote/a"}}}}));
  AgentProcess agent(d / "filerep.yaml", d / "filerep.sock", sshEnvironment(d, rsh));
  ASSERT_TRUE(agent.ready()) << agent.log();

  ASSERT_TRUE(eventually([&] { return hostIs(agent, "backup", "down") && hostIs(agent, "localhost", "up"); }))
      << agent.log();
  nlohmann::json const backup = hostStatus(statusOf(agent), "web", "backup");
  EXPECT_TRUE(backup["since"].is_number()) << backup;
  EXPECT_TRUE(backup["lastError"].is_string() && !backup["lastError"].get<std::string>().empty()) << backup;
  ProcessResult const table = runCommand({FILEREP_PROGRAM, "status", "--socket", agent.socket()});
  EXPECT_NE(std::string::npos, table.out.find("\n  host backup: down since ")) << table.out;
  EXPECT_EQ("first", readFile(d / "remote/a"));

  // Skipped, the dead host costs an edit no connect time-out.
  ASSERT_TRUE(eventually([&] { return fileIs(agent, "web", d / "src/a", "synchronized", "standby"); })) << agent.log();
  auto const edited = std::chrono::steady_clock::now();
  writeFile(d / "src/a", "second");
  ASSERT_TRUE(eventually([&] {
    return readFile(d / "remote/a") == "second" && fileIs(agent, "web", d / "src/a", "synchronized", "standby");
  })) << agent.log();
  EXPECT_LT(std::chrono::steady_clock::now() - edited, std::chrono::seconds(connectTimeout)) << agent.log();

  // What backup lacks; nothing but its recovery copies it again.
  std::filesystem::remove(d / "remote/a");
  backupAt("127.0.0.1");
  EXPECT_TRUE(eventually([&] { return readFile(d / "remote/a") == "second"; }, 120)) << agent.log();
  EXPECT_TRUE(hostIs(agent, "backup", "up"));
  EXPECT_NE(std::string::npos, agent.log().find("host backup is down")) << agent.log();
  EXPECT_NE(std::string::npos, agent.log().find("host backup is up again after")) << agent.log();

  EXPECT_EQ(0, agent.stop(SIGTERM)) << agent.log();
}

}  // namespace
}  // namespace Agent
