#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TestFiles.h"
#include "tests/tools/FakeSsh.h"
#include "tests/tools/ReplicateProcess.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const std::string hosts = "alpha, nonexistent.invalid,,user@beta,[::1]";

}  // namespace

TEST(ReplicateRemoteIntegration, CopiesAndDeletesOnEveryHostAndNamesTheOnesThatFail) {
  TempDir directory;
  const FakeSsh ssh(directory);
  const std::string pwned = directory / "pwned";
  // Reaches the remote side through rsync's protocol for the copy, and
  // through a remote shell for the delete.
  const std::string target = "new dir/it's \"$(touch " + pwned + ")\";touch " + pwned + "\n`touch " + pwned + "`";
  writeFile(directory / "source", "content");

  ProcessResult result = runReplicate({"--cmd", "rsyncFile", "--remoteHosts", hosts, "--source", "source", "--target",
                                       target, "--rsyncOptions", "-a '--exclude=$(touch " + pwned + ")'"},
                                      directory.path(), ssh.environment());
  EXPECT_EQ(result.status, 1);
  // One line for the host, saying what to do, in place of ssh's and rsync's.
  EXPECT_EQ(result.err, "Replicate: host nonexistent.invalid: nonexistent.invalid: no such host name\n");
  std::vector<std::string> contacted = ssh.hostsContacted();
  EXPECT_THAT(std::set(contacted.begin(), contacted.end()),
              ElementsAre("::1", "alpha", "nonexistent.invalid", "user@beta"));
  EXPECT_EQ(std::count(contacted.begin(), contacted.end(), "nonexistent.invalid"), 1);
  for (const char* host : {"alpha", "beta", "::1"}) {
    EXPECT_EQ(readFile(ssh.home(host) + "/" + target), "content") << host;
  }

  // The host found down is left alone: not tried, and no failure of the run.
  result = runReplicate({"--cmd", "deleteFile", "--remoteHosts", hosts, "--target", target}, directory.path(),
                        ssh.environment());
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(ssh.hostsContacted().size(), contacted.size() + 3);
  for (const char* host : {"alpha", "beta", "::1"}) {
    EXPECT_FALSE(exists(ssh.home(host) + "/" + target)) << host;
    EXPECT_TRUE(exists(ssh.home(host) + "/new dir")) << host;
  }

  // Already gone counts as deleted; a directory does not.
  result = runReplicate({"--cmd", "deleteFile", "--remoteHosts", "alpha,beta", "--target", target}, directory.path(),
                        ssh.environment());
  EXPECT_EQ(result.status, 0) << result.err;
  result = runReplicate({"--cmd", "deleteFile", "--remoteHosts", "alpha", "--target", "new dir"}, directory.path(),
                        ssh.environment());
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("Replicate: host alpha: rm failed on the remote host with exit code 1"));
  EXPECT_TRUE(exists(ssh.home("alpha") + "/new dir"));

  EXPECT_FALSE(exists(pwned));
}

TEST(ReplicateRemoteIntegration, CopiesABatchWithOneRsyncPerHost) {
  TempDir directory;
  const FakeSsh ssh(directory);
  const std::vector<std::string> names = {"top", "new dir/it's \"$(touch pwned)\";touch pwned\n`touch pwned`"};
  std::string list;
  for (const std::string& name : names) list += name + '\0';
  ASSERT_EQ(mkdir((directory / "source").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((directory / "source/new dir").c_str(), 0755), 0);
  for (const std::string& name : names) writeFile(directory / ("source/" + name), name);
  std::vector<std::string> contacted;
  const auto copyBatch = [&](const std::string& toHosts) {
    return runReplicateWithInput({"--cmd", "rsyncFiles", "--remoteHosts", toHosts, "--source", "source", "--target",
                                  "made/here", "--rsyncOptions", "-a"},
                                 list, directory.path(), ssh.environment());
  };

  // A file is copied only when it reached every host.
  ProcessResult result = copyBatch(hosts);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "1\n1\n");
  EXPECT_THAT(result.err, HasSubstr("Replicate: host nonexistent.invalid: nonexistent.invalid: no such host name"));
  contacted = ssh.hostsContacted();
  EXPECT_THAT(std::set(contacted.begin(), contacted.end()),
              ElementsAre("::1", "alpha", "nonexistent.invalid", "user@beta"));
  for (const char* host : {"alpha", "beta", "::1"}) {
    for (const std::string& name : names) EXPECT_EQ(readFile(ssh.home(host) + "/made/here/" + name), name) << host;
    EXPECT_FALSE(exists(ssh.home(host) + "/pwned")) << host;
  }

  result = copyBatch("alpha,user@beta");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "0\n0\n");
}

// With its own ssh command, Replicate shares one connection per host: of
// runs that start together, one opens it while the others wait, and a host
// that could not be reached is left alone until its next try.
TEST(ReplicateRemoteIntegration, RunsStartingTogetherOpenOneSharedConnection) {
  TempDir directory;
  const FakeSsh ssh(directory);
  ASSERT_EQ(mkdir((directory / "bin").c_str(), 0755), 0);
  ASSERT_EQ(symlink((directory / "fake-ssh").c_str(), (directory / "bin/ssh").c_str()), 0);
  const std::vector<std::string> environment = {"PATH=" + directory / "bin" + ":" + getenv("PATH"),
                                                "XDG_RUNTIME_DIR=" + directory / "run", "RSYNC_RSH="};
  writeFile(directory / "source", "content");
  const auto copyTo = [&](const std::string& host) {
    return spawnProcess({REPLICATE_PROGRAM, "--cmd", "rsyncFile", "--remoteHosts", host, "--source", "source",
                         "--target", "copy", "--rsyncOptions", "-a"},
                        environment, directory.path(), -1, -1);
  };

  std::vector<pid_t> together;
  for (int i = 0; i < 4; ++i) together.push_back(copyTo("alpha"));
  for (const pid_t run : together) EXPECT_EQ(exitCode(run), 0);
  EXPECT_EQ(ssh.hostsContacted().size(), 5u) << "one run of nothing opens it, four copies use it";
  EXPECT_EQ(exitCode(copyTo("alpha")), 0);
  EXPECT_EQ(ssh.hostsContacted().size(), 6u) << "once open, a copy goes straight through";
  EXPECT_EQ(readFile(ssh.home("alpha") + "/copy"), "content");

  EXPECT_EQ(exitCode(copyTo("gone.invalid")), 1);
  EXPECT_EQ(exitCode(copyTo("gone.invalid")), 1);
  EXPECT_EQ(ssh.hostsContacted().size(), 7u) << "an unreachable host is tried once, then left alone";
}
