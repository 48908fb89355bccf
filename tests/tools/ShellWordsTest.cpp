#include "tools/Replicate/ShellWords.h"

#include <gtest/gtest.h>

#include <stdexcept>

using Replicate::shellQuoted;
using Replicate::splitShellWords;
using Words = std::vector<std::string>;

TEST(ShellWordsTest, SplitsLikeAShellWithoutExpanding) {
  EXPECT_EQ(splitShellWords(""), Words{});
  EXPECT_EQ(splitShellWords(" \t\n "), Words{});
  EXPECT_EQ(splitShellWords("  -a\t--exclude  'a b' "), (Words{"-a", "--exclude", "a b"}));
  EXPECT_EQ(splitShellWords("--exclude=\"a b\"c'd e'"), Words{"--exclude=a bcd e"});
  EXPECT_EQ(splitShellWords("'' \"\""), (Words{"", ""}));
  // Backslashes: escape anything outside quotes, nothing inside single
  // quotes, and only $ ` " \ newline inside double quotes.
  EXPECT_EQ(splitShellWords(R"(a\ b \'x \\)"), (Words{"a b", "'x", "\\"}));
  EXPECT_EQ(splitShellWords(R"('a\b' "\$\"\\\n")"), (Words{R"(a\b)", R"($"\\n)"}));
  EXPECT_EQ(splitShellWords("a\\\nb \"c\\\nd\""), (Words{"ab", "cd"}));
  // Nothing is expanded.
  EXPECT_EQ(splitShellWords("$(touch x) `id` * ~ $HOME"), (Words{"$(touch", "x)", "`id`", "*", "~", "$HOME"}));
  EXPECT_EQ(splitShellWords("a;b|c&&d>e"), Words{"a;b|c&&d>e"});
}

TEST(ShellWordsTest, RefusesUnterminatedQuotes) {
  EXPECT_THROW(splitShellWords("--exclude 'a b"), std::invalid_argument);
  EXPECT_THROW(splitShellWords("\"a"), std::invalid_argument);
  EXPECT_THROW(splitShellWords("\"a\\\""), std::invalid_argument);
}

TEST(ShellWordsTest, QuotedTextReadsBackAsOneWord) {
  for (const std::string text : {"", "plain", "a b", "it's", "'", "''", "$(touch x)", "a\nb", "\\'\"`;|&*~"}) {
    EXPECT_EQ(splitShellWords(shellQuoted(text)), Words{text}) << text;
  }
  EXPECT_EQ(shellQuoted("it's"), R"('it'\''s')");
}
