#include <sys/wait.h>

#include <csignal>

#include <gtest/gtest.h>

#include "tests/support/TestFiles.h"
#include "tests/support/TestProcess.h"
#include "tests/tools/FakeSsh.h"

// The library's time-out kills only Replicate itself; rsync and the remote
// shell it started must not outlive it.
TEST(ReplicateKillIntegration, KilledMidCopyLeavesNoProcessBehind) {
  TempDir directory;
  const FakeSsh ssh(directory);
  // At 10 kB/s this takes 100 s, far longer than drain() waits.
  writeFile(directory / "large", std::string(1'000'000, 'x'));
  const std::vector<std::string> copy = {"--cmd",    "rsyncFile", "--source",       "large",
                                         "--target", "copy",      "--rsyncOptions", "--bwlimit=10 --progress"};

  for (const bool remote : {false, true}) {
    std::vector<std::string> arguments = copy;
    if (remote) arguments.insert(arguments.end(), {"--remoteHosts", "alpha"});
    arguments.insert(arguments.begin(), REPLICATE_PROGRAM);
    TestProcess replicate(arguments, ssh.environment(), directory.path());
    ASSERT_TRUE(replicate.awaitOutput()) << replicate.err();
    ASSERT_EQ(kill(replicate.pid(), SIGKILL), 0);
    const int status = replicate.wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    // Every process started below Replicate holds its stdout or stderr;
    // both end only when all of them are gone.
    EXPECT_TRUE(replicate.drain()) << (remote ? "remote" : "local") << " copy left a process behind";
  }
}
