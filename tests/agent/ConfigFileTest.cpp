#include "agent/ConfigFile.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/TestFiles.h"
#include "tools/Replicate/ShellWords.h"

namespace Agent {
namespace {

using FileReplication::RequesterConfig;
using Lines = std::vector<std::string>;

std::string const anyHost =
    "expected host, user@host, an IPv4 address, or an IPv6 address bare or in brackets (::1, [::1], user@[::1])";

TEST(ConfigFileTest, ParsesAFullFileAndFillsTheDefaults) {
  auto const parsed = parseConfigText(R"(# the agent's settings
maxConcurrentReplications: 4
metrics:
  textfile: /tmp/filerep.prom
requesters:
  web:
    mode: periodic
    remoteHosts: [backup-1.example.com, "rep@[fe80::1%eth0]"]
    period: 1
    replicationTimeout: 2.5
    retryInterval: 0
    syncErrorThreshold: 0
    remoteHostReplicationDelay: 0.5
    maxFilesPerRun: 50
    files:
      - path: /srv/www/index.html
      - path: /srv/www/app.js
        dstPath: /backup/app.js
        rsyncOptions: "-az --partial"
  db.main_1:
    mode: periodic
    enabled: false
    remoteHosts:
    files:
)",
                                      "agent.yaml");
  ASSERT_TRUE(parsed.ok()) << parsed.errors.front();

  AgentConfig expected;
  expected.maxConcurrentReplications = 4;
  expected.metricsTextfile = "/tmp/filerep.prom";
  RequesterSettings web;
  web.name = "web";
  web.mode = RequesterConfig::periodic;
  web.remoteHosts = {"backup-1.example.com", "rep@[fe80::1%eth0]"};
  web.period = 1;
  web.replicationTimeout = 2.5;
  web.retryInterval = 0;
  web.syncErrorThreshold = 0;
  web.remoteHostReplicationDelay = 0.5;
  web.maxFilesPerRun = 50;
  web.files = {{"/srv/www/index.html", "/srv/www/index.html", "-a"},
               {"/srv/www/app.js", "/backup/app.js", "-az --partial"}};
  RequesterSettings db;
  db.name = "db.main_1";
  db.enabled = false;
  expected.requesters = {web, db};
  EXPECT_EQ(expected, parsed.config);

  // Nothing but the section, or nothing under it: no requesters, default limit.
  for (char const* text : {"requesters:\n", "requesters: {}\n", "maxConcurrentReplications: 0\n"}) {
    auto const minimal = parseConfigText(text, "min.yaml");
    ASSERT_TRUE(minimal.ok()) << text;
    EXPECT_TRUE(minimal.config.requesters.empty());
  }
  EXPECT_EQ(0u, parseConfigText("maxConcurrentReplications: 0\n", "f").config.maxConcurrentReplications);
  EXPECT_EQ(16u, parseConfigText("requesters:\n", "f").config.maxConcurrentReplications);

