#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <regex>

#include "tests/support/HungHost.h"
#include "tests/support/TestFiles.h"
#include "tests/support/TestSshd.h"
#include "tests/tools/ReplicateProcess.h"

using testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

// A runtime directory of the test's own: the shared connections and host
// states of its runs stay apart from those of other tests, and the
// connections are closed at the end.
class Runtime {
 public:
  ~Runtime() { closeConnections(); }
  std::string environment() const { return "XDG_RUNTIME_DIR=" + directory_.path(); }
  std::string state(const std::string& host) const { return readFile(controls() + "/state-" + host); }
  std::vector<std::string> sockets() const {
    std::vector<std::string> found;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(controls(), ignored)) {
      if (entry.is_socket()) found.push_back(entry.path());
    }
    return found;
  }
  void closeConnections() const { closeSshConnections(controls()); }
  std::string controls() const { return directory_ / ("replicate-" + std::to_string(geteuid())); }

 private:
  TempDir directory_;
};

std::chrono::system_clock::time_point modified(const std::string& path) {
  struct stat status {};
  stat(path.c_str(), &status);
  return std::chrono::system_clock::time_point(std::chrono::seconds(status.st_mtim.tv_sec) +
                                               std::chrono::nanoseconds(status.st_mtim.tv_nsec));
}

long long secondsOf(std::chrono::system_clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

// The host's state file holds these lines, with since and lastSuccess
// between from and to.
void expectState(const std::string& text, const std::string& pattern, long long from, long long to) {
  std::smatch match;
  ASSERT_TRUE(std::regex_match(text, match, std::regex(pattern))) << text;
  const long long since = std::stoll(match[1]);
  EXPECT_GE(since, from);
  EXPECT_LE(since, to);
}

// The remote side is this machine, reached through a real sshd, so the
// remote names are local absolute paths.
TEST(ReplicateSshE2e, CopiesToLiveHostsAtOnceAndLeavesADeadOneAlone) {
  TempDir directory;
  TestSshd sshd;
  Runtime runtime;
  const HungHost dead("127.0.0.2", sshd.port());
  // The words reach ssh through rsync's splitting of -e as well as directly.
  const std::string keys = directory / "keys with 'quotes'";
  std::filesystem::create_directory(keys);
  std::filesystem::copy_file(sshd.directory() + "/client_key", keys + "/key");
  const std::string ssh = "-F /dev/null -p " + std::to_string(sshd.port()) + " -i \"" + keys +
                          "/key\" -o IdentitiesOnly=yes -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null"
                          " -o LogLevel=ERROR -o ConnectTimeout=6";
  const std::string target = directory / "copies/file";
  const auto copy = [&] {
    return runReplicate({"--cmd", "rsyncFile", "--remoteHosts", "127.0.0.2,127.0.0.1", "--sshOptions", ssh, "--source",
                         "source", "--target", target, "--rsyncOptions", ""},
                        directory.path(), {runtime.environment()});
  };

  writeFile(directory / "source", "first");
  const auto start = std::chrono::system_clock::now();
  ProcessResult result = copy();
  const auto end = std::chrono::system_clock::now();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "Replicate: host 127.0.0.2: 127.0.0.2 did not answer within 6 s: it is down or a firewall drops the "
            "traffic\n");
  EXPECT_EQ(readFile(target), "first") << sshd.log();
  // Well before the dead host's time-out, even on a loaded machine.
  EXPECT_LT(modified(target) - start, 5s) << "the live host waited for the dead one";
  expectState(runtime.state("127.0.0.1"), "state up\nsince ([0-9]+)\nlastSuccess \\1\nfailures 0\nnextTry 0\nerror \n",
              secondsOf(start), secondsOf(end));
  const std::string down = runtime.state("127.0.0.2");
  expectState(down,
              "state down\nsince ([0-9]+)\nlastSuccess 0\nfailures 1\nnextTry ([0-9]+)\nerror 127.0.0.2 did not "
              "answer within 6 s: it is down or a firewall drops the traffic\n",
              secondsOf(start), secondsOf(end));

  // The dead host is left alone until well after its next try.
  writeFile(directory / "source", "second");
  const auto again = std::chrono::steady_clock::now();
  result = copy();
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_LT(std::chrono::steady_clock::now() - again, 5s);
  EXPECT_EQ(readFile(target), "second");
  EXPECT_EQ(runtime.state("127.0.0.2"), down);

  // Both runs went through one connection, which is still open.
  const std::string log = sshd.log();
  size_t logins = 0;
  for (size_t at = log.find("Accepted publickey"); at != std::string::npos;
       at = log.find("Accepted publickey", at + 1)) {
    ++logins;
  }
  EXPECT_EQ(logins, 1u) << log;
  const std::vector<std::string> sockets = runtime.sockets();
  ASSERT_EQ(sockets.size(), 1u);
  EXPECT_EQ(runProcess({"ssh", "-o", "ControlPath=" + sockets[0], "-O", "check", "localhost"}).status, 0);
}

