#pragma once

#include <string>

#include "bench/system/Report.h"

namespace SystemBench {

struct Options {
  // Smaller and shorter runs, to keep the benchmark building and working;
  // its figures mean little.
  bool quick = false;
  // The stand-in Replicate and the agent, from the build.
  std::string standinDir;
  std::string filerepProgram;
};

void reactionBench(Options const& options, Report& report);
void scaleBench(Options const& options, Report& report);
void stormBench(Options const& options, Report& report);
void idleBench(Options const& options, Report& report);
void enduranceBench(Options const& options, Report& report);

}  // namespace SystemBench
