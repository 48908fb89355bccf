#include "FileReplication/ReplicateBatcher.h"

#include <gtest/gtest.h>

#include "tests/support/ScriptedChildren.h"

namespace FileReplication {
namespace {

using Argv = std::vector<std::string>;
using End = Kel::ChildBatcher::End;

Argv copyArgv(std::string const& source, std::string const& target, std::string const& options = "-a",
              std::string const& hosts = "h1", std::string const& ssh = "") {
  Argv argv = {"Replicate", "--cmd", "rsyncFile"};
  if (!hosts.empty()) argv.insert(argv.end(), {"--remoteHosts", hosts});
  if (!ssh.empty()) argv.insert(argv.end(), {"--sshOptions", ssh});
  argv.insert(argv.end(), {"--source", source, "--target", target, "--rsyncOptions", options});
  return argv;
}

std::vector<Kel::Ptr<Kel::ChildSiginfo>> membersOf(std::vector<Argv> const& argvs) {
  std::vector<Kel::Ptr<Kel::ChildSiginfo>> members;
  for (auto const& argv : argvs) {
    std::vector<char const*> pointers;
    for (auto const& word : argv) pointers.push_back(word.c_str());
    pointers.push_back(nullptr);
    members.push_back(Kel::run(pointers.data(), -1, -1, -1, -1));
  }
  return members;
}

// The process that copies both, as the batcher makes it.
Kel::ChildBatcher::Carrier carrierOf(Argv const& a, Argv const& b) {
  Kel::ScriptedChildren scripted;
  return ReplicateBatcher::instance().carrierOf(membersOf({a, b}));
}

TEST(ReplicateBatcherTest, FilesShareARunOnlyWhenTheirPathsSplitAlikeAndNothingChangesHowRsyncReadsTheList) {
  auto const& batcher = ReplicateBatcher::instance();
  auto const key = [&](Argv const& argv) { return batcher.batchKey(argv); };

  auto const carrier =
      carrierOf(copyArgv("/srv/a/x.conf", "/backup/a/x.conf"), copyArgv("/srv/b/-y\n'$;", "/backup/b/-y\n'$;"));
  EXPECT_EQ((Argv{"Replicate", "--cmd", "rsyncFiles", "--remoteHosts", "h1", "--source", "/srv", "--target", "/backup",
                  "--rsyncOptions", "-a"}),
            carrier.argv);
  EXPECT_EQ(std::string("a/x.conf\0b/-y\n'$;\0", 18), carrier.input) << "names are data, NUL-terminated";
  auto const local = carrierOf(copyArgv("/etc/x", "/etc/x", "-az", ""), copyArgv("/etc/y/z", "/etc/y/z", "-az", ""));
  EXPECT_EQ((Argv{"Replicate", "--cmd", "rsyncFiles", "--source", "/", "--target", "/", "--rsyncOptions", "-az"}),
            local.argv);
  EXPECT_EQ(std::string("etc/x\0etc/y/z\0", 14), local.input);
  auto const ssh =
      carrierOf(copyArgv("/s/x", "/d/x", "-a", "h1", "-p 2222"), copyArgv("/s/y", "/d/y", "-a", "h1", "-p 2222"));
  EXPECT_EQ((Argv{"Replicate", "--cmd", "rsyncFiles", "--remoteHosts", "h1", "--sshOptions", "-p 2222", "--source",
                  "/s", "--target", "/d", "--rsyncOptions", "-a"}),
            ssh.argv);

  std::string const shared = key(copyArgv("/srv/a/x", "/backup/a/x"));
  EXPECT_EQ(shared, key(copyArgv("/srv/x", "/backup/x")));
  std::string const sharedSsh = key(copyArgv("/srv/a/x", "/backup/a/x", "-a", "h1", "-p 2222"));
  EXPECT_EQ(sharedSsh, key(copyArgv("/srv/y", "/backup/y", "-a", "h1", "-p 2222")));
  for (auto const& apart :
       {copyArgv("/srv/a/x", "/backup/b/x"), copyArgv("/srv/a/x", "/backup/a/x", "-az"),
        copyArgv("/srv/a/x", "/backup/a/x", "-a", "h2"), copyArgv("/srv/a/x", "/backup/a/x", "-a", ""),
        copyArgv("/srv/a/x", "/backup/a/x", "-a", "h1", "-p 2222")}) {
    EXPECT_NE(shared, key(apart)) << apart[5];
  }
  EXPECT_NE(sharedSsh, key(copyArgv("/srv/a/x", "/backup/a/x", "-a", "h1", "-p 2223")));
  for (auto const& alone :
       {copyArgv("/srv/x", "/backup/y"), copyArgv("/srv/x", "x"), copyArgv("/srv/x", "/srv/x/"),
        copyArgv("/srv/./x", "/b/./x"), copyArgv("/srv/../x", "/b/../x"), copyArgv("/s/x", "/d/x", "-a --no-relative"),
        copyArgv("/s/x", "/d/x", "-av0"), copyArgv("/s/x", "/d/x", "--files-from=/l"),
        copyArgv("/s/x", "/d/x", "'--from0'"), Argv{"Replicate", "--cmd", "deleteFile", "--target", "/d/x"}}) {
    EXPECT_EQ("", key(alone)) << alone.back();
  }
}

TEST(ReplicateBatcherTest, OnlyAPartialFailureTellsFilesApartAndAMissingLineIsAFailure) {
  auto const& batcher = ReplicateBatcher::instance();
  auto const codes = [](std::vector<End> const& ends) {
    std::vector<int> seen;
    for (auto const& end : ends) seen.push_back(end.code * 1000 + end.exitStatus);
    return seen;
  };
  int const ok = Kel::ChildSiginfo::exited * 1000;
  EXPECT_EQ((std::vector<int>{ok, ok + 1, ok + 1, ok + 1}),
            codes(batcher.endsOf(4, {Kel::ChildSiginfo::exited, 1}, "0\n1\nx\n0")));
  EXPECT_EQ((std::vector<int>{ok, ok}), codes(batcher.endsOf(2, {Kel::ChildSiginfo::exited, 0}, "")));
  EXPECT_EQ((std::vector<int>{ok + 2, ok + 2}), codes(batcher.endsOf(2, {Kel::ChildSiginfo::exited, 2}, "0\n0\n")));
  int const killed = Kel::ChildSiginfo::killed * 1000 + 9;
  EXPECT_EQ((std::vector<int>{killed, killed}), codes(batcher.endsOf(2, {Kel::ChildSiginfo::killed, 9}, "0\n0\n")));
}

// What the shared process wrote on stderr: a line that names a file, quoted
// or not, by its path or by its name under the roots, is that file's; the
// others are every failed file's, and a copied file gets none of them.
TEST(ReplicateBatcherTest, EachFileGetsTheErrorLinesThatNameItAndFailedOnesTheRest) {
  Kel::ScriptedChildren scripted;
  auto const members = membersOf({copyArgv("/srv/a/x.conf", "/backup/a/x.conf"),
                                  copyArgv("/srv/b/y y", "/backup/b/y y"), copyArgv("/srv/c", "/backup/c")});
  std::string const x1 = "cannot delete non-empty directory: a/x.conf\n";
  std::string const x2 = "rsync: [sender] link_stat \"/srv/a/x.conf\" failed\n";
  std::string const y = "Replicate: cannot copy \"b/y y\": rsync failed\n";
  std::string const all = "Replicate: host h1: connection reset\n";
  End const failed{Kel::ChildSiginfo::exited, 1}, copied{Kel::ChildSiginfo::exited, 0};
  auto const outputs =
      ReplicateBatcher::instance().errorOutputsOf(members, {failed, failed, copied}, x1 + all + x2 + y + x2);
  EXPECT_EQ((std::vector<std::string>{x1 + all + x2 + x2, all + y, ""}), outputs);
}

}  // namespace
}  // namespace FileReplication
