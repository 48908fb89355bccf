#pragma once

#include <cstdint>
#include <string>

#include "runtime/String.h"

namespace Kel {

// Text forms of values. Scalars are written as: a bool as true or false, an
// unsigned integer in decimal, a string in single quotes with backslash
// escapes (\\ \' \n \r \t and \xHH for other control characters). Every form
// reads back to the value it was written from.
using StrepIterator = std::string::const_iterator;

String valueToStrep(bool v);
String valueToStrep(std::uint32_t v);
String valueToStrep(String const& v);

// Consumes the literal s; a blank in s matches any run of white space,
// including none. Throws a RangeException when the input does not match.
void needString(StrepIterator& it, StrepIterator end, char const* s);
void skipWhiteSpace(StrepIterator& it, StrepIterator end);

bool strepToBool(StrepIterator& it, StrepIterator end);
std::uint32_t strepToUnsigned(StrepIterator& it, StrepIterator end);
String strepToString(StrepIterator& it, StrepIterator end);

[[noreturn]] void throwJunk(long long column, String const& input);

// Parses the whole input with parse; characters left after the value throw
// "junk at column %lld deserializing %s".
template <class Parse>
auto strepToValueWith(String const& input, Parse parse) {
  StrepIterator it = input.begin();
  auto v = parse(it, input.end());
  if (it != input.end()) throwJunk(it - input.begin(), input);
  return v;
}

}  // namespace Kel
