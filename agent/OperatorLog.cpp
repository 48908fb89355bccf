#include "agent/OperatorLog.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace Agent {

namespace {

LogPriority least = LogPriority::info;
bool journal = false;

// systemd sets JOURNAL_STREAM to the device and inode of the stream it
// connected; a redirection since then leaves it stale, so both must match.
bool stderrIsJournal() {
  char const* const stream = std::getenv("JOURNAL_STREAM");
  if (!stream) return false;
  unsigned long long device = 0;
  unsigned long long inode = 0;
  struct stat st {};
  return std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 && fstat(STDERR_FILENO, &st) == 0 &&
         st.st_dev == device && st.st_ino == inode;
}

void fromLibrary(LogPriority priority, std::string_view line) { say(priority, line); }

}  // namespace

void operatorLogIs(LogPriority v) {
  least = v;
  journal = stderrIsJournal();
  FileReplication::logSinkIs(fromLibrary);
}

void say(LogPriority priority, std::string_view line) {
  if (int(priority) > int(least)) return;
  // One write per line, so that lines of the agent and its children do not
  // interleave.
  std::string text = journal ? "<" + std::to_string(int(priority)) + ">" : std::string("filerep: ");
  text.append(line);
  text += '\n';
  std::cerr << text << std::flush;
}

std::optional<LogPriority> logPriorityNamed(std::string_view name) {
  if (name == "error") return LogPriority::error;
  if (name == "warning") return LogPriority::warning;
  if (name == "notice") return LogPriority::notice;
  if (name == "info") return LogPriority::info;
  return std::nullopt;
}

}  // namespace Agent
