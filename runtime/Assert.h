#pragma once

namespace Kel {

// Prints "Assertion failed: <text>" with file and line on stderr, flushes the
// Morlix ring buffer and aborts.
[[noreturn]] void assertionFailed(char const* text, char const* file, int line);

}  // namespace Kel

// Always on, whatever NDEBUG says: a broken internal contract must stop the
// process rather than run on in an unknown state.
#define KEL_ASSERT(expr) ((expr) ? static_cast<void>(0) : Kel::assertionFailed(#expr, __FILE__, __LINE__))
