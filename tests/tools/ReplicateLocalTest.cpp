#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TestFiles.h"
#include "tests/tools/ReplicateProcess.h"

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

// Copies "source root"/NAME to "target/root"/NAME for each of names.
ProcessResult copyBatch(const TempDir& directory, const std::vector<std::string>& names,
                        const std::string& options = "-a") {
  std::string list;
  for (const std::string& name : names) list += name + '\0';
  return runReplicateWithInput(
      {"--cmd", "rsyncFiles", "--source", "source root", "--target", "target/root", "--rsyncOptions", options}, list,
      directory.path());
}

void writeNested(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  writeFile(path, content);
}

// What rsyncFiles prints when the failing names fail and the others not.
std::string outcomes(const std::vector<std::string>& names, const std::set<std::string>& failing) {
  std::string lines;
  for (const std::string& name : names) lines += failing.contains(name) ? "1\n" : "0\n";
  return lines;
}

mode_t modeOf(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
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

  // A link stands for what it points to, with -a too; a dangling one fails.
  std::filesystem::create_symlink(source, directory / "link");
  result = copy(directory, directory / "link", directory / "linked", "-a");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_FALSE(std::filesystem::is_symlink(directory / "linked"));
  EXPECT_EQ(readFile(directory / "linked"), "secnd");
  std::filesystem::create_symlink(directory / "nowhere", directory / "dangling");
  EXPECT_EQ(copy(directory, directory / "dangling", directory / "linked", "-a").status, 1);

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

  // A directory where the copy belongs is not the copy; one that holds only
  // directories makes way for it.
  std::filesystem::create_directories(directory / "in-the-way/deeper");
  writeFile(directory / "in-the-way/deeper/kept", "kept");
  result = copy(directory, "source", "in-the-way", "-a");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("target \"in-the-way\" is a directory"));
  EXPECT_FALSE(exists(directory / "in-the-way/source"));
  EXPECT_EQ(readFile(directory / "in-the-way/deeper/kept"), "kept");
  std::filesystem::remove(directory / "in-the-way/deeper/kept");
  EXPECT_EQ(copy(directory, "source", "in-the-way", "-a").status, 0);
  EXPECT_TRUE(std::filesystem::is_regular_file(directory / "in-the-way"));
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
  const std::vector<std::string> names = {
      "it's a \"name\"", "$(touch " + pwned + ")", "a;touch " + pwned, "line\nbreak", "-rf",
      "host:file",       "`touch " + pwned + "`"};
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

TEST(ReplicateLocalIntegration, CopiesABatchAndFailsOnlyTheFilesThatFail) {
  TempDir directory;
  const std::string source = directory / "source root/";
  const std::string target = directory / "target/root/";
  // The names run nothing in the working directory, and the leading dash,
  // the colon and the odd bytes mean nothing to rsync inside the list.
  const std::vector<std::string> names = {"plain",
                                          "nested/deeper/it's \"quoted\"",
                                          "nested/line\nbreak",
                                          "-rf",
                                          "nested/-e x",
                                          "$(touch pwned)",
                                          "a;touch pwned",
                                          "host:file",
                                          "bad \xff\xfe byte",
                                          "kept/inside"};
  for (const std::string& name : names) writeNested(source + name, "first " + name);
  ASSERT_EQ(mkdir((directory / "target").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
  ASSERT_EQ(mkdir((target + "kept").c_str(), 0700), 0);

  // rsync's own report must not mix with the outcome on stdout.
  ProcessResult result = copyBatch(directory, names, "-a --itemize-changes");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, outcomes(names, {}));
  for (const std::string& name : names) EXPECT_EQ(readFile(target + name), "first " + name) << name;
  EXPECT_EQ(modeOf(target + "kept"), 0700u) << "the source's directory mode leaked onto an existing one";
  EXPECT_FALSE(exists(directory / "pwned"));

  // A file that cannot be written, a missing source and a name that climbs
  // out fail alone.
  for (const std::string& name : names) writeFile(source + name, "second " + name);
  writeFile(source + "blocked", "x");
  writeNested(target + "blocked/inside", "in the way");
  writeFile(source + "cleared", "x");
  std::filesystem::create_directories(target + "cleared/only/directories");
  std::vector<std::string> batch = names;
  batch.insert(batch.begin() + 3, "blocked");
  batch.insert(batch.begin() + 4, "cleared");
  batch.insert(batch.begin() + 6, "gone");
  batch.push_back("nested/../plain");
  result = copyBatch(directory, batch);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, outcomes(batch, {"blocked", "gone", "nested/../plain"}));
  EXPECT_THAT(result.err, HasSubstr("Replicate: cannot copy \"blocked\": rsync failed with exit code 23"));
  EXPECT_THAT(result.err, HasSubstr("Replicate: source \"source root/gone\": No such file or directory"));
  EXPECT_THAT(result.err, HasSubstr("Replicate: refusing name \"nested/../plain\""));
  for (const std::string& name : names) EXPECT_EQ(readFile(target + name), "second " + name) << name;
  EXPECT_EQ(readFile(target + "blocked/inside"), "in the way");
  EXPECT_EQ(readFile(target + "cleared"), "x");

  result = copyBatch(directory, {});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "");
  result = runReplicateWithInput({"--cmd", "rsyncFiles", "--source", "s", "--target", "t", "--rsyncOptions", ""},
                                 std::string("plain\0cut sh", 12), directory.path());
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
}
