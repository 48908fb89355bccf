// One edit to its new content on the live host of an inotify requester
// whose other host is down, once the agent has met the dead host, against
// the same edit under a requester of the live host alone. Two agents, so
// that the runs of one never hold up the other; their samples alternate.
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include <nlohmann/json.hpp>

#include "agent/ControlClient.h"
#include "bench/system/Benches.h"
#include "bench/system/Edits.h"
#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "bench/system/Replicas.h"
#include "bench/system/SshTarget.h"
#include "tests/support/HungHost.h"

namespace SystemBench {

namespace {

constexpr std::int64_t secondNs = 1'000'000'000;

// When the agent's status first said 127.0.0.2 is down, or, from an agent
// that does not say, when its first run ended; -1 at deadlineNs.
std::int64_t downSaid(EditedFile& side, std::int64_t deadlineNs) {
  nlohmann::json::json_pointer const hosts("/requesters/bench/hosts");
  while (monotonicNs() < deadlineNs) {
    nlohmann::json status;
    try {
      status = Agent::request(side.agent.socket(), {{"command", "status"}});
    } catch (std::exception const&) {
      // Not listening yet.
    }
    if (status.is_object() && !status.contains(hosts)) return awaitQuiet(side.agent.pid(), 0.05, deadlineNs);
    if (status.is_object() && status.value(hosts / "127.0.0.2" / "state", "") == "down") return monotonicNs();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return -1;
}

}  // namespace

void deadHostBench(Options const& options, Report& report) {
  std::string const b = "deadhost";
  auto const ssh = sshTarget(options, report, b);
  if (!ssh) return;
  HungHost const dead("127.0.0.2", ssh->port());
  int const warmUp = options.quick ? 0 : 3;
  int const samples = options.samples > 0 ? options.samples : options.quick ? 5 : 100;
  // A connection to the dead host takes Replicate's connect time-out (10
  // s), and a failed run waits retryInterval (10 s) before the next: an
  // edit may wait for both. The quick run waits for neither, and its
  // figures show only that the benchmark works.
  std::int64_t const guardNs = (options.quick ? 1 : 25) * secondNs;
  std::int64_t const firstRunNs = 60 * secondNs;
  std::int64_t const budgetNs = (options.quick ? 3 : 300) * secondNs;
  TempTree tree(b);
  auto const env = ssh->environment();
  std::int64_t const started = monotonicNs();
  EditedFile withDead(options, tree, "dead", "    remoteHosts: [127.0.0.2, 127.0.0.1]\n", tree / "dst/dead/file.dat",
                      {tree / "dst/dead/file.dat"}, env);
  EditedFile alone(options, tree, "alone", "    remoteHosts: [127.0.0.1]\n", tree / "dst/alone/file.dat",
                   {tree / "dst/alone/file.dat"}, env);
  if (alone.awaitFirstRun(started + 10 * secondNs) < 0) {
    throw std::runtime_error("the first run did not copy the file:\n" + alone.agent.logTail());
  }
  std::int64_t const firstCopy = withDead.awaitFirstRun(options.quick ? started + guardNs : started + firstRunNs);
  if (firstCopy < 0 && !options.quick) {
    throw std::runtime_error("the first run with the dead host did not copy the file:\n" + withDead.agent.logTail());
  }
  std::int64_t const detected = options.quick ? -1 : downSaid(withDead, started + firstRunNs);

  int missed = 0;
  int taken = 0;
  std::int64_t const end = monotonicNs() + budgetNs;
  for (int i = 0; i < warmUp + samples && monotonicNs() < end; ++i) {
    for (EditedFile* side : {i % 2 ? &alone : &withDead, i % 2 ? &withDead : &alone}) {
      // The agent's probes of the dead host hang as long as its runs once
      // did; edits do not wait for them.
      double ms = side->edit(i, guardNs, secondNs);
      if (ms < 0 && side == &alone) {
        throw std::runtime_error("an edit did not reach the live host:\n" + alone.agent.logTail());
      }
      if (ms < 0) {
        ++missed;
        ms = double(guardNs) / 1e6;
      }
      if (i >= warmUp) side->ms.push_back(ms);
    }
    if (i >= warmUp) ++taken;
  }

  p50Ratio(report, b, "edit to new content on the live host, p50: with a dead host / alone", withDead.ms, alone.ms,
           1.2);
  spreadRows(report, b, "with the dead host", withDead.ms);
  spreadRows(report, b, "live host alone", alone.ms);
  if (firstCopy >= 0) {
    report.figureIs(b, "first run: agent start to the live host's copy", double(firstCopy - started) / 1e9, "s");
  }
  if (detected >= 0)
    report.figureIs(b, "agent start to the dead host known down", double(detected - started) / 1e9, "s");
  report.figureIs(b, "edits not on the live host within " + std::to_string(guardNs / secondNs) + " s", missed, "");
  report.noteIs(b, std::to_string(taken) + " edits each, alternating, after " + std::to_string(warmUp) + " of warm-up" +
                       (options.quick ? "" : " once the dead host was known down") +
                       "; two agents over ssh to the test sshd, one with remoteHosts [127.0.0.2, 127.0.0.1], "
                       "127.0.0.2 taking connections and never answering, one with [127.0.0.1]; an edit not there "
                       "within the guard counts as the guard");
}

}  // namespace SystemBench
