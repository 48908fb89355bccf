#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "tests/agent/AgentProcess.h"
#include "tests/support/TestSshd.h"

namespace Agent {
namespace {

std::string configFor(TempDir const& d, std::vector<std::string> const& files, bool enabled = true) {
  std::string text = "requesters:\n  web:\n    mode: inotify\n    enabled: ";
  text += enabled ? "true" : "false";
  text += "\n    retryInterval: 1\n    files:\n";
  for (auto const& f : files) {
    text += "      - path: " + (d / "src/" + f) + "\n        dstPath: " + (d / "dst/" + f) + "\n";
  }
  return text;
}

std::string stateOf(AgentProcess& agent, TempDir const& d, std::string const& file) {
  auto fs = fileStatus(agent.status(), "web", d / "src/" + file);
  return fs.is_null() ? "absent" : fs["state"].get<std::string>();
}

// The samples of a Prometheus text exposition, by name and labels, once its
// lines are checked: every sample a valid name, well-formed labels and a
// number, after its family's HELP and TYPE; counters named _total.
std::map<std::string, double> parsedMetrics(std::string const& text) {
  std::string const name = "[a-zA-Z_:][a-zA-Z0-9_:]*";
  std::string const label = R"([a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\[\\"n])*")";
  std::regex const comment("# (HELP|TYPE) (" + name + ") (.+)");
  std::regex const sample("(" + name + ")(\\{" + label + "(?:," + label + ")*\\})? (\\S+)");
  std::map<std::string, double> samples;
  std::map<std::string, std::string> types;
  std::set<std::string> helped;
  EXPECT_TRUE(text.ends_with("\n"));
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::smatch m;
    if (std::regex_match(line, m, comment)) {
      if (m[1] == "HELP") helped.insert(m[2]);
      if (m[1] == "TYPE") types[m[2]] = m[3];
      continue;
    }
    if (!std::regex_match(line, m, sample)) {
      ADD_FAILURE() << "not a sample: " << line;
      continue;
    }
    EXPECT_TRUE(helped.contains(m[1]) && types.contains(m[1])) << line;
    std::size_t used = 0;
    samples[m[1].str() + m[2].str()] = std::stod(m[3], &used);
    EXPECT_EQ(m[3].length(), used) << line;
  }
  for (auto const& [family, type] : types) {
    EXPECT_TRUE(type == "gauge" || (type == "counter" && family.ends_with("_total"))) << family << " " << type;
  }
  return samples;
}

// One agent through a day of an operator's life: the initial sync, edits,
// a deletion, reloads good and bad, disabling, and an orderly stop.
TEST(AgentE2e, ReplicatesEditsDeletionsAndReloads) {
  TempDir d;
  std::filesystem::create_directories(d / "src");
  writeFile(d / "src/a.txt", "a1");
  writeFile(d / "src/b.txt", "b1");
  writeFile(d / "filerep.yaml", configFor(d, {"a.txt", "b.txt"}));
  AgentProcess agent(d / "filerep.yaml", d / "filerep.sock");
  ASSERT_TRUE(agent.ready()) << agent.log();

  ASSERT_TRUE(eventually([&] { return readFile(d / "dst/a.txt") == "a1" && readFile(d / "dst/b.txt") == "b1"; }))
      << agent.log();
  auto status = agent.status();
  EXPECT_EQ("inotify", status["requesters"]["web"]["mode"]);
  EXPECT_TRUE(eventually([&] {
    auto fs = fileStatus(agent.status(), "web", d / "src/a.txt");
    return fs["status"] == "synchronized" && fs["state"] == "standby" && fs["lastSynchronized"].is_number();
  }));

  writeFile(d / "src/a.txt", "a2");  // an edit in place, same size
  EXPECT_TRUE(eventually([&] { return readFile(d / "dst/a.txt") == "a2"; }));
  replaceFile(d / "src/b.txt", "b2");  // an editor's save by rename
  EXPECT_TRUE(eventually([&] { return readFile(d / "dst/b.txt") == "b2"; }));
  std::filesystem::remove(d / "src/b.txt");
  EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(d / "dst/b.txt"); }));

  // A reload that adds c and drops b, picked up from the file changing.
  writeFile(d / "src/c.txt", "c1");
  replaceFile(d / "filerep.yaml", configFor(d, {"a.txt", "c.txt"}));
  EXPECT_TRUE(eventually([&] { return readFile(d / "dst/c.txt") == "c1"; })) << agent.log();
  EXPECT_TRUE(eventually([&] { return stateOf(agent, d, "b.txt") == "absent"; }));

  // An invalid file changes nothing; the agent says why and runs on.
  replaceFile(d / "filerep.yaml", "requesters:\n  web:\n    mode: sideways\n");
  EXPECT_TRUE(eventually([&] {
    return agent.log().find("mode") != std::string::npos && agent.log().find("not valid") != std::string::npos;
  }));
  EXPECT_EQ("standby", stateOf(agent, d, "c.txt"));

  // Disabled through SIGHUP: edits are no longer copied; enabled again,
  // the file is copied at once.
  writeFile(d / "filerep.yaml.new", configFor(d, {"a.txt", "c.txt"}, false));
  std::filesystem::rename(d / "filerep.yaml.new", d / "filerep.yaml");
  kill(agent.pid(), SIGHUP);
  EXPECT_TRUE(eventually([&] { return stateOf(agent, d, "a.txt") == "disabled"; }));
  writeFile(d / "src/a.txt", "a3");
  EXPECT_EQ("disabled", stateOf(agent, d, "a.txt"));
  replaceFile(d / "filerep.yaml", configFor(d, {"a.txt", "c.txt"}));
  EXPECT_TRUE(eventually([&] { return readFile(d / "dst/a.txt") == "a3"; }));

  EXPECT_EQ(0, agent.stop(SIGTERM)) << agent.log();
  EXPECT_FALSE(std::filesystem::exists(d / "filerep.sock")) << "the socket goes with the agent";
}