  EXPECT_EQ((Lines{"m.yaml:1:21: the directory \"/no/such\" of textfile does not exist; the metrics are not "
                   "written until it does",
                   "m.yaml:1:21: textfile \"/no/such/m.txt\" does not end in .prom; the textfile collector reads "
                   "only files that do"}),
            parseConfigText("metrics: {textfile: /no/such/m.txt}\n", "m.yaml").warnings);
}

TEST(ConfigFileTest, ReportsEveryMistakeWithItsPosition) {
  auto const parsed = parseConfigText(R"(maxConcurrentReplications: -1
colour: blue
requesters:
  web:
    mode: poll
    enabled: maybe
    period: abc
    replicationTimeout: 0
    retryInterval: -1
    syncErrorThreshold: 1.5
    remoteHostReplicationDelay: inf
    remoteHosts: [good, -oProxyCommand=x, good]
    perod: 5
    files:
      - path: relative/file
      - path: /srv/a
        dstPath: dst
        rsync: -a
      - dstPath: /x
      - path: /srv/a
      - path: /srv/./b
      - /srv/c
  bad name:
    mode: periodic
    period: 1
    period: 2
  empty:
  nomode:
    enabled: true
  timing:
    mode: periodic
    period: -0.5
    retryInterval: nan
    syncErrorThreshold: -1
    remoteHosts: one,two
    files: /srv/file
    maxFilesPerRun: 0
metrics: {listen: "localhost:9100", textfile: metrics.prom}
)",
                                      "bad.yaml");
  EXPECT_EQ(
      (Lines{
          "bad.yaml:1:28: maxConcurrentReplications is \"-1\"; expected a whole number >= 0 (0 for no limit)",
          "bad.yaml:2:1: unknown key \"colour\"; expected one of maxConcurrentReplications, ssh, metrics, requesters",
          "bad.yaml:5:11: mode is \"poll\"; expected periodic or inotify",
          "bad.yaml:6:14: enabled is \"maybe\"; expected true or false",
          "bad.yaml:7:13: period is \"abc\"; expected a number of seconds",
          "bad.yaml:8:25: replicationTimeout is \"0\"; expected a number of seconds > 0",
          "bad.yaml:9:20: retryInterval is \"-1\"; expected a number of seconds >= 0",
          "bad.yaml:10:25: syncErrorThreshold is \"1.5\"; expected a whole number >= 0",
          "bad.yaml:11:33: remoteHostReplicationDelay is \"inf\"; expected a finite number of seconds",
          "bad.yaml:12:25: invalid host \"-oProxyCommand=x\": a host name cannot start with '-'; " + anyHost,
          "bad.yaml:12:43: remote host \"good\" is listed twice (first at line 12); expected each host once",
          "bad.yaml:13:5: unknown key \"perod\" in requester \"web\"; expected one of mode, enabled, "
          "remoteHosts, ssh, period, replicationTimeout, retryInterval, syncErrorThreshold, "
          "remoteHostReplicationDelay, maxFilesPerRun, deleteDelay, files",
          "bad.yaml:15:15: path is \"relative/file\"; expected an absolute file path",
          "bad.yaml:17:18: dstPath is \"dst\"; expected an absolute file path",
          "bad.yaml:18:9: unknown key \"rsync\" in a file; expected one of path, dstPath, rsyncOptions, exclude",
          "bad.yaml:19:9: a file has no path; expected path: /absolute/file",
          "bad.yaml:20:15: file \"/srv/a\" is listed twice in requester \"web\" (first at line 16); "
          "expected each file once",
          "bad.yaml:21:15: path is \"/srv/./b\"; expected an absolute file path without empty, \".\" or \"..\" "
          "parts",
          "bad.yaml:22:9: a file is \"/srv/c\"; expected a mapping with path, and optionally dstPath and "
          "rsyncOptions",
          "bad.yaml:23:3: requester name \"bad name\" is not allowed; expected one or more letters, digits, '.', "
          "'_' or '-'",
          "bad.yaml:26:5: key \"period\" is given twice (first at line 25); expected each key once",
          "bad.yaml:27:3: requester \"empty\" is empty; expected a mapping with at least mode",
          "bad.yaml:28:3: requester \"nomode\" has no mode; expected mode: periodic or inotify",
          "bad.yaml:32:13: period is \"-0.5\"; expected a number of seconds >= 1",
          "bad.yaml:33:20: retryInterval is \"nan\"; expected a finite number of seconds",
          "bad.yaml:34:25: syncErrorThreshold is \"-1\"; expected a whole number >= 0",
          "bad.yaml:35:18: remoteHosts is \"one,two\"; expected a list of host names, like [host1, host2]",
          "bad.yaml:36:12: files is \"/srv/file\"; expected a list of files, each a mapping with path",
          "bad.yaml:37:21: maxFilesPerRun is \"0\"; expected a whole number >= 1",
          "bad.yaml:38:19: listen \"localhost:9100\": \"localhost\" is not an IPv4 address (an IPv6 one goes in "
          "brackets); expected an address and port, like 127.0.0.1:9464 or [::1]:9464",
          "bad.yaml:38:47: textfile is \"metrics.prom\"; expected an absolute file path",
      }),
      parsed.errors);
  EXPECT_EQ(AgentConfig(), parsed.config) << "nothing of an invalid file is offered for use";
}

