// One edited file to its new content at the destination, under an inotify
// requester of the real agent, against rsync of that one file started
// directly. Samples of the two alternate, so that noise hits both alike.
#include <filesystem>
#include <stdexcept>

#include "bench/system/Benches.h"
#include "bench/system/Edits.h"
#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "bench/system/Replicas.h"

namespace SystemBench {

namespace {

constexpr std::int64_t sampleGuardNs = 10'000'000'000;

}  // namespace

void latencyBench(Options const& options, Report& report) {
  int const warmUp = 3;
  int const samples = options.samples > 0 ? options.samples : options.quick ? 10 : 100;
  TempTree tree("latency");
  auto const env = realEnvironment(options);
  // Apart from the agent's, so that the floor's edits do not wake it.
  std::string const floorSource = tree / "src/floor/file.dat";
  std::filesystem::create_directories(tree / "src/floor");
  ContentWatch floorDestination({tree / "dst/floor/file.dat"});
  EditedFile agent(options, tree, "agent", "", tree / "dst/agent/file.dat", {tree / "dst/agent/file.dat"}, env);
  if (agent.awaitFirstRun(monotonicNs() + sampleGuardNs) < 0) {
    throw std::runtime_error("the first run did not copy the file:\n" + agent.agent.logTail());
  }

  std::vector<double> floor, floorExit;
  auto agentSample = [&](int i) {
    double const ms = agent.edit(i, sampleGuardNs);
    if (ms < 0) throw std::runtime_error("an edit did not reach the destination:\n" + agent.agent.logTail());
    if (i >= warmUp) agent.ms.push_back(ms);
  };
  auto floorSample = [&](int i) {
    std::string const text = "floor " + std::to_string(i) + "\n";
    writeFile(floorSource, text);
    // --ignore-times as Replicate runs it: two edits within a second at the
    // same size would look unchanged to rsync's quick check.
    CopyTimes const t = timedCommand({"rsync", "-a", "--ignore-times", floorSource, tree / "dst/floor/file.dat"}, env,
                                     text, floorDestination, sampleGuardNs);
    if (i >= warmUp) {
      floor.push_back(t.arrivedMs);
      floorExit.push_back(t.exitedMs);
    }
  };
  for (int i = 0; i < warmUp + samples; ++i) {
    if (i % 2 == 0) {
      agentSample(i);
      floorSample(i);
    } else {
      floorSample(i);
      agentSample(i);
    }
  }
  agent.agent.stop();

  std::string const b = "latency";
  p50Ratio(report, b, "edit to new content at the destination, p50: agent / floor", agent.ms, floor, 1.05);
  spreadRows(report, b, "agent", agent.ms);
  spreadRows(report, b, "floor (rsync started directly)", floor);
  report.figureIs(b, "  floor: start to exit p50", percentile(floorExit, 50), "ms");
  report.figureIs(b, "p99: agent / floor", percentile(agent.ms, 99) / percentile(floor, 99), "x");
  report.noteIs(b, std::to_string(samples) + " edits each, alternating, after " + std::to_string(warmUp) +
                       " of warm-up; the agent's from the writer's close(), the floor's from its posix_spawn, both to "
                       "the content seen at the destination through inotify");
}

}  // namespace SystemBench