// The remote rsync here predates --mkpath, and the target lies below a
// directory of its own mode and time and a link to another directory.
TEST(ReplicateSshE2e, CopiesIntoNewDirectoriesOfAnOldRsyncAndTellsWhenSshdIsDown) {
  TempDir directory;
  TestSshd sshd;
  Runtime runtime;
  const std::vector<std::string> environment = {"RSYNC_RSH=" + sshd.rsyncRsh(), runtime.environment()};
  writeFile(directory / "old-rsync",
            "#!/bin/sh\nfor a; do [ \"$a\" = --mkpath ] && { echo 'rsync: --mkpath: unknown option' >&2; exit 1; }; "
            "done\nexec rsync \"$@\"\n");
  ASSERT_EQ(chmod((directory / "old-rsync").c_str(), 0755), 0);
  const std::string options = "-a --rsync-path=" + directory / "old-rsync";
  std::filesystem::create_directories(directory / "remote/kept");
  std::filesystem::create_directories(directory / "elsewhere");
  std::filesystem::create_directory_symlink(directory / "elsewhere", directory / "remote/kept/link");
  ASSERT_EQ(chmod((directory / "remote/kept").c_str(), 0700), 0);
  const timespec times[2] = {{1700000000, 0}, {1700000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (directory / "remote/kept").c_str(), times, 0), 0);
  const std::string target = directory / "remote/kept/link/made/on the/remote side/file";
  const auto run = [&](std::vector<std::string> arguments) {
    return runReplicate(std::move(arguments), directory.path(), environment);
  };
  const auto copy = [&](const std::string& host) {
    return run({"--cmd", "rsyncFile", "--remoteHosts", host, "--source", "source", "--target", target, "--rsyncOptions",
                options});
  };

  // The directories are sent from a tree in the control directory; one
  // left there by a run that was killed goes with the next.
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  ASSERT_EQ(waitpid(dead, nullptr, 0), dead);
  ASSERT_EQ(mkdir(runtime.controls().c_str(), 0700), 0);
  std::filesystem::create_directories(runtime.controls() + "/tree-" + std::to_string(dead) + "-left/a/b");

  writeFile(directory / "source", "first");
  ProcessResult result = copy("localhost");
  ASSERT_EQ(result.status, 0) << result.err << sshd.log();
  EXPECT_EQ(result.err, "");
  for (const auto& entry : std::filesystem::directory_iterator(runtime.controls())) {
    EXPECT_FALSE(entry.path().filename().string().starts_with("tree-")) << entry.path();
  }
  EXPECT_EQ(readFile(directory / "elsewhere/made/on the/remote side/file"), "first");
  EXPECT_TRUE(std::filesystem::is_symlink(directory / "remote/kept/link"));
  struct stat kept {};
  ASSERT_EQ(stat((directory / "remote/kept").c_str(), &kept), 0);
  EXPECT_EQ(kept.st_mode & 07777, 0700u);
  EXPECT_EQ(kept.st_mtim.tv_sec, 1700000000);

  // The same size again: rsync must not skip it for an equal size and time.
  writeFile(directory / "source", "secnd");
  result = copy("root@localhost");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(readFile(target), "secnd");

  result = runReplicateWithInput({"--cmd", "rsyncFiles", "--remoteHosts", "localhost", "--source", directory.path(),
                                  "--target", directory / "batch/made/here", "--rsyncOptions", options},
                                 std::string("source\0", 7), directory.path(), environment);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "0\n");
  EXPECT_EQ(readFile(directory / "batch/made/here/source"), "secnd");

  runtime.closeConnections();
  sshd.stop();
  result = copy("localhost");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "Replicate: host localhost: nothing listens for ssh on localhost: is sshd running, is the port right?\n");
  result = run({"--cmd", "deleteFile", "--remoteHosts", "localhost", "--target", target});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("Replicate: every host of this run is down: nothing listens for ssh on localhost: "
                                    "is sshd running, is the port right? (left alone for another "));
  EXPECT_EQ(readFile(target), "secnd");

  // A probe finds it up again at once, for every run after it.
  sshd.start();
  result = run({"--cmd", "probe", "--remoteHosts", "localhost"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(runtime.state("localhost"), testing::StartsWith("state up\n"));
  result = run({"--cmd", "deleteFile", "--remoteHosts", "localhost", "--target", target});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_FALSE(exists(target));
}

TEST(ReplicateSshE2e, PassesAnyNameIntactAndRunsNothingAsCode) {
  TempDir directory;
  TestSshd sshd;
  Runtime runtime;
  const std::vector<std::string> environment = {"RSYNC_RSH=" + sshd.rsyncRsh(), runtime.environment()};
  // A file name holds no '/', so the source name's commands would leave
  // the canary in the working directory here or the home directory there;
  // the target's directory names it absolutely.
  const std::string canary = directory / "canary";
  const std::string homeCanary = std::string(getpwuid(getuid())->pw_dir) + "/canary";
  const std::string name = "it's \"$(touch canary)\";touch canary `touch canary`\nx";
  writeFile(directory / name, "odd");
  const std::string target =
      directory / ("dir $(touch " + canary + ");touch " + canary + "\n`touch " + canary + "`/") + name;

  ProcessResult result = runReplicate({"--cmd", "rsyncFile", "--remoteHosts", "localhost", "--source", name, "--target",
                                       target, "--rsyncOptions", "-a"},
                                      directory.path(), environment);
  ASSERT_EQ(result.status, 0) << result.err << sshd.log();
  EXPECT_EQ(readFile(target), "odd");

  result = runReplicate({"--cmd", "deleteFile", "--remoteHosts", "localhost", "--target", target}, directory.path(),
                        environment);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_FALSE(exists(target));
  EXPECT_TRUE(exists(directory / name)) << "the source stays";
  EXPECT_FALSE(exists(canary));
  EXPECT_FALSE(exists(homeCanary));
}

// What a tree leaves at the destination when one of its directories became
// a file: directories that hold only directories make way, one and the same
// for a single copy and a batch, and one that holds a file is not replaced
// nor copied into.
TEST(ReplicateSshE2e, ADirectoryInAFilesWayMakesWayUnlessItHoldsAFile) {
  TempDir directory;
  TestSshd sshd;
  Runtime runtime;
  const std::vector<std::string> environment = {"RSYNC_RSH=" + sshd.rsyncRsh(), runtime.environment()};
  std::filesystem::create_directory(directory / "source");
  for (const std::string name : {"single", "held", "batched"}) writeFile(directory / ("source/" + name), name);
  for (const std::string name : {"single/a/b", "held/a", "batched/a/b"}) {
    std::filesystem::create_directories(directory / ("remote/" + name));
  }
  writeFile(directory / "remote/held/a/kept", "kept");
  const auto copy = [&](const std::string& name) {
    return runReplicate({"--cmd", "rsyncFile", "--remoteHosts", "localhost", "--source", directory / ("source/" + name),
                         "--target", directory / ("remote/" + name), "--rsyncOptions", "-a"},
                        directory.path(), environment);
  };

  ProcessResult result = copy("single");
  EXPECT_EQ(result.status, 0) << result.err << sshd.log();
  EXPECT_EQ(readFile(directory / "remote/single"), "single");
  result = copy("held");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("cannot delete non-empty directory"));
  EXPECT_EQ(readFile(directory / "remote/held/a/kept"), "kept");
  EXPECT_FALSE(exists(directory / "remote/held/held"));

  result = runReplicateWithInput({"--cmd", "rsyncFiles", "--remoteHosts", "localhost", "--source", directory / "source",
                                  "--target", directory / "remote", "--rsyncOptions", "-a"},
                                 std::string("batched\0held\0", 13), directory.path(), environment);
  EXPECT_EQ(result.out, "0\n1\n") << result.err;
  EXPECT_EQ(readFile(directory / "remote/batched"), "batched");
  EXPECT_EQ(readFile(directory / "remote/held/a/kept"), "kept");
}

}  // namespace
