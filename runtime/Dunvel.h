#pragma once

#include <cstdint>
#include <string_view>

// Dunvel: the bridge from trace statements to the Morlix ring buffer.
namespace Dunvel {

// Whether statements go to Morlix, so that every one must be formatted.
bool recording();

// Hands one formatted statement to Morlix; does nothing while it is closed.
void record(std::int64_t timeNs, std::string_view facility, int level, std::string_view message);

// Opens Morlix on the file named by MORLIX_FILE, MORLIX_SIZE bytes long
// (a number with an optional K, M or G; 4M by default), unless Morlix is
// already open. A failure is reported on stderr and leaves Morlix closed:
// tracing must not stop the program.
void openFromEnvironment();

}  // namespace Dunvel