// A Replicate that hangs is killed by SIGTERM's orderly shutdown; nothing
// is left running.
// A directory that is not there yet, or that a deploy tool swaps for a new
// one, is watched as soon as it is there; the one moved away is not ours.
TEST(AgentE2e, DirectoriesMissingAtStartOrSwappedAreWatchedWhenThere) {
  TempDir d;
  std::filesystem::create_directories(d / "src");
  writeFile(d / "filerep.yaml", configFor(d, {"conf/x"}));
  AgentProcess agent(d / "filerep.yaml", d / "filerep.sock");
  ASSERT_TRUE(agent.ready()) << agent.log();
  EXPECT_NE(std::string::npos, agent.log().find("does not exist")) << agent.log();
  EXPECT_TRUE(eventually([&] { return agent.status()["requesters"]["web"].contains("unwatched"); }));

  std::filesystem::create_directories(d / "src/conf");
  writeFile(d / "src/conf/x", "v1");
  ASSERT_TRUE(eventually([&] { return readFile(d / "dst/conf/x") == "v1"; })) << agent.log();
  EXPECT_FALSE(agent.status()["requesters"]["web"].contains("unwatched"));

  std::filesystem::create_directories(d / "src/conf.new");
  writeFile(d / "src/conf.new/x", "v2");
  std::filesystem::rename(d / "src/conf", d / "src/conf.old");
  std::filesystem::rename(d / "src/conf.new", d / "src/conf");
  ASSERT_TRUE(eventually([&] { return readFile(d / "dst/conf/x") == "v2"; })) << agent.log();
  std::filesystem::remove(d / "src/conf.old/x");
  writeFile(d / "src/conf/x", "v3");
  ASSERT_TRUE(eventually([&] { return readFile(d / "dst/conf/x") == "v3"; })) << agent.log();
  EXPECT_EQ(0, agent.stop(SIGTERM)) << agent.log();
}

TEST(AgentE2e, StopKillsRunningChildrenAndExitsZero) {
  TempDir d;
  std::filesystem::create_directories(d / "bin");
  std::filesystem::create_directories(d / "src");
  writeFile(d / "bin/Replicate", "#!/bin/sh\necho $$ > " + (d / "child.pid") + "\nexec sleep 300\n");
  chmod((d / "bin/Replicate").c_str(), 0755);
  writeFile(d / "src/a.txt", "a");
  writeFile(d / "filerep.yaml", configFor(d, {"a.txt"}));
  AgentProcess agent(d / "filerep.yaml", d / "filerep.sock",
                     {"PATH=" + d.path() + "/bin:" + std::string(getenv("PATH"))});
  ASSERT_TRUE(agent.ready()) << agent.log();
  ASSERT_TRUE(eventually([&] { return !readFile(d / "child.pid").empty(); })) << agent.log();
  pid_t const child = std::stoi(readFile(d / "child.pid"));
  EXPECT_EQ("replicating", stateOf(agent, d, "a.txt"));
  EXPECT_EQ(0, agent.stop(SIGTERM)) << agent.log();
  EXPECT_NE(0, kill(child, 0)) << "the hung Replicate was killed and reaped";
}

