#pragma once

#include <string>
#include <string_view>

namespace Replicate {

// A name quoted for a message: control characters are escaped so that a
// name holding a newline still leaves the message on one line.
std::string printable(std::string_view name);

}  // namespace Replicate
