#pragma once

#include <string>
#include <string_view>

namespace Agent {

// A shell-style pattern over paths: `*` and `?` match within one name, never
// across a `/`; `[abc]`, `[a-z]` and `[!...]` (or `[^...]`) match one
// character of a set; `**` matches any run of names, none included, so
// "a/**/b" matches "a/b" and "a/x/y/b"; a backslash makes the next character
// plain.
class PathPattern {
 public:
  explicit PathPattern(std::string text) : text_(std::move(text)) {}

  std::string const& text() const { return text_; }
  bool matches(std::string_view path) const;
  // Whether some path below the directory dir (no trailing slash) could
  // match: the walk prunes directories that cannot hold a match.
  bool couldMatchBelow(std::string_view dir) const;

  // Whether text holds a wildcard, escapes aside.
  static bool hasWildcard(std::string_view text);
  // Why text is not a pattern (an unclosed `[`); empty when it is one.
  static std::string fault(std::string_view text);

 private:
  std::string text_;
};

}  // namespace Agent
