// system_bench: the figures of the whole system against their targets.
#include <stdlib.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "bench/system/Benches.h"
#include "bench/system/Measure.h"

namespace {

using SystemBench::Report;

int usage(char const* program) {
  std::cerr << "usage: " << program
            << " [--quick] [--json] [--only NAME[,NAME...]] [--files N] [--tree-files N] [--samples N]\n"
               "       [--storm-files N] [--rewrites N] [--saves N] [--delete-delay SECONDS]\n"
               "       [--max-files-per-run N] [--limit SECONDS]\n"
               "  NAME, with a stand-in Replicate: reaction, scale, storm, idle, endurance\n"
               "  NAME, with the real Replicate, rsync and ssh: sync (initial sync), sshsync (the same over\n"
               "    ssh to a test sshd), expiry (periodic expiry), latency (one edit), rsyncstorm (rewrites),\n"
               "    renamesave (saves that rename the file away and back), tree (a tree of many files as one\n"
               "    entry), deadhost (one edit with a hung host beside the live one), sshcustom (one edit, port\n"
               "    and key in the agent's ssh settings), manyhosts (one edit to 20 hosts)\n"
               "  --files N        files of sync, sshsync and expiry (10000; quick: 300)\n"
               "  --tree-files N   files of tree, 100 a directory (100000; quick: 2000)\n"
               "  --samples N      edits of latency, tree, sshcustom, deadhost and manyhosts (100; quick: 10, 10,\n"
               "                   10, 5 and 3); deadhost stops after 300 s (quick: 3 s) however many it took\n"
               "  --storm-files N  files of rsyncstorm (100; quick: 20)\n"
               "  --rewrites N     rewrites of each of them (1000; quick: 50)\n"
               "  --saves N        saves of renamesave (1000; quick: 20)\n"
               "  --delete-delay SECONDS  renamesave's requester's deleteDelay (the agent's default)\n"
               "  --max-files-per-run N  the requesters' maxFilesPerRun (the agent's default)\n"
               "  --limit SECONDS  time the agent gets to replicate everything (180; quick: 60)\n";
  return 2;
}

bool positive(char const* text, double& value) {
  char* end = nullptr;
  value = std::strtod(text, &end);
  return end != text && *end == '\0' && value > 0;
}

}  // namespace

int main(int argc, char** argv) {
  SystemBench::Options options;
  options.standinDir = SYSTEM_BENCH_STANDIN_DIR;
  options.filerepProgram = SYSTEM_BENCH_FILEREP;
  options.replicateDir = SYSTEM_BENCH_REPLICATE_DIR;
  options.sshWrapperDir = SYSTEM_BENCH_SSH_WRAPPER_DIR;
  bool json = false;
  std::set<std::string> only;
  // In the order they run.
  std::vector<std::pair<std::string, std::function<void(SystemBench::Options const&, Report&)>>> const benches = {
      {"reaction", SystemBench::reactionBench},     {"scale", SystemBench::scaleBench},
      {"storm", SystemBench::stormBench},           {"idle", SystemBench::idleBench},
      {"endurance", SystemBench::enduranceBench},   {"sync", SystemBench::syncBench},
      {"sshsync", SystemBench::sshSyncBench},       {"expiry", SystemBench::expiryBench},
      {"latency", SystemBench::latencyBench},       {"rsyncstorm", SystemBench::rsyncStormBench},
      {"renamesave", SystemBench::renameSaveBench}, {"tree", SystemBench::treeBench},
      {"deadhost", SystemBench::deadHostBench},     {"sshcustom", SystemBench::sshCustomBench},
      {"manyhosts", SystemBench::manyHostsBench}};
  std::map<std::string, int*> const sizes = {{"--files", &options.files},
                                             {"--tree-files", &options.treeFiles},
                                             {"--samples", &options.samples},
                                             {"--storm-files", &options.stormFiles},
                                             {"--rewrites", &options.rewrites},
                                             {"--saves", &options.saves},
                                             {"--max-files-per-run", &options.maxFilesPerRun}};
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--quick")) {
      options.quick = true;
    } else if (!std::strcmp(argv[i], "--json")) {
      json = true;
    } else if (sizes.count(argv[i]) && i + 1 < argc) {
      double value = 0;
      if (!positive(argv[++i], value) || value != int(value)) return usage(argv[0]);
      *sizes.at(argv[i - 1]) = int(value);
    } else if (!std::strcmp(argv[i], "--limit") && i + 1 < argc) {
      if (!positive(argv[++i], options.limitSeconds)) return usage(argv[0]);
    } else if (!std::strcmp(argv[i], "--delete-delay") && i + 1 < argc) {
      // 0 is a delay too: deletion at once.
      char* end = nullptr;
      char const* text = argv[++i];
      options.deleteDelay = std::strtod(text, &end);
      if (end == text || *end != '\0' || !(options.deleteDelay >= 0)) return usage(argv[0]);
    } else if (!std::strcmp(argv[i], "--only") && i + 1 < argc) {
      std::istringstream names(argv[++i]);
      for (std::string name; std::getline(names, name, ',');) {
        if (std::none_of(benches.begin(), benches.end(), [&](auto const& b) { return b.first == name; })) {
          return usage(argv[0]);
        }
        only.insert(name);
      }
    } else {
      return usage(argv[0]);
    }
  }

  // Every Replicate started from here, by the library or by the agent, is
  // the stand-in, unless a benchmark of the real one says otherwise.
  char const* path = getenv("PATH");
  options.path = path ? path : "/usr/bin:/bin";
  setenv("PATH", (options.standinDir + ":" + options.path).c_str(), 1);
  unsetenv("KEL_TRACE");

  Report report;
  utsname host{};
  uname(&host);
  report.machineIs({{"cpus", SystemBench::cpus()},
                    {"cpuModel", SystemBench::cpuModel()},
                    {"kernel", std::string(host.release)},
                    {"quick", options.quick}});
  bool failed = false;
  for (auto const& [name, bench] : benches) {
    if (!only.empty() && !only.count(name)) continue;
    try {
      bench(options, report);
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
