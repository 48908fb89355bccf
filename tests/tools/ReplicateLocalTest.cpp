#include <fcntl.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/ReplicateProcess.h"
#include "tests/support/TestFiles.h"

using testing::HasSubstr;

namespace {

ProcessResult copy(const TempDir& directory, const std::string& source, const std::string& target,
                     const std::string& options = "") {
  return runReplicate({"--cmd", "rsyncFile", "--source", source, "--target", target, "--rsyncOptions", options},
                      directory.path());
}

ProcessResult remove(const TempDir& directory, const std::string& target) {
  return runReplicate({"--cmd", "deleteFile", "--target", target}, directory.path());
}

void setModificationTime(const std::string& path, time_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

}  // namespace

TEST(ReplicateLocalIntegration, CopiesUpdatesAndDeletes) {
  TempDir directory;
  const std::string source = directory / "source";
  const std::string target = directory / "new/sub/target";
  writeFile(source, "first");
  setModificationTime(source, 1700000000);
  ProcessResult result = copy(directory, source, target, "-a");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(readFile(target), "first");
  struct stat status {};
  ASSERT_EQ(stat((directory / "new/sub").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0755u & ~umask(umask(0)));

  // Same size and same modification time: only the content tells them apart.
  writeFile(source, "secnd");
  setModificationTime(source, 1700000000);
  result = copy(directory, source, target, "-a");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(readFile(target), "secnd");

  result = remove(directory, target);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_FALSE(exists(target));
  result = remove(directory, target);
  EXPECT_EQ(result.status, 0) << result.err;

  result = remove(directory, directory / "new");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("is a directory"));
  EXPECT_TRUE(exists(directory / "new"));
}

TEST(ReplicateLocalIntegration, ReportsWhatFailed) {
  TempDir directory;
  ProcessResult result = copy(directory, directory / "missing", directory / "target");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("source \"" + directory / "missing" + "\": No such file or directory"));
  EXPECT_FALSE(exists(directory / "target"));

  writeFile(directory / "source", "x");
  result = runReplicate({"--cmd", "rsyncFile", "--source", "source", "--target", "target", "--rsyncOptions", ""},
                        directory.path(), {"PATH=" + directory.path()});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("rsync not found on PATH"));

  // rsync's own failures come with its exit code and what it means.
  result = copy(directory, "source", "target", "--no-such-option");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("Replicate: rsync failed with exit code 1 (syntax or usage error)"));
}

TEST(ReplicateLocalIntegration, NeitherOptionsNorNamesRunAsCode) {
  TempDir directory;
  const std::string pwned = directory / "pwned";
  // A quoted word with a blank stays one word: the file named "a b" is excluded.
  writeFile(directory / "a b", "x");
  const std::string options = "-a --exclude 'a b' '--exclude=$(touch " + pwned + ")' \"--exclude=`touch " + pwned +
                              "`\" --exclude=\\;touch\\ " + pwned;
  ProcessResult result = copy(directory, "a b", "excluded", options);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_FALSE(exists(directory / "excluded"));

  // Names with blanks, quotes, shell syntax, a newline, a leading dash and
  // a colon (rsync's host separator) are copied and deleted as they are.
  const std::vector<std::string> names = {"it's a \"name\"", "$(touch " + pwned + ")", "a;touch " + pwned,
                                         "line\nbreak", "-rf", "host:file", "`touch " + pwned + "`"};
  for (const std::string& name : names) {
    writeFile(directory / "source", name);
    result = copy(directory, "source", name);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(readFile(directory / name), name);
    result = copy(directory, name, "dir/" + name);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(readFile(directory / ("dir/" + name)), name);
    result = remove(directory, "dir/" + name);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_FALSE(exists(directory / ("dir/" + name))) << name;
  }
  EXPECT_FALSE(exists(pwned));
}

TEST(ReplicateLocalIntegration, RefusesMalformedCommandLines) {
  TempDir directory;
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--cmd", "rsyncFile", "--source", "s", "--target", "t"},
        {"--cmd", "deleteFile", "--target", "t", "--bogus", "x"},
        {"--cmd", "deleteFile", "--target"},
        {"--cmd", "moveFile", "--target", "t"},
        {"--cmd", "deleteFile", "--target", "t", "--target", "u"},
        {"--cmd", "deleteFile", "--target", "t", "--remoteHosts", "  "},
        {"--cmd", "rsyncFile", "--source", "s", "--target", "t", "--rsyncOptions", "\"a"}}) {
    const ProcessResult result = runReplicate(arguments, directory.path());
    EXPECT_EQ(result.status, 2) << arguments[1];
    EXPECT_THAT(result.err, testing::MatchesRegex("Replicate: [^\n]+; see Replicate --help\n")) << arguments[1];
  }

  const ProcessResult help = runReplicate({"--help"}, directory.path());
  EXPECT_EQ(help.status, 0);
  for (const char* section : {"NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "ENVIRONMENT", "EXIT STATUS"}) {
    EXPECT_THAT("\n" + help.out, HasSubstr(std::string("\n") + section + "\n")) << section;
  }
}
