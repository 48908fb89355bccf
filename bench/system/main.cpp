// system_bench: the figures of the whole system against their targets.
#include <stdlib.h>
#include <sys/utsname.h>

#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include "bench/system/Benches.h"
#include "bench/system/Measure.h"

namespace {

using SystemBench::Report;

int usage(char const* program) {
  std::cerr << "usage: " << program << " [--quick] [--json] [--only NAME[,NAME...]]\n"
            << "  NAME: reaction, scale, storm, idle, endurance\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  SystemBench::Options options;
  options.standinDir = SYSTEM_BENCH_STANDIN_DIR;
  options.filerepProgram = SYSTEM_BENCH_FILEREP;
  bool json = false;
  std::set<std::string> only;
  std::map<std::string, std::function<void(SystemBench::Options const&, Report&)>> const benches = {
      {"reaction", SystemBench::reactionBench},
      {"scale", SystemBench::scaleBench},
      {"storm", SystemBench::stormBench},
      {"idle", SystemBench::idleBench},
      {"endurance", SystemBench::enduranceBench}};
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--quick")) {
      options.quick = true;
    } else if (!std::strcmp(argv[i], "--json")) {
      json = true;
    } else if (!std::strcmp(argv[i], "--only") && i + 1 < argc) {
      std::istringstream names(argv[++i]);
      for (std::string name; std::getline(names, name, ',');) {
        if (!benches.count(name)) return usage(argv[0]);
        only.insert(name);
      }
    } else {
      return usage(argv[0]);
    }
  }

  // Every Replicate started from here, by the library or by the agent, is
  // the stand-in.
  char const* path = getenv("PATH");
  setenv("PATH", (options.standinDir + ":" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
  unsetenv("KEL_TRACE");

  Report report;
  utsname host{};
  uname(&host);
  report.machineIs({{"cpus", SystemBench::cpus()},
                    {"cpuModel", SystemBench::cpuModel()},
                    {"kernel", std::string(host.release)},
                    {"quick", options.quick}});
  bool failed = false;
  for (char const* name : {"reaction", "scale", "storm", "idle", "endurance"}) {
    if (!only.empty() && !only.count(name)) continue;
    try {
      benches.at(name)(options, report);
    } catch (std::exception const& e) {
      std::cerr << "system_bench: " << name << ": " << e.what() << std::endl;
      report.noteIs(name, std::string("failed: ") + e.what());
      failed = true;
    }
  }

  if (json) {
    std::cout << report.json().dump(2) << std::endl;
  } else {
    std::cout << "machine: " << SystemBench::cpus() << " CPUs, " << SystemBench::cpuModel() << ", Linux "
              << host.release << (options.quick ? " (quick run: figures not meaningful)" : "") << "\n\n";
    report.printTable(std::cout);
  }
  return failed || !report.checksHold() ? 1 : 0;
}
