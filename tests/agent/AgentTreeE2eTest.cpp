#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "tests/agent/AgentProcess.h"

namespace Agent {
namespace {

namespace fs = std::filesystem;

std::string treeConfig(TempDir const& d, std::string const& mode) {
  return "requesters:\n  web:\n    mode: " + mode + "\n    period: 1\n    retryInterval: 1\n    files:\n" +
         "      - path: " + d / "src/\n        dstPath: " + d / "dst/\n        exclude: [\"cache/**\"]\n" +
         "      - path: " + d / "later/**/*.conf\n        dstPath: " + d / "dst-later/\n";
}

// Everything a tree goes through, followed live: each change is copied, or
// its deletion replicated, and litter is never copied.
TEST(AgentTreeE2e, FollowsATreeAndAPatternLive) {
  TempDir d;
  fs::create_directories(d / "src/sub");
  fs::create_directories(d / "outside");
  writeFile(d / "src/a", "a");
  writeFile(d / "src/sub/b", "b");
  writeFile(d / "src/a.swp", "litter");
  writeFile(d / "outside/m", "m");
  writeFile(d / "filerep.yaml", treeConfig(d, "inotify"));
  AgentProcess agent(d / "filerep.yaml", d / "filerep.sock");
  ASSERT_TRUE(agent.ready()) << agent.log();
  EXPECT_NE(std::string::npos, agent.log().find("matches no file now")) << agent.log();
  ASSERT_TRUE(eventually([&] { return readFile(d / "dst/a") == "a" && readFile(d / "dst/sub/b") == "b"; }))
      << agent.log();

  writeFile(d / "src/new", "n");
  fs::create_directories(d / "src/x/y");
  writeFile(d / "src/x/y/deep", "deep");
  writeFile(d / "src/x/.y.swp", "litter");
  writeFile(d / "src/x/4913", "litter");
  fs::create_directories(d / "src/cache");
  writeFile(d / "src/cache/c", "litter");
  fs::rename(d / "outside/m", d / "src/sub/m");  // moved in
  EXPECT_TRUE(eventually([&] {
    return readFile(d / "dst/new") == "n" && readFile(d / "dst/x/y/deep") == "deep" && readFile(d / "dst/sub/m") == "m";
  })) << agent.log();

  fs::remove(d / "src/a");
  fs::rename(d / "src/sub/b", d / "outside/b");  // moved out
  fs::rename(d / "src/x", d / "src/z");          // a directory renamed inside
  EXPECT_TRUE(eventually([&] {
    return !exists(d / "dst/a") && !exists(d / "dst/sub/b") && !exists(d / "dst/x/y/deep") &&
           readFile(d / "dst/z/y/deep") == "deep";
  })) << agent.log();
  // Once their deletion is replicated, gone files are dropped.
  EXPECT_TRUE(eventually([&] {
    auto const entry = agent.status()["requesters"]["web"]["entries"][0];
    return entry["files"] == 3 && entry["byStatus"]["synchronized"] == 3;
  })) << agent.status().dump(2);
  EXPECT_TRUE(fileStatus(agent.status(), "web", d / "src/a").is_null());
  // The table counts a tree's files on its line, and lists them when asked.
  auto const table = runCommand({FILEREP_PROGRAM, "status", "--socket", agent.socket()});
  EXPECT_NE(std::string::npos, table.out.find("tree " + d / "src/: 3 files: 3 synchronized")) << table.out;
  EXPECT_EQ(std::string::npos, table.out.find(d / "src/new")) << table.out;
  EXPECT_NE(std::string::npos, runCommand({FILEREP_PROGRAM, "status", "web", "--socket", agent.socket()})
                                   .out.find(d / "src/new -> " + d / "dst/new"));

  // The pattern starts to match when its first file appears.
  fs::create_directories(d / "later/p/q");
  writeFile(d / "later/p/q/site.conf", "s");
  EXPECT_TRUE(eventually([&] { return readFile(d / "dst-later/p/q/site.conf") == "s"; })) << agent.log();

  // A directory replaced by a file, and back: each takes the other's place
  // at the destination, and the file's member goes with it.
  fs::remove_all(d / "src/z");
  writeFile(d / "src/z", "zf");
  EXPECT_TRUE(eventually([&] { return readFile(d / "dst/z") == "zf"; })) << agent.log();
  fs::remove(d / "src/z");
  fs::create_directories(d / "src/z/y");
  writeFile(d / "src/z/y/deep", "deep2");
  EXPECT_TRUE(eventually([&] {
    return readFile(d / "dst/z/y/deep") == "deep2" && fileStatus(agent.status(), "web", d / "src/z").is_null();
  })) << agent.log();

  for (auto const* litter : {"a.swp", "x/.y.swp", "x/4913", "z/4913", "cache/c"}) {
    EXPECT_FALSE(exists(d / "dst/" + litter)) << litter;
  }
  EXPECT_EQ(0, agent.stop(SIGTERM)) << agent.log();
}

// Periodic mode reads the tree again each period before the runs.
TEST(AgentTreeE2e, PeriodicRescanAddsAndDeletes) {
  TempDir d;
  fs::create_directories(d / "src");
  writeFile(d / "src/a", "a");
  writeFile(d / "filerep.yaml", treeConfig(d, "periodic"));
  AgentProcess agent(d / "filerep.yaml", d / "filerep.sock");
  ASSERT_TRUE(agent.ready()) << agent.log();
  ASSERT_TRUE(eventually([&] { return readFile(d / "dst/a") == "a"; })) << agent.log();
  fs::create_directories(d / "src/n");
  writeFile(d / "src/n/b", "b");
  fs::remove(d / "src/a");
  EXPECT_TRUE(eventually([&] { return readFile(d / "dst/n/b") == "b" && !exists(d / "dst/a"); })) << agent.log();
  EXPECT_TRUE(eventually([&] { return fileStatus(agent.status(), "web", d / "src/a").is_null(); }));
  EXPECT_EQ(0, agent.stop(SIGTERM)) << agent.log();
}

// The inotify watches the agent holds now.
int watchesOf(pid_t pid) {
  int watches = 0;
  for (auto const& fd : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fdinfo")) {
    std::istringstream lines(readFile(fd.path()));
    for (std::string line; std::getline(lines, line);) watches += line.starts_with("inotify wd:");
  }
  return watches;
}

// The kernel's allowance of watches runs out while a tree grows: the files
// it cannot follow are copied as they are but stay failed, saying what to
// raise, until a watch stands. The agent runs in a user namespace, whose
// allowance is its own.
TEST(AgentTreeE2e, FilesBeyondTheWatchLimitFailUntilItIsRaised) {
  if (std::system("unshare --user --map-root-user true 2>/dev/null") != 0) {
    GTEST_SKIP() << "this kernel lets no process make a user namespace";
  }
  TempDir d;
  fs::create_directories(d / "src");
  fs::create_directories(d / "outside/grown/deeper");
  writeFile(d / "src/a", "a");
  writeFile(d / "outside/grown/deeper/g", "g");
  writeFile(d / "filerep.yaml", treeConfig(d, "inotify"));
  AgentProcess agent(d / "filerep.yaml", d / "filerep.sock", {}, {"unshare", "--user", "--map-root-user"});
  ASSERT_TRUE(agent.ready()) << agent.log();
  ASSERT_TRUE(eventually([&] { return readFile(d / "dst/a") == "a"; })) << agent.log();
  auto const allowWatches = [&](int count) {
    return runCommand({"nsenter", "--user", "--target", std::to_string(agent.pid()), "sh", "-c",
                       "echo " + std::to_string(count) + " >/proc/sys/user/max_inotify_watches"})
        .status;
  };
  ASSERT_EQ(0, allowWatches(watchesOf(agent.pid())));

  fs::rename(d / "outside/grown", d / "src/grown");
  auto const grown = [&] { return fileStatus(agent.status(), "web", d / "src/grown/deeper/g"); };
  EXPECT_TRUE(eventually([&] {
    auto const file = grown();
    return readFile(d / "dst/grown/deeper/g") == "g" && file["state"] == "standby" && file["status"] == "failed" &&
           file.value("lastError", "").find("fs.inotify.max_user_watches") != std::string::npos;
  })) << grown().dump()
      << agent.log();

  ASSERT_EQ(0, allowWatches(1000));
  EXPECT_TRUE(eventually([&] { return grown()["status"] == "synchronized"; })) << grown().dump() << agent.log();
  writeFile(d / "src/grown/deeper/g", "followed");
  EXPECT_TRUE(eventually([&] { return readFile(d / "dst/grown/deeper/g") == "followed"; })) << agent.log();
  EXPECT_EQ(0, agent.stop(SIGTERM)) << agent.log();
}

}  // namespace
}  // namespace Agent
