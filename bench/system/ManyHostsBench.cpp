// One edit to its new content on every one of 20 hosts, against the same
// edit to one host alone: what a run to many hosts costs over a run to one.
// The test sshd stands for the 20 hosts. Two agents, so that the runs of
// one never hold up the other. The floor is the same pair done by hand: 20
// rsyncs started at once against one, each through a connection the
// benchmark holds open, which shows what this machine's cores allow, the
// receiving ends included, whatever sends the copies. Samples take turns.
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

#include "bench/system/Benches.h"
#include "bench/system/Edits.h"
#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "bench/system/Replicas.h"
#include "bench/system/SshMaster.h"
#include "bench/system/SshTarget.h"

namespace SystemBench {

namespace {

constexpr int hostCount = 20;
constexpr std::int64_t sampleGuardNs = 20'000'000'000;

}  // namespace

void manyHostsBench(Options const& options, Report& report) {
  std::string const b = "manyhosts";
  auto const ssh = sshTarget(options, report, b);
  if (!ssh) return;
  int const warmUp = options.quick ? 1 : 3;
  int const samples = options.samples > 0 ? options.samples : options.quick ? 3 : 100;
  TempTree tree(b);

  // Each host has an address of its own, and so a connection of its own,
  // as 20 machines would, and a directory that stands for its file system:
  // a login starts in the directory named after the address it came in
  // on. rsync sends the destination inside its protocol, out of reach of
  // the command, so the agent names it through /proc/self/cwd, which is
  // that directory to the remote rsync. The test sshds take the logins of
  // all 20 at once, which 20 machines would share out.
  std::string const asHost = tree / "as-host";
  writeFile(asHost, "#!/bin/sh\nset -- $SSH_CONNECTION\ncd " + tree / "hosts/$3" +
                        " && exec /bin/sh -c \"$SSH_ORIGINAL_COMMAND\"\n");
  chmod(asHost.c_str(), 0755);
  auto const hosts = ssh->hostsIs(hostCount, "MaxStartups 100\nForceCommand " + asHost + "\n");
  std::string list;
  std::vector<std::string> copies;
  for (auto const& host : hosts) {
    list += (list.empty() ? "" : ", ") + host;
    copies.push_back(tree / ("hosts/" + host + "/many/file.dat"));
  }
  EditedFile many(options, tree, "many", "    remoteHosts: [" + list + "]\n", "/proc/self/cwd/many/file.dat", copies,
                  ssh->environment());
  EditedFile one(options, tree, "one", "    remoteHosts: [" + hosts[0] + "]\n", "/proc/self/cwd/one/file.dat",
                 {tree / ("hosts/" + hosts[0] + "/one/file.dat")}, ssh->environment());
  for (EditedFile* side : {&many, &one}) {
    if (side->awaitFirstRun(monotonicNs() + 3 * sampleGuardNs) < 0) {
      throw std::runtime_error("the first run did not copy the file everywhere:\n" + side->agent.logTail());
    }
  }

  std::vector<std::unique_ptr<SshMaster>> masters;
  std::vector<std::string> floorCopies;
  for (auto const& host : hosts) {
    masters.push_back(std::make_unique<SshMaster>(*ssh, ssh->directory() / ("m" + std::to_string(masters.size())), host,
                                                  tree / ("master-" + host + ".log")));
    floorCopies.push_back(tree / ("hosts/" + host + "/floor/file.dat"));
  }
  std::string const floorSource = tree / "src/floor/file.dat";
  std::filesystem::create_directories(tree / "src/floor");
  ContentWatch floorMany(floorCopies);
  ContentWatch floorOne({floorCopies[0]});
  auto floorArgv = [&](std::size_t host) {
    // --ignore-times as Replicate runs it; the login's directory is the host's.
    return std::vector<std::string>{"rsync",
                                    "-a",
                                    "--ignore-times",
                                    "-e",
                                    masters[host]->rsh(),
                                    floorSource,
                                    hosts[host] + ":/proc/self/cwd/floor/file.dat"};
  };
  std::vector<std::vector<std::string>> allHosts;
  for (std::size_t host = 0; host < hosts.size(); ++host) allHosts.push_back(floorArgv(host));
  std::vector<double> floorManyMs, floorOneMs;

  auto sample = [&](int turn, int i) {
    if (turn < 2) {
      EditedFile& side = turn == 0 ? many : one;
      double const ms = side.edit(i, sampleGuardNs);
      if (ms < 0) throw std::runtime_error("an edit did not reach every host:\n" + side.agent.logTail());
      if (i >= warmUp) side.ms.push_back(ms);
      return;
    }
    std::string const text = "floor " + std::to_string(i) + (turn == 2 ? " many\n" : " one\n");
    writeFile(floorSource, text);
    CopyTimes const t = turn == 2 ? timedCommands(allHosts, ssh->environment(), text, floorMany, sampleGuardNs)
                                  : timedCommand(floorArgv(0), ssh->environment(), text, floorOne, sampleGuardNs);
    if (i >= warmUp) (turn == 2 ? floorManyMs : floorOneMs).push_back(t.arrivedMs);
  };
  for (int i = 0; i < warmUp + samples; ++i) {
    for (int k = 0; k < 4; ++k) sample((i + k) % 4, i);
  }

  std::string const manyName = std::to_string(hostCount) + " hosts";
  p50Ratio(report, b, "edit to new content on every host, p50: " + manyName + " / 1 host", many.ms, one.ms, 2);
  p50Ratio(report, b, "floor: rsync to every host at once, p50: " + manyName + " / 1 host", floorManyMs, floorOneMs);
  p50Ratio(report, b, "agent / floor, " + manyName, many.ms, floorManyMs);
  spreadRows(report, b, "agent, " + manyName, many.ms);
  spreadRows(report, b, "agent, 1 host", one.ms);
  spreadRows(report, b, "floor, " + manyName, floorManyMs);
  spreadRows(report, b, "floor, 1 host", floorOneMs);
  report.noteIs(
      b, std::to_string(samples) + " edits each, alternating, after " + std::to_string(warmUp) +
             " of warm-up; two agents over ssh, one with remoteHosts [127.0.0.1, ..., " + hosts.back() +
             "], one with [127.0.0.1]: test sshds on each address (an sshd listens on 16 at most), every "
             "address a destination directory of its own; an edit counts once its content is on every host; floor: "
             "rsync -e \"ssh -o ControlPath=...\" through a master per host the benchmark opened, all "
             "started at once with posix_spawn");
}

}  // namespace SystemBench
