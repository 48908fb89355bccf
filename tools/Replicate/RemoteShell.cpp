#include "tools/Replicate/RemoteShell.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/ChildStatus.h"
#include "tools/Replicate/ControlDirectory.h"
#include "tools/Replicate/ShellWords.h"

namespace Replicate {

namespace {

constexpr int connectTimeout = 10;
constexpr int persistSeconds = 60;
// A shared connection marked up this recently is still there: it lives
// persistSeconds after its last run, and every run renews the mark.
constexpr int upFor = persistSeconds - 10;

// Host texts are user@name or addresses; anything else in them is spelled
// in hex, so no text can reach outside the directory or meet another's name.
std::string markerName(const std::string& host) {
  std::string name = "host-";
  for (const unsigned char c : host) {
    const bool plain = std::isalnum(c) || c == '.' || c == '-' || c == '_' || c == '@';
    if (plain) {
      name += char(c);
    } else {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%%%02x", c);
      name += hex;
    }
  }
  return name;
}

bool markerFresh(int fd, char state, int seconds) {
  struct stat status {};
  char content = 0;
  if (fstat(fd, &status) != 0 || status.st_size != 1 || pread(fd, &content, 1, 0) != 1) return false;
  return content == state && std::time(nullptr) - status.st_mtime < seconds;
}

}  // namespace

RemoteShell RemoteShell::fromEnvironment() {
  RemoteShell shell;
  const char* custom = std::getenv("RSYNC_RSH");
  if (custom && *custom) {
    shell.command_ = custom;
    try {
      shell.words_ = splitShellWords(shell.command_);
    } catch (const std::invalid_argument& error) {
      throw std::runtime_error("RSYNC_RSH: " + std::string(error.what()));
    }
    if (shell.words_.empty()) throw std::runtime_error("RSYNC_RSH holds no command");
  } else {
    // Keep-alives and a connect time-out turn a dead host into an error
    // instead of a hang; connection sharing makes the runs after the first
    // one to a host cheap.
    shell.controlDirectory_ = controlDirectory();
    shell.command_ = "ssh -o BatchMode=yes -o ConnectTimeout=" + std::to_string(connectTimeout) +
                     " -o ServerAliveInterval=10 -o ServerAliveCountMax=3 -o ControlMaster=auto -o ControlPath=" +
                     shell.controlDirectory_ + "/%C -o ControlPersist=" + std::to_string(persistSeconds);
    shell.words_ = splitShellWords(shell.command_);
  }
  return shell;
}

std::vector<std::string> RemoteShell::argumentsFor(const HostAddress& host, const std::string& remoteCommand) const {
  std::vector<std::string> arguments = words_;
  // The same form rsync uses, so that $RSYNC_RSH sees one convention.
  if (!host.user().empty()) {
    arguments.push_back("-l");
    arguments.push_back(host.user());
  }
  arguments.push_back(host.machine());
  arguments.push_back(remoteCommand);
  return arguments;
}

void RemoteShell::shareConnectionTo(const HostAddress& host) const {
  if (controlDirectory_.empty()) return;
  // A marker per host: 'u' when a shared connection was started, 'd' when
  // that failed; its time is when it was last known so. It is also the lock
  // that the run starting the connection holds.
  const std::string marker = controlDirectory_ + "/" + markerName(host.text());
  const int fd = open(marker.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return;
  if (markerFresh(fd, 'u', upFor)) {
    // Each run keeps the connection alive for persistSeconds after it.
    futimens(fd, nullptr);
  } else if (flock(fd, LOCK_EX) == 0 && !markerFresh(fd, 'u', upFor) && !markerFresh(fd, 'd', connectTimeout)) {
    int status = 1;
    if (const std::string ssh = findOnPath(words_.front()); !ssh.empty()) {
      try {
        // A first run of nothing leaves the shared connection behind, or
        // uses the one that is there after all; it must not keep our
        // stdout, which may be the list of outcomes.
        status = runChild(ssh, argumentsFor(host, "true"), {.outputToStderr = true});
      } catch (const std::runtime_error&) {
      }
    }
    const char state = succeeded(status) ? 'u' : 'd';
    if (ftruncate(fd, 0) == 0 && pwrite(fd, &state, 1, 0) == 1) futimens(fd, nullptr);
  }
  close(fd);
}

}  // namespace Replicate
