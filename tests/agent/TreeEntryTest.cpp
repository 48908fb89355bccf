#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "agent/ConfigFile.h"
#include "agent/PathPattern.h"
#include "agent/TreeEntry.h"
#include "agent/TreeWalk.h"
#include "tests/support/TestFiles.h"

namespace Agent {
namespace {

TEST(PathPatternTest, MatchesNamesAndDepths) {
  struct Case {
    char const* pattern;
    char const* path;
    bool matches;
  };
  Case const cases[] = {
      {"/etc/*.conf", "/etc/a.conf", true},
      {"/etc/*.conf", "/etc/.conf", true},
      {"/etc/*.conf", "/etc/sub/a.conf", false},  // * stays within a name
      {"/etc/*.conf", "/etc/a.conf.bak", false},
      {"/etc/**/*.conf", "/etc/a.conf", true},  // **/ may be no directory
      {"/etc/**/*.conf", "/etc/x/y/a.conf", true},
      {"/etc/**", "/etc/x/y", true},
      {"/etc/**.conf", "/etc/x/a.conf", true},
      {"/a/**/b", "/a/b", true},
      {"/a/**/b", "/a/xb", false},
      {"/a/?.txt", "/a/1.txt", true},
      {"/a/?.txt", "/a/12.txt", false},
      {"/a?b", "/a/b", false},  // ? is not a /
      {"/a/[abc].c", "/a/b.c", true},
      {"/a/[!abc].c", "/a/b.c", false},
      {"/a/[^abc].c", "/a/d.c", true},
      {"/a/[a-f0-3]", "/a/2", true},
      {"/a/[a-f0-3]", "/a/g", false},
      {"/a/[]x]", "/a/]", true},
      {"/a/[a-]", "/a/-", true},
      {"/a/\\*", "/a/*", true},
      {"/a/\\*", "/a/b", false},
      {"*~", "x.c~", true},
      {".?*.??????", ".x.c.Ab12Cd", true},  // rsync's temporary
      {".?*.??????", ".bashrc", false},
      {"", "", true},
      {"*", "", true},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(c.matches, PathPattern(c.pattern).matches(c.path)) << c.pattern << " " << c.path;
  }
  EXPECT_TRUE(PathPattern("/etc/*/x/*.conf").couldMatchBelow("/etc/nginx/x"));
  EXPECT_FALSE(PathPattern("/etc/*/x/*.conf").couldMatchBelow("/etc/nginx/y"));
  EXPECT_FALSE(PathPattern("/etc/*.conf").couldMatchBelow("/etc/nginx"));
  EXPECT_TRUE(PathPattern("/etc/**/a").couldMatchBelow("/etc/x/y/z"));
  EXPECT_NE("", PathPattern::fault("/a/[bc"));
  EXPECT_EQ("", PathPattern::fault("/a/\\[bc"));
}

TEST(TreeEntryTest, ExcludesLitterAndWhatIsAskedAndMapsDestinations) {
  TreeEntry const tree({"/srv/t/", "/backup/t", "-a", {"cache/**", "*.log", "logs/old/*"}});
  struct Case {
    char const* path;
    bool wanted;
  };
  Case const cases[] = {
      {"/srv/t/a", true},        {"/srv/t/d/e/f", true},     {"/srv/t/a.swp", false},       {"/srv/t/d/a~", false},
      {"/srv/t/.#a", false},     {"/srv/t/4913", false},     {"/srv/t/.a.c.Xy12Zq", false}, {"/srv/t/a.log", false},
      {"/srv/t/cache/x", false}, {"/srv/t/d/cache/x", true}, {"/srv/t/logs/old/x", false},  {"/srv/t/logs/x", true},
      {"/srv/tx", false},        {"/srv/t/", false},
  };
  for (auto const& c : cases) EXPECT_EQ(c.wanted, tree.wants(c.path)) << c.path;
  EXPECT_FALSE(tree.entersDir("/srv/t/cache"));
  EXPECT_TRUE(tree.entersDir("/srv/t/logs"));
  EXPECT_EQ("/backup/t/d/e", tree.dstPathOf("/srv/t/d/e"));

  TreeEntry const pattern({"/srv/app/*/conf.d/*.conf", "/srv/app/*/conf.d/*.conf", "-a", {}});
  EXPECT_EQ("/srv/app/", pattern.root());
  EXPECT_TRUE(pattern.wants("/srv/app/x/conf.d/a.conf"));
  EXPECT_FALSE(pattern.wants("/srv/app/x/conf.d/a.conf.swp"));
  EXPECT_EQ("/srv/app/x/conf.d/a.conf", pattern.dstPathOf("/srv/app/x/conf.d/a.conf"));
  EXPECT_FALSE(pattern.entersDir("/srv/app/x/other"));
}

// A link loop, a link to a file and an unreadable directory, in one walk.
TEST(TreeWalkTest, FollowsNoDirectoryLinkAndGoesOnPastUnreadable) {
  TempDir d;
  std::filesystem::create_directories(d / "t/a/b");
  std::filesystem::create_directories(d / "t/locked");
  writeFile(d / "t/a/b/f", "f");
  writeFile(d / "t/locked/g", "g");
  std::filesystem::create_directory_symlink(d / "t", d / "t/a/loop");
  std::filesystem::create_symlink(d / "t/a/b/f", d / "t/link");
  chmod((d / "t/locked").c_str(), 0);
  TreeWalk walk = walkTree(TreeEntry({d / "t/", d / "t/", "-a", {}}), d / "t");
  chmod((d / "t/locked").c_str(), 0700);
  std::sort(walk.files.begin(), walk.files.end());
  std::vector<std::string> expected{d / "t/a/b/f", d / "t/link"};
  if (geteuid() == 0) expected.push_back(d / "t/locked/g");  // root reads it all the same
  EXPECT_EQ(expected, walk.files);
  if (geteuid() != 0) {
    ASSERT_EQ(1u, walk.unreadable.size());
    EXPECT_EQ(d / "t/locked", walk.unreadable[0].dir);
    EXPECT_EQ(EACCES, walk.unreadable[0].error);
  }
}

TEST(TreeConfigTest, ChecksEntriesAgainstTheFileSystem) {
  TempDir d;
  std::filesystem::create_directories(d / "t/sub");
  writeFile(d / "t/sub/a.conf", "a");
  writeFile(d / "t/sub/b.conf", "b");
  std::string const text =
      "requesters:\n  r:\n    mode: inotify\n    files:\n"
      "      - path: " +
      d / "t/\n" +  // line 5
      "        exclude: [\"*.tmp\", \"cache/**\"]\n"
      "      - path: " +
      d / "t/*/*.conf\n" +                                      // line 7
      "      - path: " + d / "none/*.x\n" +                     // line 8
      "      - path: " + d / "t/sub/a.conf\n" +                 // line 9
      "      - path: " + d / "t/[x\n" +                         // line 10
      "      - path: /etc/hosts\n        exclude: [\"*.x\"]\n"  // line 11
      "      - path: " +
      d / "u/\n        exclude: [\"/abs\"]\n";
  auto const parsed = parseConfigText(text, "f.yaml");
  auto has = [](std::vector<std::string> const& lines, std::string const& what) {
    return std::any_of(lines.begin(), lines.end(), [&](auto const& l) { return l.find(what) != std::string::npos; });
  };
  // A file named alone is claimed first, whichever entry comes first.
  std::string const a = "file \"" + d / "t/sub/a.conf\" is matched by this entry and by the one at 9:15";
  EXPECT_TRUE(has(parsed.errors, "f.yaml:5:15: " + a));
  EXPECT_TRUE(has(parsed.errors, "f.yaml:7:15: " + a));
  EXPECT_TRUE(has(parsed.errors,
                  "f.yaml:7:15: file \"" + d / "t/sub/b.conf\" is matched by this entry and by the one at 5:15"));
  EXPECT_TRUE(has(parsed.errors, "f.yaml:10:15: path \"" + d / "t/[x\" is not a valid pattern"));
  EXPECT_TRUE(has(parsed.errors, "f.yaml:12:18: exclude is given for the single file \"/etc/hosts\""));
  EXPECT_TRUE(has(parsed.errors, "f.yaml:14:19: an exclude pattern is \"/abs\""));
  EXPECT_TRUE(has(parsed.warnings, "f.yaml:8:15: path \"" + d / "none/*.x\" matches no file now"));
  EXPECT_EQ(6u, parsed.errors.size()) << ::testing::PrintToString(parsed.errors);
}

}  // namespace
}  // namespace Agent
