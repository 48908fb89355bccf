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
  // The real Replicate, and the ssh that adds the benchmark's own
  // configuration, from the build.
  std::string replicateDir;
  std::string sshWrapperDir;
  // PATH as it was before the stand-in went first.
  std::string path;
  // Sizes of the benchmarks of the real agent; 0 for the default of the
  // mode.
  int files = 0;
  int treeFiles = 0;
  int samples = 0;
  int stormFiles = 0;
  int rewrites = 0;
  int saves = 0;
  // The requester's deleteDelay in seconds; negative leaves the key out of
  // the configuration, and with it the agent's default.
  double deleteDelay = -1;
  // The requesters' maxFilesPerRun; 0 leaves the agent's default.
  int maxFilesPerRun = 0;
  // How long the agent gets to replicate everything before it is given up
  // on; 0 for the default of the mode.
  double limitSeconds = 0;
};

void reactionBench(Options const& options, Report& report);
void scaleBench(Options const& options, Report& report);
void stormBench(Options const& options, Report& report);
void idleBench(Options const& options, Report& report);
void enduranceBench(Options const& options, Report& report);
// The real agent with the real Replicate and rsync.
void syncBench(Options const& options, Report& report);
void sshSyncBench(Options const& options, Report& report);
void expiryBench(Options const& options, Report& report);
void latencyBench(Options const& options, Report& report);
void rsyncStormBench(Options const& options, Report& report);
void renameSaveBench(Options const& options, Report& report);
// A tree of many files as one entry.
void treeBench(Options const& options, Report& report);
// The same over ssh to a test sshd: a dead host beside a live one, the
// port and key in the agent's settings, many hosts.
void deadHostBench(Options const& options, Report& report);
void sshCustomBench(Options const& options, Report& report);
void manyHostsBench(Options const& options, Report& report);

}  // namespace SystemBench
