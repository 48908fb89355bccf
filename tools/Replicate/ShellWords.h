#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Replicate {

// Splits text into words as a POSIX shell would, honouring single quotes,
// double quotes and backslashes, but expanding nothing: $, `, * and ~ stay
// literal. Throws std::invalid_argument for an unterminated quote.
std::vector<std::string> splitShellWords(std::string_view text);

// Quotes text so that a POSIX shell reads it back as exactly one word and
// interprets nothing in it.
std::string shellQuoted(std::string_view text);

}  // namespace Replicate
