#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "FileReplication/FileReplicationUtils.h"
#include "runtime/ActivityManager.h"
#include "tests/support/ScriptedChildren.h"
#include "tests/support/TestFiles.h"
#include "tests/support/TraceCapture.h"

namespace FileReplication {
namespace {

using Argv = std::vector<std::string>;

TEST(CommandsTest, ArgumentVectorsKeepEachValueWhole) {
  Kel::ScriptedChildren children;
  std::string const odd = "a file; $(rm -rf /) 'q' \"d\"\nx";
  Commands::rsyncFile("h1,h2", odd, "/dst/" + odd, "-a --exclude 'x y'");
  Commands::rsyncFile("", "/s", "/t", "");
  Commands::rsyncFile(" ", "/s", "/t", "-a");
  Commands::deleteFile("h1", odd);
  Commands::deleteFile("", "/t");
  ASSERT_EQ(5u, children.launches());
  EXPECT_EQ((Argv{"Replicate", "--cmd", "rsyncFile", "--remoteHosts", "h1,h2", "--source", odd, "--target",
                  "/dst/" + odd, "--rsyncOptions", "-a --exclude 'x y'"}),
            children.child(0).argv);
  EXPECT_EQ((Argv{"Replicate", "--cmd", "rsyncFile", "--source", "/s", "--target", "/t", "--rsyncOptions", ""}),
            children.child(1).argv)
      << "empty options are still passed, as an empty argument";
  EXPECT_EQ((Argv{"Replicate", "--cmd", "rsyncFile", "--remoteHosts", " ", "--source", "/s", "--target", "/t",
                  "--rsyncOptions", "-a"}),
            children.child(2).argv)
      << "a blank is not an empty hosts string";
  EXPECT_EQ((Argv{"Replicate", "--cmd", "deleteFile", "--remoteHosts", "h1", "--target", odd}), children.child(3).argv);
  EXPECT_EQ((Argv{"Replicate", "--cmd", "deleteFile", "--target", "/t"}), children.child(4).argv);
}

TEST(CommandsTest, SshOptionsGoWholeToReplicateOnlyWithRemoteHosts) {
  Kel::ScriptedChildren children;
  std::string const ssh = "-p 2222 -i '/etc/file rep/key'";
  Commands::rsyncFile("h1,h2", "/s", "/t", "-a", 1, ssh);
  Commands::rsyncFile("", "/s", "/t", "-a", 1, ssh);
  Commands::rsyncFile("h1", "/s", "/t", "-a", 1, "");
  Commands::deleteFile("h1", "/t", ssh);
  Commands::deleteFile("", "/t", ssh);
  ASSERT_EQ(5u, children.launches());
  EXPECT_EQ((Argv{"Replicate", "--cmd", "rsyncFile", "--remoteHosts", "h1,h2", "--sshOptions", ssh, "--source", "/s",
                  "--target", "/t", "--rsyncOptions", "-a"}),
            children.child(0).argv);
  EXPECT_EQ((Argv{"Replicate", "--cmd", "rsyncFile", "--source", "/s", "--target", "/t", "--rsyncOptions", "-a"}),
            children.child(1).argv);
  EXPECT_EQ((Argv{"Replicate", "--cmd", "rsyncFile", "--remoteHosts", "h1", "--source", "/s", "--target", "/t",
                  "--rsyncOptions", "-a"}),
            children.child(2).argv);
  EXPECT_EQ((Argv{"Replicate", "--cmd", "deleteFile", "--remoteHosts", "h1", "--sshOptions", ssh, "--target", "/t"}),
            children.child(3).argv);
  EXPECT_EQ((Argv{"Replicate", "--cmd", "deleteFile", "--target", "/t"}), children.child(4).argv);
}

TEST(CommandsTest, TracesNameTheRequest) {
  Kel::ScriptedChildren children;
  Kel::TraceCapture trace("FileReplicationUtils");
  Commands::rsyncFile("h", "/s", "/t", "-a");
  Commands::deleteFile("", "/t");
  EXPECT_EQ((Argv{"rsycnFile remoteHostsString:h source:/s target:/t rsyncOptions: -a",
                  "deleteFile remoteHostsString: target:/t"}),
            trace.messages());
}

// The real spawner finds Replicate on PATH and hands it the vector intact.
TEST(CommandsIntegration, RealChildReceivesTheArgumentVector) {
  TempDir dir;
  std::string const d = dir.path();
  writeFile(d + "/Replicate", "#!/bin/sh\nfor a in \"$@\"; do printf '%s|' \"$a\"; done > " + d + "/args\n");
  chmod((d + "/Replicate").c_str(), 0755);
  std::string const oldPath = getenv("PATH");
  setenv("PATH", (d + ":" + oldPath).c_str(), 1);
  auto child = Commands::rsyncFile("", "/s x", "/t;y", "");
  setenv("PATH", oldPath.c_str(), 1);
  ASSERT_TRUE(
      Kel::activityManager()->loop().runUntil([&] { return child->signalCode() != Kel::ChildSiginfo::notEnded; }, 10));
  EXPECT_EQ(Kel::ChildSiginfo::exited, child->signalCode());
  EXPECT_EQ(0, child->exitStatus());
  EXPECT_EQ("--cmd|rsyncFile|--source|/s x|--target|/t;y|--rsyncOptions||", readFile(d + "/args"));
}

}  // namespace
}  // namespace FileReplication
