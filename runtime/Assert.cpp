#include "runtime/Assert.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/Dunvel.h"
#include "runtime/Morlix.h"

namespace Kel {

void assertionFailed(char const* text, char const* file, int line) {
  char const* slash = std::strrchr(file, '/');
  char const* fileName = slash ? slash + 1 : file;
  // No heap here: the failure may be that the heap is broken.
  char message[2048];
  int length = std::snprintf(message, sizeof message - 1, "Assertion failed: %s (%s:%d)", text, fileName, line);
  auto size = std::min(static_cast<std::size_t>(std::max(length, 0)), sizeof message - 2);
  message[size] = '\n';
  for (char const* next = message; next < message + size + 1;) {
    ssize_t written = ::write(STDERR_FILENO, next, static_cast<std::size_t>(message + size + 1 - next));
    if (written <= 0) break;
    next += written;
  }
  // The ring buffer is where the story before the failure is; it should end
  // with the failure itself, on the disk.
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  Dunvel::record(std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec, "Assert", 0, {message, size});
  Morlix::flush();
  std::abort();
}

}  // namespace Kel
