// Stands in for Replicate in the system benchmark: notes when it started and
// succeeds at once, so that what is measured is the agent and not a copy.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>

#include "bench/system/StandinRecord.h"

int main() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  char const* log = std::getenv(SystemBench::standinLogVariable);
  if (!log) return 0;
  SystemBench::StandinRecord const record{std::int64_t(now.tv_sec) * 1000000000 + now.tv_nsec, getpid()};
  // Non-blocking only to open: with no reader left the run just ends.
  int const fd = open(log, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return 0;
  fcntl(fd, F_SETFL, 0);
  ssize_t const written = write(fd, &record, sizeof record);
  close(fd);
  return written == sizeof record ? 0 : 1;
}
