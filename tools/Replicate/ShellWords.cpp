#include "tools/Replicate/ShellWords.h"

#include <stdexcept>

namespace Replicate {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

// Inside double quotes a backslash escapes only these; before anything else
// it stands for itself.
bool escapableInDoubleQuotes(char c) { return c == '$' || c == '`' || c == '"' || c == '\\' || c == '\n'; }

}  // namespace

std::vector<std::string> splitShellWords(std::string_view text) {
  std::vector<std::string> words;
  std::string word;
  // A word exists once any part of it was seen, so that '' yields an empty word.
  bool inWord = false;
  size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (isBlank(c)) {
      if (inWord) words.push_back(std::move(word));
      word.clear();
      inWord = false;
      ++i;
    } else if (c == '\'') {
      const size_t end = text.find('\'', i + 1);
      if (end == std::string_view::npos) throw std::invalid_argument("unterminated single quote");
      word.append(text.substr(i + 1, end - i - 1));
      inWord = true;
      i = end + 1;
    } else if (c == '"') {
      ++i;
      for (;;) {
        if (i >= text.size()) throw std::invalid_argument("unterminated double quote");
        const char d = text[i];
        if (d == '"') break;
        if (d == '\\' && i + 1 < text.size() && escapableInDoubleQuotes(text[i + 1])) {
          if (text[i + 1] != '\n') word.push_back(text[i + 1]);
          i += 2;
        } else {
          word.push_back(d);
          ++i;
        }
      }
      inWord = true;
      ++i;
    } else if (c == '\\' && i + 1 < text.size()) {
      // Backslash-newline joins lines and adds nothing to the word.
      if (text[i + 1] != '\n') {
        word.push_back(text[i + 1]);
        inWord = true;
      }
      i += 2;
    } else {
      word.push_back(c);
      inWord = true;
      ++i;
    }
  }
  if (inWord) words.push_back(std::move(word));
  return words;
}

std::string shellQuoted(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted.push_back(c);
    }
  }
  quoted.push_back('\'');
  return quoted;
}

}  // namespace Replicate
