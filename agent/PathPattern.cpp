#include "agent/PathPattern.h"

#include <cstddef>

namespace Agent {

namespace {

// The end of the set that starts at p (on its '['), or npos when unclosed.
std::size_t setEnd(std::string_view p, std::size_t i) {
  std::size_t j = i + 1;
  if (j < p.size() && (p[j] == '!' || p[j] == '^')) ++j;
  if (j < p.size() && p[j] == ']') ++j;  // a leading ']' is plain
  while (j < p.size() && p[j] != ']') ++j;
  return j < p.size() ? j : std::string_view::npos;
}

bool inSet(std::string_view set, char c) {
  bool negated = false;
  std::size_t i = 0;
  if (!set.empty() && (set[0] == '!' || set[0] == '^')) {
    negated = true;
    i = 1;
  }
  bool found = false;
  for (; i < set.size(); ++i) {
    if (i + 2 < set.size() && set[i + 1] == '-') {
      if (set[i] <= c && c <= set[i + 2]) found = true;
      i += 2;
    } else if (set[i] == c) {
      found = true;
    }
  }
  return found != negated;
}

// Backtracks over stars; patterns come from a configuration file and are
// short, so the worst case of many stars does not arise in practice.
bool match(std::string_view p, std::string_view s) {
  std::size_t i = 0;
  std::size_t j = 0;
  while (i < p.size()) {
    char const c = p[i];
    if (c == '*') {
      bool const any = i + 1 < p.size() && p[i + 1] == '*';
      std::size_t rest = i + (any ? 2 : 1);
      if (any) {
        // "**/" also matches no directory at all.
        if (rest < p.size() && p[rest] == '/' && match(p.substr(rest + 1), s.substr(j))) return true;
        for (std::size_t k = j; k <= s.size(); ++k) {
          if (match(p.substr(rest), s.substr(k))) return true;
        }
        return false;
      }
      for (std::size_t k = j; k <= s.size(); ++k) {
        if (match(p.substr(rest), s.substr(k))) return true;
        if (k < s.size() && s[k] == '/') break;
      }
      return false;
    }
    if (j >= s.size()) return false;
    if (c == '?') {
      if (s[j] == '/') return false;
    } else if (c == '[') {
      std::size_t const end = setEnd(p, i);
      if (end == std::string_view::npos) {
        if (s[j] != '[') return false;
      } else {
        if (s[j] == '/' || !inSet(p.substr(i + 1, end - i - 1), s[j])) return false;
        i = end;
      }
    } else if (c == '\\' && i + 1 < p.size()) {
      if (s[j] != p[++i]) return false;
    } else if (s[j] != c) {
      return false;
    }
    ++i;
    ++j;
  }
  return j == s.size();
}

}  // namespace

bool PathPattern::matches(std::string_view path) const { return match(text_, path); }

bool PathPattern::couldMatchBelow(std::string_view dir) const {
  // Compare name by name; past a "**" anything may follow.
  std::string_view p = text_;
  std::string_view d = dir;
  if (p.starts_with('/') && d.starts_with('/')) {
    p.remove_prefix(1);
    d.remove_prefix(1);
  }
  while (!d.empty()) {
    std::size_t const pSlash = p.find('/');
    if (pSlash == std::string_view::npos) return false;  // the pattern's last name is a file
    std::string_view const pName = p.substr(0, pSlash);
    if (pName.find("**") != std::string_view::npos) return true;
    std::size_t const dSlash = d.find('/');
    std::string_view const dName = d.substr(0, dSlash);
    if (!match(pName, dName)) return false;
    p.remove_prefix(pSlash + 1);
    d = dSlash == std::string_view::npos ? std::string_view() : d.substr(dSlash + 1);
  }
  return true;
}

bool PathPattern::hasWildcard(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == '*' || text[i] == '?' || text[i] == '[') {
      return true;
    }
  }
  return false;
}

std::string PathPattern::fault(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
    } else if (text[i] == '[') {
      std::size_t const end = setEnd(text, i);
      if (end == std::string_view::npos) return "'[' at " + std::to_string(i + 1) + " is not closed by ']'";
      if (text.substr(i, end - i).find('/') != std::string_view::npos) return "a set [...] cannot hold '/'";
      i = end;
    }
  }
  return {};
}

}  // namespace Agent
