#include "tools/Replicate/RemoteFailure.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "tools/Replicate/ChildStatus.h"

namespace Replicate {

namespace {

bool holds(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

// ssh's own "user@host: Permission denied (publickey,password)." and not a
// file's "Permission denied (13)" from rsync.
bool loginRefused(std::string_view errors) {
  static constexpr std::string_view denied = "Permission denied (";
  for (size_t at = errors.find(denied); at != std::string_view::npos; at = errors.find(denied, at + 1)) {
    const size_t next = at + denied.size();
    if (next < errors.size() && std::isalpha(static_cast<unsigned char>(errors[next]))) return true;
  }
  return false;
}

// The line of errors that says most: the last one, unless it is only
// rsync's summary of what came before.
std::string telling(std::string_view errors) {
  std::string best;
  std::string last;
  size_t start = 0;
  while (start < errors.size()) {
    size_t end = errors.find('\n', start);
    if (end == std::string_view::npos) end = errors.size();
    std::string line(errors.substr(start, end - start));
    start = end + 1;
    for (char& c : line) {
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
    }
    const size_t first = line.find_first_not_of(' ');
    if (first == std::string::npos) continue;
    line = line.substr(first, line.find_last_not_of(' ') - first + 1);
    last = line;
    if (!line.starts_with("rsync error: ") && !line.starts_with("rsync: connection unexpectedly closed")) best = line;
  }
  return best.empty() ? last : best;
}

std::string fallback(RemoteCommand command, int waitStatus) {
  switch (command) {
    case RemoteCommand::rsync: return describeRsyncFailure(waitStatus);
    case RemoteCommand::remove: return describeRemoteDeleteFailure(waitStatus);
    case RemoteCommand::probe: break;
  }
  if (WIFSIGNALED(waitStatus)) return "ssh killed by signal " + std::to_string(WTERMSIG(waitStatus));
  return "the remote shell failed with exit code " + std::to_string(WEXITSTATUS(waitStatus));
}

}  // namespace

RemoteFailure diagnoseRemoteFailure(RemoteCommand command, int waitStatus, std::string_view errors,
                                    const std::string& host, const std::string& user, int connectTimeout) {
  const int code = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1;
  // ssh ends with 255 when it cannot get through; rsync then says 255, or
  // 12 when it sees the stream break first. Other codes come from the
  // remote side, whose messages may quote any text.
  const bool sshFailed = code == 255 || (command == RemoteCommand::rsync && code == 12);
  const auto unreachable = [](std::string message) { return RemoteFailure{true, true, std::move(message)}; };
  if (sshFailed) {
    if (holds(errors, "Host key verification failed")) {
      return unreachable("host key of " + host + " is not known: connect once by hand as " + user + " (ssh " + host +
                         ") or add it to known_hosts");
    }
    if (loginRefused(errors)) {
      return unreachable(host + " refused the key of " + user +
                         ": install it there (ssh-copy-id) or set the identity file in the ssh settings");
    }
    if (holds(errors, "Connection refused")) {
      return unreachable("nothing listens for ssh on " + host + ": is sshd running, is the port right?");
    }
    if (holds(errors, "Connection timed out") || holds(errors, "Operation timed out") ||
        holds(errors, "banner exchange")) {
      return unreachable(host + " did not answer within " + std::to_string(connectTimeout) +
                         " s: it is down or a firewall drops the traffic");
    }
    if (holds(errors, "Could not resolve hostname")) return unreachable(host + ": no such host name");
    if (holds(errors, "No route to host") || holds(errors, "Network is unreachable")) {
      return unreachable(host + " cannot be reached: no route");
    }
  }
  if (command == RemoteCommand::rsync &&
      (code == 127 || (sshFailed && (holds(errors, "rsync: command not found") || holds(errors, "rsync: not found") ||
                                     holds(errors, "command not found: rsync"))))) {
    return {false, true, "rsync is not installed on " + host + " (or not on its PATH)"};
  }
  RemoteFailure failure{false, false, fallback(command, waitStatus)};
  if (const std::string line = telling(errors); !line.empty()) failure.message += ": " + line;
  return failure;
}

std::string effectiveUserName() {
  // Read directly: a static program cannot load the name service modules
  // that getpwuid may need.
  const std::string uid = std::to_string(geteuid());
  std::string name;
  if (FILE* passwd = std::fopen("/etc/passwd", "re")) {
    char* buffer = nullptr;
    size_t size = 0;
    while (name.empty() && getline(&buffer, &size, passwd) > 0) {
      const std::string_view line(buffer);
      const size_t nameEnd = line.find(':');
      const size_t uidStart = line.find(':', nameEnd + 1);
      if (nameEnd == std::string_view::npos || uidStart == std::string_view::npos) continue;
      if (line.substr(uidStart + 1).starts_with(uid + ":")) name = line.substr(0, nameEnd);
    }
    std::free(buffer);
    std::fclose(passwd);
  }
  if (!name.empty()) return name;
  for (const char* variable : {"LOGNAME", "USER"}) {
    if (const char* value = std::getenv(variable); value && *value) return value;
  }
  return "uid " + uid;
}

}  // namespace Replicate