// Two thousand files and two slots: the files share few Replicate runs,
// all converge and none is ever failed (with a long retry interval, a
// failure would still show). A file whose copy fails inside a shared run is
// the only one failed.
TEST(AgentE2e, ManyFilesShareFewRunsAndAFailedCopyFailsOnlyItsFile) {
  TempDir d;
  std::filesystem::create_directories(d / "bin");
  writeFile(d / "bin/Replicate",
            "#!/bin/sh\necho >> " + (d / "runs") + "\nexec " + REPLICATE_DIR + "/Replicate \"$@\"\n");
  chmod((d / "bin/Replicate").c_str(), 0755);
  std::vector<std::string> names;
  for (int dir = 0; dir < 20; ++dir) {
    std::filesystem::create_directories(d / ("src/d" + std::to_string(dir)));
    for (int file = 0; file < 100; ++file) {
      names.push_back("d" + std::to_string(dir) + "/f" + std::to_string(file));
      writeFile(d / "src/" + names.back(), names.back());
    }
  }
  std::string const broken = "d7/f42";
  std::filesystem::create_directories(d / "dst/" + broken);
  writeFile(d / "dst/" + broken + "/in-the-way", "not ours to remove");
  std::string const port = std::to_string(freePort());
  std::string text = "maxConcurrentReplications: 2\nmetrics: {textfile: " + (d / "metrics.prom") +
                     ", listen: \"127.0.0.1:" + port +
                     "\"}\nrequesters:\n  web:\n    mode: inotify\n    retryInterval: 600\n    syncErrorThreshold: 1\n"
                     "    files:\n";
  for (auto const& name : names)
    text += "      - {path: " + (d / "src/" + name) + ", dstPath: " + (d / "dst/" + name) + "}\n";
  writeFile(d / "filerep.yaml", text);
  AgentProcess agent(d / "filerep.yaml", d / "filerep.sock",
                     {"PATH=" + d.path() + "/bin:" + std::string(getenv("PATH"))});
  ASSERT_TRUE(agent.ready()) << agent.log();

  std::map<std::string, int> counts;
  ASSERT_TRUE(eventually(
      [&] {
        counts.clear();
        auto const status = agent.status();
        for (auto const& name : names) {
          auto const file = fileStatus(status, "web", d / "src/" + name);
          ++counts[file.is_object() && file["status"].is_string() ? file["status"].get<std::string>() : "none"];
        }
        return counts["synchronized"] + counts["failed"] == int(names.size());
      },
      120))
      << agent.log();
  EXPECT_EQ(1, counts["failed"]);
  EXPECT_EQ("failed", fileStatus(agent.status(), "web", d / "src/" + broken)["status"]);
  for (auto const& name : names) {
    if (name == broken) continue;
    ASSERT_EQ(name, readFile(d / "dst/" + name)) << name;
  }
  std::string const runs = readFile(d / "runs");
  EXPECT_LT(std::count(runs.begin(), runs.end(), '\n'), 40) << "files due together share runs";
  // Over its syncErrorThreshold: a health check's critical, and the log says so once.
  auto const table = runCommand({FILEREP_PROGRAM, "status", "--socket", d / "filerep.sock"});
  EXPECT_EQ(2, table.status);
  // rsync's own reason, told apart from the run's other files: they were
  // copied, and nothing is logged of them.
  std::string const why = "cannot delete non-empty directory: " + broken;
  EXPECT_NE(std::string::npos, table.out.find("\n    " + why)) << table.out;
  std::string const log = agent.log();
  EXPECT_NE(std::string::npos, log.find(d / "src/" + broken + " failed: " + why)) << log;
  std::istringstream lines(log);
  int saysRsync = 0;
  for (std::string line; std::getline(lines, line);) saysRsync += line.find("rsync") != std::string::npos;
  EXPECT_EQ(1, saysRsync) << log;

  // The metrics tell the same, from the command line and in the textfile.
  auto const metrics = runCommand({FILEREP_PROGRAM, "metrics", "--socket", d / "filerep.sock"});
  ASSERT_EQ(0, metrics.status) << metrics.err;
  auto const samples = parsedMetrics(metrics.out);
  auto const sample = [&](std::string const& key) { return samples.contains(key) ? samples.at(key) : -1; };
  EXPECT_EQ(1, sample("filerep_files{requester=\"web\",status=\"failed\"}")) << metrics.out;
  EXPECT_EQ(1, sample("filerep_files_alerting{requester=\"web\"}"));
  EXPECT_EQ(names.size() - 1, sample("filerep_files{requester=\"web\",status=\"synchronized\"}"));
  double const succeeded = sample("filerep_runs_succeeded_total{requester=\"web\"}");
  EXPECT_GE(succeeded, names.size() - 1);
  EXPECT_GE(sample("filerep_runs_failed_total{requester=\"web\"}"), 1);
  EXPECT_EQ(sample("filerep_runs_started_total{requester=\"web\"}"),
            succeeded + sample("filerep_runs_failed_total{requester=\"web\"}"));
  EXPECT_GE(sample("filerep_inotify_watches"), 20);
  EXPECT_GT(sample("filerep_last_success_timestamp_seconds{requester=\"web\"}"), 0);
  // As a scraper gets them.
  auto const scraped = runCommand(
      {"bash", "-c",
       "exec 3<>/dev/tcp/127.0.0.1/" + port + " && printf 'GET /metrics HTTP/1.0\\r\\n\\r\\n' >&3 && cat <&3"});
  EXPECT_TRUE(scraped.out.starts_with("HTTP/1.1 200 OK\r\n")) << scraped.out << scraped.err;
  EXPECT_NE(std::string::npos, scraped.out.find("\nfilerep_files_alerting{requester=\"web\"} 1\n")) << scraped.out;
  EXPECT_TRUE(std::filesystem::exists(d / "metrics.prom")) << "written soon after the start";
  EXPECT_EQ(0, agent.stop(SIGTERM)) << agent.log();
  auto const written = parsedMetrics(readFile(d / "metrics.prom"));
  EXPECT_EQ(succeeded, written.at("filerep_runs_succeeded_total{requester=\"web\"}")) << "and again at shutdown";
  for (auto const& entry : std::filesystem::directory_iterator(d.path())) {
    EXPECT_FALSE(entry.path().filename().string().starts_with(".metrics.prom")) << "no temporary file is left";
  }
}

