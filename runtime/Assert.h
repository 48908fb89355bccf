#pragma once

namespace Kel {

// Prints "Assertion failed: <text>" with file and line on stderr, flushes the
// Morlix ring buffer and aborts.
[[noreturn]] void assertionFailed(char const* text, char const* file, int line);

}  // namespace Kel

// Always on, whatever NDEBUG says: a broken internal contract must stop the
// process rather than run on in an unknown state.
#define KEL_ASSERT(expr) KEL_ASSERT_TEXT(expr, #expr)

// The same with its text given apart: a text that must read exactly so
// (operators look for it) cannot follow the expression's spelling, which a
// formatter is free to change.
#define KEL_ASSERT_TEXT(expr, text) ((expr) ? static_cast<void>(0) : Kel::assertionFailed(text, __FILE__, __LINE__))
