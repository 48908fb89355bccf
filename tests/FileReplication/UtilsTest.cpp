#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "FileReplication/FileReplicationUtils.h"
#include "tests/support/TestFiles.h"

namespace FileReplication {
namespace {

TEST(UtilsTest, DirnameAndFilenameFollowPosix) {
  struct Case {
    char const* path;
    char const* dir;
    char const* file;
  };
  for (Case c : {Case{"a/b", "a", "b"}, Case{"/etc/x/y", "/etc/x", "y"}, Case{"a/b/", "a", "b"},
                 Case{"file", ".", "file"}, Case{"/", "/", "/"}, Case{"", ".", "."}, Case{"//a//b//", "//a", "b"},
                 Case{"/a", "/", "a"}, Case{"dir with blank/it's $(x);\n", "dir with blank", "it's $(x);\n"}}) {
    Kel::String8 path(c.path);
    EXPECT_EQ(Kel::String8(c.dir), Utils::dirname(path)) << '"' << c.path << '"';
    EXPECT_EQ(Kel::String8(c.file), Utils::filename(path)) << '"' << c.path << '"';
    EXPECT_EQ(Kel::String8(c.path), path) << "the argument is never modified";
  }
}

TEST(UtilsIntegration, ExistsFollowsLinksAndTreatsEveryFailureAsMissing) {
  TempDir dir;
  std::string const d = dir.path();
  writeFile(d + "/file", "x");
  ASSERT_EQ(0, symlink((d + "/file").c_str(), (d + "/link").c_str()));
  ASSERT_EQ(0, symlink((d + "/gone").c_str(), (d + "/dangling").c_str()));
  EXPECT_TRUE(Utils::exists(d));
  EXPECT_TRUE(Utils::exists(d + "/file"));
  EXPECT_TRUE(Utils::exists(d + "/link"));
  EXPECT_FALSE(Utils::exists(d + "/dangling"));
  EXPECT_FALSE(Utils::exists(d + "/gone"));
  EXPECT_FALSE(Utils::exists(d + "/file/below-a-file"));
  EXPECT_FALSE(Utils::exists(""));
}

}  // namespace
}  // namespace FileReplication
