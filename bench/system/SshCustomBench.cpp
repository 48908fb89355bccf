// One edit over ssh to an sshd on its own port with its own key, the two
// given in the agent's ssh settings, against rsync of the same file over a
// connection the benchmark holds open itself: the least an edit can cost
// over ssh. For information, the same with the port and key in RSYNC_RSH.
// Samples of the three take turns, so that noise hits all alike.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <thread>

#include "bench/system/Benches.h"
#include "bench/system/Edits.h"
#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "bench/system/Replicas.h"
#include "bench/system/SshMaster.h"
#include "bench/system/SshTarget.h"

namespace SystemBench {

namespace {

constexpr std::int64_t sampleGuardNs = 10'000'000'000;

}  // namespace

void sshCustomBench(Options const& options, Report& report) {
  std::string const b = "sshcustom";
  auto const ssh = sshTarget(options, report, b, SshTarget::givenByCaller);
  if (!ssh) return;
  int const warmUp = 3;
  int const samples = options.samples > 0 ? options.samples : options.quick ? 10 : 100;
  TempTree tree(b);
  std::string const port = std::to_string(ssh->port());

  std::string const requester = "    remoteHosts: [127.0.0.1]\n";
  std::string const settings = requester + "    ssh: {port: " + port + ", identityFile: " + ssh->key() + "}\n";
  // An agent from before the ssh settings refuses them...
  std::string const refusal = tree / "check.log";
  writeFile(tree / "check.yaml",
            agentConfig("    mode: inotify\n" + settings, {tree / "check.dat"}, {tree / "check.dat"}));
  bool const known =
      run({options.filerepProgram, "check", "--config", tree / "check.yaml"}, ssh->environment(), refusal) == 0;
  std::unique_ptr<EditedFile> configured;
  if (known) {
    configured =
        std::make_unique<EditedFile>(options, tree, "settings", settings, tree / "dst/settings/file.dat",
                                     std::vector<std::string>{tree / "dst/settings/file.dat"}, ssh->environment());
  }
  // "ssh" is the wrapper, which adds the configuration without port or key.
  EditedFile rsh(options, tree, "rsh", requester, tree / "dst/rsh/file.dat", {tree / "dst/rsh/file.dat"},
                 ssh->environment({"RSYNC_RSH=ssh -p " + port + " -i " + ssh->key()}));
  if (rsh.awaitFirstRun(monotonicNs() + sampleGuardNs) < 0) {
    throw std::runtime_error("the first run did not copy the file:\n" + rsh.agent.logTail());
  }
  // Nor may the Replicate of this build know them yet.
  std::string refused;
  if (!configured) {
    refused = "the agent refuses them: " + readText(refusal);
  } else if (configured->copies.await("start\n", monotonicNs() + sampleGuardNs, [&] { return configured->failed(); }) <
             0) {
    std::string const log = configured->agent.log();
    std::size_t const why = log.find("Replicate: ");
    refused = "its first run failed: " + log.substr(why == std::string::npos ? 0 : why);
    configured.reset();
  }
  std::vector<EditedFile*> agents = {&rsh};
  if (configured) agents.push_back(configured.get());
  SshMaster const master(*ssh, ssh->directory() / "floor", "127.0.0.1", tree / "master.log", true);
  std::string const floorSource = tree / "src/floor/file.dat";
  std::filesystem::create_directories(tree / "src/floor");
  ContentWatch floorCopy({tree / "dst/floor/file.dat"});
  std::vector<double> floor;

  // Turns: each agent, then the floor, starting one further on each time.
  auto sample = [&](std::size_t turn, int i) {
    if (turn < agents.size()) {
      double const ms = agents[turn]->edit(i, sampleGuardNs);
      if (ms < 0) throw std::runtime_error("an edit did not reach the host:\n" + agents[turn]->agent.logTail());
      if (i >= warmUp) agents[turn]->ms.push_back(ms);
      return;
    }
    std::string const text = "floor " + std::to_string(i) + "\n";
    writeFile(floorSource, text);
    // --ignore-times as Replicate runs it.
    CopyTimes const t = timedCommand(
        {"rsync", "-a", "--ignore-times", "-e", master.rsh(), floorSource, "127.0.0.1:" + tree / "dst/floor/file.dat"},
        ssh->environment(), text, floorCopy, sampleGuardNs);
    if (i >= warmUp) floor.push_back(t.arrivedMs);
  };
  std::size_t const turns = agents.size() + 1;
  for (int i = 0; i < warmUp + samples; ++i) {
    for (std::size_t k = 0; k < turns; ++k) sample((std::size_t(i) + k) % turns, i);
  }

  if (configured) {
    p50Ratio(report, b, "edit with port and key in the ssh settings, p50: agent / floor", configured->ms, floor, 1.1);
  } else {
    report.noteIs(b, "ssh settings not measured: " + refused.substr(0, refused.find('\n')));
  }
  p50Ratio(report, b, "edit with port and key in RSYNC_RSH, p50: agent / floor", rsh.ms, floor);
  if (configured) spreadRows(report, b, "agent, ssh settings", configured->ms);
  spreadRows(report, b, "agent, RSYNC_RSH", rsh.ms);
  spreadRows(report, b, "floor (rsync over an open connection)", floor);
  report.noteIs(b, std::to_string(samples) + " edits each, taking turns, after " + std::to_string(warmUp) +
                       " of warm-up; the test sshd on port " + port +
                       " with a key of its own, which ssh's configuration does not name; floor: rsync -e \"ssh -o "
                       "ControlPath=...\" through an ssh master the benchmark opened, from its posix_spawn");
}

}  // namespace SystemBench