TEST(AgentE2e, CommandLineErrorsAreClearAndExitNonZero) {
  TempDir d;
  writeFile(d / "bad.yaml", "requesters:\n  web:\n    mode: periodic\n    period: -1\n    files:\n      - path: rel\n");
  auto check = runCommand({FILEREP_PROGRAM, "check", "--config", d / "bad.yaml"});
  EXPECT_EQ(1, check.status);
  EXPECT_NE(std::string::npos, check.err.find(d / "bad.yaml" + ":4:")) << check.err;
  EXPECT_NE(std::string::npos, check.err.find(d / "bad.yaml" + ":6:")) << check.err;

  auto noAgent = runCommand({FILEREP_PROGRAM, "status", "--socket", d / "none.sock"});
  EXPECT_EQ(1, noAgent.status);
  EXPECT_NE(std::string::npos, noAgent.err.find("no agent")) << noAgent.err;

  auto usage = runCommand({FILEREP_PROGRAM, "replicate"});
  EXPECT_EQ(2, usage.status);
  EXPECT_EQ(0, runCommand({FILEREP_PROGRAM, "--help"}).status);

  std::filesystem::create_directories(d / "src");
  writeFile(d / "src/a.txt", "a");
  writeFile(d / "good.yaml", configFor(d, {"a.txt"}));
  EXPECT_EQ(0, runCommand({FILEREP_PROGRAM, "check", "--config", d / "good.yaml"}).status);
  AgentProcess agent(d / "good.yaml", d / "filerep.sock");
  ASSERT_TRUE(agent.ready()) << agent.log();
  auto unknown = runCommand({FILEREP_PROGRAM, "replicate", "nobody", "--socket", d / "filerep.sock"});
  EXPECT_EQ(1, unknown.status);
  EXPECT_NE(std::string::npos, unknown.err.find("no requester named \"nobody\"")) << unknown.err;
  auto noFile = runCommand({FILEREP_PROGRAM, "replicate", "web", d / "src/zzz", "--socket", d / "filerep.sock"});
  EXPECT_EQ(1, noFile.status);
  EXPECT_EQ(0, runCommand({FILEREP_PROGRAM, "replicate", "web", "--socket", d / "filerep.sock"}).status);
  EXPECT_EQ(0,
            runCommand({FILEREP_PROGRAM, "replicate", "web", d / "src/a.txt", "--socket", d / "filerep.sock"}).status);
  auto table = runCommand({FILEREP_PROGRAM, "status", "--socket", d / "filerep.sock"});
  EXPECT_EQ(0, table.status);
  EXPECT_NE(std::string::npos, table.out.find(d / "src/a.txt")) << table.out;

  AgentProcess second(d / "good.yaml", d / "filerep.sock");
  EXPECT_EQ(1, second.exited()) << "a second agent on the same socket refuses to start";
  EXPECT_NE(std::string::npos, second.log().find("another agent")) << second.log();
  EXPECT_FALSE(agent.status().is_null()) << "and the first one runs on";
}

}  // namespace
}  // namespace Agent