// Each would fail every run, or be ignored without a word.
TEST(ConfigFileTest, RefusesRsyncOptionsThatCannotWork) {
  auto const parsed = parseConfigText(
      "requesters:\n"
      "  a:\n"
      "    mode: periodic\n"
      "    files:\n"
      "      - {path: /srv/a, rsyncOptions: \"-a '--partial\"}\n"
      "      - {path: /srv/b, rsyncOptions: \"-avze ssh\"}\n"
      "      - {path: /srv/c, rsyncOptions: \"-a --rsh=ssh\"}\n"
      "      - {path: /srv/d, rsyncOptions: \"-a --exclude=x -T/tmp/e\"}\n",
      "f.yaml");
  std::string const useSsh = "; expected ssh settings under ssh: (port, user, identityFile, options)";
  EXPECT_EQ((Lines{"f.yaml:5:38: rsyncOptions \"-a '--partial\" cannot be split into words: unterminated single quote; "
                   "expected options as a shell would split them, like \"-a --partial\"",
                   "f.yaml:6:38: rsyncOptions \"-avze ssh\" choose the remote shell (\"-avze\")" + useSsh,
                   "f.yaml:7:38: rsyncOptions \"-a --rsh=ssh\" choose the remote shell (\"--rsh=ssh\")" + useSsh}),
            parsed.errors);
}

TEST(ConfigFileTest, ReadsDeleteDelay) {
  auto const parsed = parseConfigText(
      "requesters:\n"
      "  a: {mode: periodic, deleteDelay: 0}\n"
      "  b: {mode: periodic, deleteDelay: 1.5}\n"
      "  c: {mode: periodic}\n",
      "f.yaml");
  ASSERT_TRUE(parsed.ok()) << parsed.errors.front();
  EXPECT_EQ(0, parsed.config.requesters.at(0).deleteDelay);
  EXPECT_EQ(1.5, parsed.config.requesters.at(1).deleteDelay);
  EXPECT_EQ(0.2, parsed.config.requesters.at(2).deleteDelay);

  EXPECT_EQ((Lines{"f.yaml:2:36: deleteDelay is \"-0.1\"; expected a number of seconds >= 0",
                   "f.yaml:5:18: deleteDelay is \"soon\"; expected a number of seconds",
                   "f.yaml:6:36: deleteDelay is a list; expected a number of seconds"}),
            parseConfigText("requesters:\n"
                            "  a: {mode: periodic, deleteDelay: -0.1}\n"
                            "  b:\n"
                            "    mode: periodic\n"
                            "    deleteDelay: soon\n"
                            "  c: {mode: periodic, deleteDelay: [1]}\n",
                            "f.yaml")
                .errors);
}

