#include "bench/system/Replicas.h"

#include <sys/wait.h>

#include <algorithm>
#include <stdexcept>

#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "tests/support/TestProcess.h"

namespace SystemBench {

SourceFiles::SourceFiles(TempTree& t, int files)
    : tree(t),
      dirs(std::clamp(files, 1, 100)),
      perDir(std::max(files, 1) / dirs),
      root(t / "src"),
      listFile(t / "files.list") {
  paths = tree.filesIs("src", dirs, perDir, false);
  std::string list;
  for (auto const& p : paths) {
    std::string const name = p.substr(root.size() + 1);
    writeFile(p, name + "\n");
    list += name + "\n";
  }
  writeFile(listFile, list);
}

std::vector<std::string> SourceFiles::destinationsIs(std::string const& under) {
  return tree.filesIs(under, dirs, perDir, false);
}

std::vector<std::string> realEnvironment(Options const& options, std::vector<std::string> const& extra,
                                         std::string const& firstOnPath) {
  std::string path = options.replicateDir + ":" + options.path;
  if (!firstOnPath.empty()) path = firstOnPath + ":" + path;
  std::vector<std::string> changes = {"PATH=" + path, "RSYNC_RSH"};
  changes.insert(changes.end(), extra.begin(), extra.end());
  return environmentWith(changes);
}

std::string agentConfig(std::string const& settings, std::vector<std::string> const& sources,
                        std::vector<std::string> const& destinations) {
  std::string text = "requesters:\n  bench:\n" + settings + "    files:\n";
  for (std::size_t i = 0; i < sources.size(); ++i) {
    text += "      - path: " + sources[i] + "\n        dstPath: " + destinations[i] + "\n";
  }
  return text;
}

StatusCounts statusCounts(nlohmann::json const& status) {
  StatusCounts counts;
  if (!status.is_object() || !status.contains("requesters")) return counts;
  for (auto const& [name, requester] : status["requesters"].items()) {
    for (auto const& [path, file] : requester["files"].items()) {
      ++counts.files;
      if (file["status"] == "synchronized") ++counts.synchronized;
      if (file["status"] == "failed") ++counts.failed;
    }
  }
  return counts;
}

std::size_t wrongDestinations(std::vector<std::string> const& sources, std::vector<std::string> const& destinations) {
  std::size_t wrong = 0;
  for (std::size_t i = 0; i < sources.size(); ++i) {
    std::string const content = readText(destinations[i]);
    if (content.empty() || content != readText(sources[i])) ++wrong;
  }
  return wrong;
}

Timed timedCopy(std::vector<std::string> const& argv, std::vector<std::string> const& env, Arrivals& arrivals,
                std::int64_t deadlineNs, std::string const& logFile) {
  std::int64_t const t0 = monotonicNs();
  pid_t const pid = spawn(argv, env, logFile);
  int status = 0;
  bool reaped = false;
  // A copy that failed is not waited for until the deadline.
  std::int64_t const arrived = arrivals.awaitAll(deadlineNs, [&] {
    int wstatus = 0;
    if (!reaped && waitpid(pid, &wstatus, WNOHANG) == pid) {
      reaped = true;
      status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    }
    return reaped && status != 0;
  });
  if (!reaped) status = exitCode(pid);
  std::int64_t const exited = monotonicNs();
  if (status != 0 || arrived < 0) {
    throw std::runtime_error(argv[0] + " exited with " + std::to_string(status) + " after " +
                             std::to_string(arrivals.arrived()) + " of " + std::to_string(arrivals.size()) +
                             " files arrived:\n" + readText(logFile));
  }
  return {double(arrived - t0) / 1e9, double(exited - t0) / 1e9};
}

double convergenceLimit(Options const& options) {
  return options.limitSeconds > 0 ? options.limitSeconds : options.quick ? 60 : 180;
}

}  // namespace SystemBench
