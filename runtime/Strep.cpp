#include "runtime/Strep.h"

#include <cctype>
#include <cstdio>
#include <limits>

#include "runtime/Exception.h"

namespace Kel {

namespace {

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

[[noreturn]] void expected(char const* what, StrepIterator it, StrepIterator end) {
  std::string found = it == end ? std::string("end of input") : "'" + std::string(1, *it) + "'";
  throwRangeException(std::string("expected ") + what + ", found " + found);
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

String valueToStrep(bool v) { return v ? "true" : "false"; }

String valueToStrep(std::uint32_t v) { return std::to_string(v); }

String valueToStrep(String const& v) {
  std::string out;
  out.reserve(v.size() + 2);
  out += '\'';
  for (char c : v) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\'': out += "\\'"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
          char hex[5];
          std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
          out += hex;
        } else {
          out += c;
        }
    }
  }
  out += '\'';
  return out;
}

void skipWhiteSpace(StrepIterator& it, StrepIterator end) {
  while (it != end && isSpace(*it)) ++it;
}

void needString(StrepIterator& it, StrepIterator end, char const* s) {
  for (char const* p = s; *p; ++p) {
    if (*p == ' ') {
      skipWhiteSpace(it, end);
    } else if (it != end && *it == *p) {
      ++it;
    } else {
      throwRangeException(std::string("expected \"") + s + "\", found " +
                          (it == end ? std::string("end of input") : "'" + std::string(1, *it) + "'"));
    }
  }
}

bool strepToBool(StrepIterator& it, StrepIterator end) {
  for (char const* word : {"true", "false"}) {
    StrepIterator p = it;
    char const* w = word;
    while (*w && p != end && *p == *w) ++p, ++w;
    if (!*w) {
      it = p;
      return word[0] == 't';
    }
  }
  expected("true or false", it, end);
}

std::uint32_t strepToUnsigned(StrepIterator& it, StrepIterator end) {
  if (it == end || !std::isdigit(static_cast<unsigned char>(*it))) expected("an unsigned number", it, end);
  std::uint64_t v = 0;
  while (it != end && std::isdigit(static_cast<unsigned char>(*it))) {
    v = v * 10 + std::uint64_t(*it - '0');
    if (v > std::numeric_limits<std::uint32_t>::max()) throwRangeException("unsigned number out of range");
    ++it;
  }
  return std::uint32_t(v);
}

String strepToString(StrepIterator& it, StrepIterator end) {
  if (it == end || *it != '\'') expected("a quoted string", it, end);
  ++it;
  std::string out;
  while (true) {
    if (it == end) throwRangeException("unterminated string");
    char c = *it++;
    if (c == '\'') return out;
    if (c != '\\') {
      out += c;
      continue;
    }
    if (it == end) throwRangeException("unterminated string");
    char e = *it++;
    switch (e) {
      case '\\': out += '\\'; break;
      case '\'': out += '\''; break;
      case 'n': out += '\n'; break;
      case 'r': out += '\r'; break;
      case 't': out += '\t'; break;
      case 'x': {
        int hi = it != end ? hexDigit(*it) : -1;
        int lo = hi >= 0 && it + 1 != end ? hexDigit(*(it + 1)) : -1;
        if (lo < 0) throwRangeException("bad \\x escape in string");
        out += char(hi * 16 + lo);
        it += 2;
        break;
      }
      default: throwRangeException(std::string("unknown escape \\") + e + " in string");
    }
  }
}

void throwJunk(long long column, String const& input) {
  char const* format = "junk at column %lld deserializing %s";
  int n = std::snprintf(nullptr, 0, format, column, input.charPtr());
  std::string text(std::size_t(n) + 1, '\0');
  std::snprintf(text.data(), text.size(), format, column, input.charPtr());
  text.pop_back();
  throwRangeException(text);
}

}  // namespace Kel