TEST(ConfigFileTest, TurnsSshSettingsIntoArgumentsThatSplitBackIntoTheSameWords) {
  auto const parsed = parseConfigText(R"(requesters:
  inherits: {mode: periodic}
  own:
    mode: periodic
    ssh:
      port: 2200
      identityFile: "/etc/file rep/it's key"
      options: ["ProxyJump=jump host", "ServerAliveInterval=5"]
  none:
    mode: periodic
    ssh: {options: []}
ssh:
  port: 2222
  user: backup
  identityFile: /nonexistent-filerep-dir/id_ed25519
  options: ["StrictHostKeyChecking=accept-new"]
)",
                                      "f.yaml");
  ASSERT_TRUE(parsed.ok()) << parsed.errors.front();
  auto const& r = parsed.config.requesters;
  ASSERT_EQ(3u, r.size());
  EXPECT_EQ("-p 2222 -l backup -i /nonexistent-filerep-dir/id_ed25519 -o StrictHostKeyChecking=accept-new",
            r[0].sshOptions);
  // A requester's keys replace the top level's one by one; a list as a whole.
  EXPECT_EQ(R"(-p 2200 -l backup -i '/etc/file rep/it'\''s key' -o 'ProxyJump=jump host' -o ServerAliveInterval=5)",
            r[1].sshOptions);
  EXPECT_EQ((Lines{"-p", "2200", "-l", "backup", "-i", "/etc/file rep/it's key", "-o", "ProxyJump=jump host", "-o",
                   "ServerAliveInterval=5"}),
            Replicate::splitShellWords(r[1].sshOptions))
      << "Replicate reads back exactly the words meant";
  EXPECT_EQ("-p 2222 -l backup -i /nonexistent-filerep-dir/id_ed25519", r[2].sshOptions);
  EXPECT_EQ((Lines{"f.yaml:7:21: identityFile \"/etc/file rep/it's key\" does not exist (No such file or directory); "
                   "ssh cannot log in with it until it does",
                   "f.yaml:15:17: identityFile \"/nonexistent-filerep-dir/id_ed25519\" does not exist (No such file "
                   "or directory); ssh cannot log in with it until it does"}),
            parsed.warnings);
  EXPECT_EQ("", parseConfigText("requesters:\n  a: {mode: periodic}\n", "f").config.requesters.at(0).sshOptions);

  std::string const option = "; expected Key=Value on one line, like \"StrictHostKeyChecking=accept-new\"";
  EXPECT_EQ((Lines{
                "f.yaml:1:6: ssh is \"2222\"; expected a mapping with the keys port, user, identityFile, options",
                "f.yaml:3:35: port is \"0\"; expected a whole number from 1 to 65535",
                "f.yaml:4:35: port is \"65536\"; expected a whole number from 1 to 65535",
                "f.yaml:4:42: unknown key \"prot\" in ssh; expected one of port, user, identityFile, options",
                "f.yaml:5:35: user is \"-oX\"; expected a plain user name of letters, digits, '.', '_' or '-', not "
                "starting with '-'",
                "f.yaml:6:43: identityFile is \"id_rsa\"; expected an absolute file path",
                "f.yaml:7:39: an ssh option is \"Port 22\"" + option,
                "f.yaml:7:50: an ssh option is \"=x\"" + option,
                "f.yaml:7:56: an ssh option is \"a\\nb=c\"" + option,
                "f.yaml:8:38: options is \"StrictHostKeyChecking=no\"; expected a list of ssh options, each "
                "Key=Value, like [\"StrictHostKeyChecking=accept-new\"]",
            }),
            parseConfigText(R"(ssh: 2222
requesters:
  a: {mode: periodic, ssh: {port: 0}}
  b: {mode: periodic, ssh: {port: 65536, prot: 1}}
  c: {mode: periodic, ssh: {user: -oX}}
  d: {mode: periodic, ssh: {identityFile: id_rsa}}
  e: {mode: periodic, ssh: {options: ["Port 22", "=x", "a\nb=c"]}}
  f: {mode: periodic, ssh: {options: StrictHostKeyChecking=no}}
)",
                            "f.yaml")
                .errors);
}

// Replicate's grammar decides; the agent adds what was likely meant.
TEST(ConfigFileTest, RefusesWhatReplicateWouldWithAHintForTheCommonMistakes) {
  std::string const path = "a destination path belongs in the file's dstPath, not in the host";
  struct Case {
    char const* host;
    std::string error;  // empty: accepted
  };
  Case const cases[] = {
      {"backup-1.example.com", ""},
      {"rep_user@10.0.0.1", ""},
      {"::1", ""},
      {"[2001:db8::1]", ""},
      {"u@[fe80::1%eth0]", ""},
      {"backup:22", "not an IPv6 address; a port belongs in ssh: {port: 22}"},
      {"u@backup:2222", "not an IPv6 address; a port belongs in ssh: {port: 2222}"},
      {"[2001:db8::1]:22", "not an IPv6 address; a port belongs in ssh: {port: 22}"},
      {"backup:/srv", "not an IPv6 address; " + path},
      {"dir/host", "unexpected character in host name; " + path},
      {"[host]",
       "brackets hold no IPv6 address; brackets are only for IPv6 addresses; write a host name without "
       "them"},
      {"u:p@h", "bad user name; a password cannot be given; log in with a key, ssh: {identityFile: /path/to/key}"},
      {"ssh://h", "not an IPv6 address; a host is written alone, not as a URL; " + anyHost},
      {"h1,h2", "unexpected character in host name; list each host as its own item: [host1, host2]"},
      {"-oProxyCommand=x", "a host name cannot start with '-'; " + anyHost},
      {"h$(id)", "unexpected character in host name; " + anyHost},
      {"", "no host name; " + anyHost},
  };
  for (auto const& c : cases) {
    auto const parsed = parseConfigText(
        std::string("requesters: {a: {mode: periodic, remoteHosts: [\"") + c.host + "\"]}}\n", "f.yaml");
    if (c.error.empty()) {
      EXPECT_EQ(Lines{}, parsed.errors) << c.host;
    } else {
      EXPECT_EQ(Lines{"f.yaml:1:48: invalid host \"" + std::string(c.host) + "\": " + c.error}, parsed.errors);
    }
  }
}

