#include "tools/Replicate/CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/Replicate/UsageError.h"

using Replicate::Command;
using Replicate::CommandLine;
using Replicate::UsageError;

namespace {

CommandLine parse(std::vector<const char*> arguments) { return Replicate::parseCommandLine(arguments); }

std::string usageError(std::vector<const char*> arguments) {
  try {
    parse(arguments);
  } catch (const UsageError& error) {
    return error.what();
  }
  return "no error";
}

}  // namespace

TEST(CommandLineTest, ReadsOptionsInAnyOrder) {
  const CommandLine copy = parse({"--rsyncOptions", "", "--target", "/t", "--remoteHosts", " a, ,u@b,,[::1] ",
                                  "--source", "--help", "--cmd", "rsyncFile"});
  EXPECT_FALSE(copy.help);
  EXPECT_EQ(copy.command, Command::rsyncFile);
  EXPECT_EQ(copy.source, "--help");
  EXPECT_EQ(copy.target, "/t");
  EXPECT_TRUE(copy.rsyncOptions.empty());
  ASSERT_EQ(copy.remoteHosts.size(), 3u);
  EXPECT_EQ(copy.remoteHosts[0].text(), "a");
  EXPECT_EQ(copy.remoteHosts[1].user(), "u");
  EXPECT_EQ(copy.remoteHosts[2].machine(), "::1");

  const CommandLine remove = parse({"--target", "t", "--cmd", "deleteFile"});
  EXPECT_EQ(remove.command, Command::deleteFile);
  EXPECT_TRUE(remove.remoteHosts.empty());

  const CommandLine batch = parse({"--cmd", "rsyncFiles", "--source", "/", "--target", "/", "--rsyncOptions", "-a"});
  EXPECT_EQ(batch.command, Command::rsyncFiles);
  EXPECT_EQ(batch.rsyncOptions, std::vector<std::string>{"-a"});

  EXPECT_TRUE(parse({"--cmd", "bogus", "--help"}).help);
}

TEST(CommandLineTest, NamesWhatIsWrong) {
  using testing::HasSubstr;
  EXPECT_THAT(usageError({}), HasSubstr("missing --cmd"));
  EXPECT_THAT(usageError({"--cmd", "copy", "--target", "t"}), HasSubstr("unknown --cmd \"copy\""));
  EXPECT_THAT(usageError({"--cmd", "deleteFile", "--target", "t", "-v"}), HasSubstr("unknown option \"-v\""));
  EXPECT_THAT(usageError({"--cmd", "deleteFile", "--target"}), HasSubstr("missing value for --target"));
  EXPECT_THAT(usageError({"--cmd", "deleteFile", "--target", "a", "--target", "b"}),
              HasSubstr("duplicate option --target"));
  EXPECT_THAT(usageError({"--cmd", "deleteFile"}), HasSubstr("missing --target"));
  EXPECT_THAT(usageError({"--cmd", "rsyncFile", "--source", "s", "--target", "t"}),
              HasSubstr("missing --rsyncOptions"));
  EXPECT_THAT(usageError({"--cmd", "rsyncFiles", "--target", "t", "--rsyncOptions", ""}),
              HasSubstr("missing --source"));
  EXPECT_THAT(usageError({"--cmd", "deleteFile", "--target", "t", "--source", "s"}),
              HasSubstr("--source does not apply"));
  EXPECT_THAT(usageError({"--cmd", "deleteFile", "--target", ""}), HasSubstr("--target is empty"));
  EXPECT_THAT(usageError({"--cmd", "deleteFile", "--target", "t", "--remoteHosts", " , "}),
              HasSubstr("--remoteHosts names no host"));
  EXPECT_THAT(usageError({"--cmd", "deleteFile", "--target", "t", "--remoteHosts", "a,-oProxyCommand=x"}),
              HasSubstr("invalid host \"-oProxyCommand=x\""));
  EXPECT_THAT(usageError({"--cmd", "rsyncFile", "--source", "s", "--target", "t", "--rsyncOptions", "-a 'b"}),
              HasSubstr("--rsyncOptions: unterminated single quote"));
}
