#include "runtime/Exception.h"

#include <string.h>

#include "runtime/Ptr.h"
#include "runtime/String.h"

namespace Kel {

std::string errnoText(int error) {
  char buffer[256];
  // GNU strerror_r: returns a pointer that may or may not be the buffer.
  return strerror_r(error, buffer, sizeof buffer);
}

ErrnoException::ErrnoException(int error, String const& text)
    : Exception(errnoText(error)), error_(error), text_(text.str()) {}

void throwRangeException(std::string const& text) { throw RangeException(text); }

void throwNullValidPtr() { throwRangeException("null ValidPtr"); }

}  // namespace Kel
