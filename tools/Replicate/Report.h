#pragma once

#include <string>

namespace Replicate {

// Writes "Replicate: <message>" as one line on stderr.
void report(const std::string& message);

}  // namespace Replicate