TEST(ConfigFileTest, RefusesFilesOfTheWrongShape) {
  auto errorsOf = [](std::string const& text) { return parseConfigText(text, "f.yaml").errors; };
  std::string const topLevel = "expected a mapping with the keys maxConcurrentReplications, ssh, metrics, requesters";
  EXPECT_EQ(Lines{"f.yaml:1:1: the file is empty; " + topLevel}, errorsOf(""));
  EXPECT_EQ(Lines{"f.yaml:1:1: the file is empty; " + topLevel}, errorsOf("# only a comment\n"));
  EXPECT_EQ(Lines{"f.yaml:1:1: the top level is a list; " + topLevel}, errorsOf("- requesters\n"));
  EXPECT_EQ(Lines{"f.yaml:1:1: the top level is \"requesters\"; " + topLevel}, errorsOf("requesters\n"));
  EXPECT_EQ(Lines{"f.yaml:3:1: the file holds a second document; expected one document"},
            errorsOf("requesters:\n---\nrequesters:\n"));
  EXPECT_EQ(Lines{"f.yaml:1:13: requesters is a list; expected a mapping of requester names to their settings"},
            errorsOf("requesters: [web]\n"));
  EXPECT_EQ(Lines{"f.yaml:3:3: key \"a\" is given twice (first at line 2); expected each key once"},
            errorsOf("requesters:\n  a: {mode: periodic}\n  a: {mode: inotify}\n"));
  // Syntax errors carry yaml-cpp's position, 1-based.
  EXPECT_EQ(Lines{"f.yaml:2:43: YAML syntax error: illegal flow end"},
            errorsOf("requesters:\n  web: {mode: periodic, remoteHosts: [a, b}\n }\n"));
  EXPECT_EQ(Lines{"f.yaml:2:3: YAML syntax error: illegal map value"}, errorsOf("a: 1\n b: 2\n"));
}

class ConfigFileIntegration : public testing::Test {
 protected:
  std::string write(std::string const& name, std::string const& text) const {
    writeFile(tmp_ / name, text);
    return tmp_ / name;
  }

  TempDir tmp_;
  std::string const dir_ = tmp_.path();
};

