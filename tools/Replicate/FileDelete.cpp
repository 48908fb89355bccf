#include "tools/Replicate/FileDelete.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/Printable.h"
#include "tools/Replicate/RemoteHosts.h"
#include "tools/Replicate/Report.h"
#include "tools/Replicate/ShellWords.h"

namespace Replicate {

namespace {

bool deleteLocally(const std::string& target) {
  if (unlink(target.c_str()) == 0 || errno == ENOENT) return true;
  const std::string why = errno == EISDIR ? "it is a directory" : std::strerror(errno);
  report("cannot delete " + printable(target) + ": " + why);
  return false;
}

}  // namespace

bool deleteFile(const CommandLine& line) {
  if (line.remoteHosts.empty()) return deleteLocally(line.target);

  RemoteHosts hosts(line);
  if (hosts.shellPath().empty()) throw std::runtime_error(hosts.shell().program() + " not found on PATH");
  // The remote side runs this through a shell whatever we do, so the name
  // goes quoted; rm -f succeeds for a file already gone and refuses a
  // directory.
  const std::string remoteCommand = "rm -f -- " + shellQuoted(line.target);
  return allSucceeded(hosts.forEachHost([&](size_t i) {
    const HostAddress& host = hosts.hosts()[i];
    if (const std::optional<HostOutcome> outcome = hosts.prepare(host)) return *outcome;
    const ChildRun removal = runCapturingErrors(hosts.shellPath(), hosts.shell().argumentsFor(host, remoteCommand));
    return hosts.settle(host, removal, RemoteCommand::remove);
  }));
}

}  // namespace Replicate
