// Prints a Morlix trace ring buffer, oldest record first, one line each.

#include <cstdio>

#include "runtime/Morlix.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: kel-trace FILE\n");
    return 2;
  }
  try {
    Morlix::Snapshot snapshot = Morlix::read(argv[1]);
    for (Morlix::Record const& record : snapshot.records) std::fputs(Morlix::line(record).c_str(), stdout);
    if (std::fflush(stdout) != 0) {
      std::perror("kel-trace: standard output");
      return 1;
    }
    if (snapshot.damagedRecords > 0) {
      std::fprintf(stderr, "kel-trace: %s: skipped %zu damaged record(s)\n", argv[1], snapshot.damagedRecords);
    }
  } catch (Morlix::Error const& error) {
    std::fprintf(stderr, "kel-trace: %s\n", error.what());
    return 1;
  }
  return 0;
}