TEST_F(ConfigFileIntegration, WarnsOfMissingDirectoriesAndFilesCopiedOntoThemselves) {
  std::filesystem::create_directory(dir_ + "/watched");
  std::filesystem::create_directory_symlink("watched", dir_ + "/link");
  write("watched/a", "");
  write("plain", "");
  std::string const path = write("agent.yaml",
                                 "requesters:\n"
                                 "  live:\n"
                                 "    mode: inotify\n"
                                 "    remoteHosts: [h]\n"
                                 "    files:\n"
                                 "      - path: " +
                                     dir_ +
                                     "/watched/a\n"
                                     "      - path: " +
                                     dir_ +
                                     "/missing/b\n"
                                     "      - path: " +
                                     dir_ +
                                     "/plain/c\n"
                                     "  dormant:\n"
                                     "    mode: inotify\n"
                                     "    enabled: false\n"
                                     "    remoteHosts: [h]\n"
                                     "    files:\n"
                                     "      - path: /nonexistent-filerep-dir/d\n"
                                     "  local:\n"
                                     "    mode: periodic\n"
                                     "    files:\n"
                                     "      - path: /nonexistent-filerep-dir/e\n"
                                     "      - path: " +
                                     dir_ +
                                     "/watched/a\n"
                                     "        dstPath: " +
                                     dir_ +
                                     "/link/./a\n"
                                     "      - path: " +
                                     dir_ +
                                     "/watched/b\n"
                                     "        dstPath: " +
                                     dir_ + "/watched/c\n");
  auto const parsed = parseConfigFile(path);
  ASSERT_TRUE(parsed.ok()) << parsed.errors.front();
  EXPECT_EQ(RequesterConfig::inotify, parsed.config.requesters.at(0).mode);
  EXPECT_EQ(dir_ + "/watched/a", parsed.config.requesters[0].files.at(0).dstPath);
  std::string const appears = "; its files are replicated once it appears";
  std::string const never = " is the same file as its source and the requester has no remote hosts; it is never copied";
  // A disabled requester is checked too: it can be enabled without a reload.
  auto const deletes = [](std::string const& file, std::string const& dst) {
    return "path \"" + file + "\" does not exist; the first run deletes its copies (dstPath \"" + dst + "\")";
  };
  EXPECT_EQ(
      (Lines{
          path + ":7:15: " + deletes(dir_ + "/missing/b", dir_ + "/missing/b"),
          path + ":7:15: the directory \"" + dir_ + "/missing\" does not exist (No such file or directory)" + appears,
          path + ":8:15: " + deletes(dir_ + "/plain/c", dir_ + "/plain/c"),
          path + ":8:15: the directory \"" + dir_ + "/plain\" does not exist (Not a directory)" + appears,
          path + ":14:15: " + deletes("/nonexistent-filerep-dir/d", "/nonexistent-filerep-dir/d"),
          path +
              ":14:15: the directory \"/nonexistent-filerep-dir\" does not exist (No such file or "
              "directory)" +
              appears,
          path + ":18:15: dstPath \"/nonexistent-filerep-dir/e\" of file \"/nonexistent-filerep-dir/e\"" + never,
          path + ":19:15: dstPath \"" + dir_ + "/link/./a\" of file \"" + dir_ + "/watched/a\"" + never,
          path + ":21:15: " + deletes(dir_ + "/watched/b", dir_ + "/watched/c")}),
      parsed.warnings);
}

TEST_F(ConfigFileIntegration, ReportsAFileThatCannotBeRead) {
  EXPECT_EQ(Lines{dir_ + "/absent.yaml: cannot read: No such file or directory"},
            parseConfigFile(dir_ + "/absent.yaml").errors);
  EXPECT_EQ(Lines{dir_ + ": cannot read: Is a directory"}, parseConfigFile(dir_).errors);
}

// Run as root, whoever can change the file, or swap it through a directory
// above it, could make the agent run anything as root.
TEST_F(ConfigFileIntegration, AFileOthersCanChangeIsRefusedWhenRoot) {
  if (geteuid() != 0) GTEST_SKIP() << "only root's agent refuses";
  std::string const path = write("agent.yaml", "requesters: {}\n");
  EXPECT_TRUE(parseConfigFile(path).ok());
  std::string const expected = "; expected a file that only root can change, as the agent runs its commands as root";
  chmod(path.c_str(), 0664);
  EXPECT_EQ(Lines{path + ": refused: the file \"" + path + "\" is writable by its group" + expected},
            parseConfigFile(path).errors);
  chmod(path.c_str(), 0644);
  chmod(dir_.c_str(), 0777);
  EXPECT_EQ(Lines{path + ": refused: the directory \"" + dir_ + "\" is writable by others" + expected},
            parseConfigFile(path).errors);
  chmod(dir_.c_str(), 0700);
  ASSERT_EQ(0, chown(path.c_str(), 1, 1));
  EXPECT_EQ(Lines{path + ": refused: the file \"" + path + "\" is owned by uid 1, not root" + expected},
            parseConfigFile(path).errors);
}

}  // namespace
}  // namespace Agent
