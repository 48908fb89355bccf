#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include "tests/support/TestSshd.h"
#include "tests/tools/ReplicateProcess.h"
#include "tests/support/TestFiles.h"

using testing::HasSubstr;

namespace {

// The remote side is this machine, reached through a real sshd, so the
// remote names are local absolute paths.
TEST(ReplicateSshE2e, CopiesIntoNewDirectoriesAndNamesTheHostWhenSshdIsDown) {
  TempDir directory;
  TestSshd sshd;
  const std::vector<std::string> environment = {"RSYNC_RSH=" + sshd.rsyncRsh()};
  writeFile(directory / "source", "first");
  const std::string target = directory / "made/on the/remote side/file";

  ProcessResult result = runReplicate({"--cmd", "rsyncFile", "--remoteHosts", "localhost", "--source", "source",
                                         "--target", target, "--rsyncOptions", "-a"},
                                        directory.path(), environment);
  ASSERT_EQ(result.status, 0) << result.err << sshd.log();
  EXPECT_EQ(readFile(target), "first");

  // The same size again: rsync must not skip it for an equal size and time.
  writeFile(directory / "source", "secnd");
  result = runReplicate({"--cmd", "rsyncFile", "--remoteHosts", "root@localhost", "--source", "source", "--target",
                         target, "--rsyncOptions", "-a"},
                        directory.path(), environment);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(readFile(target), "secnd");

  sshd.stop();
  result = runReplicate({"--cmd", "rsyncFile", "--remoteHosts", "localhost", "--source", "source", "--target",
                         target, "--rsyncOptions", "-a"},
                        directory.path(), environment);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("Replicate: host localhost: rsync failed"));
  result = runReplicate({"--cmd", "deleteFile", "--remoteHosts", "localhost", "--target", target},
                        directory.path(), environment);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("Replicate: host localhost: the remote shell failed with exit code 255"));
  EXPECT_EQ(readFile(target), "secnd");

  sshd.start();
  result = runReplicate({"--cmd", "deleteFile", "--remoteHosts", "localhost", "--target", target},
                        directory.path(), environment);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_FALSE(exists(target));
}

TEST(ReplicateSshE2e, PassesAnyNameIntactAndRunsNothingAsCode) {
  TempDir directory;
  TestSshd sshd;
  const std::vector<std::string> environment = {"RSYNC_RSH=" + sshd.rsyncRsh()};
  // A file name holds no '/', so the source name's commands would leave
  // the canary in the working directory here or the home directory there;
  // the target's directory names it absolutely.
  const std::string canary = directory / "canary";
  const std::string homeCanary = std::string(getpwuid(getuid())->pw_dir) + "/canary";
  const std::string name = "it's \"$(touch canary)\";touch canary `touch canary`\nx";
  writeFile(directory / name, "odd");
  const std::string target =
      directory / ("dir $(touch " + canary + ");touch " + canary + "\n`touch " + canary + "`/") + name;

  ProcessResult result = runReplicate({"--cmd", "rsyncFile", "--remoteHosts", "localhost", "--source", name,
                                         "--target", target, "--rsyncOptions", "-a"},
                                        directory.path(), environment);
  ASSERT_EQ(result.status, 0) << result.err << sshd.log();
  EXPECT_EQ(readFile(target), "odd");

  result = runReplicate({"--cmd", "deleteFile", "--remoteHosts", "localhost", "--target", target},
                        directory.path(), environment);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_FALSE(exists(target));
  EXPECT_TRUE(exists(directory / name)) << "the source stays";
  EXPECT_FALSE(exists(canary));
  EXPECT_FALSE(exists(homeCanary));
}

}  // namespace
