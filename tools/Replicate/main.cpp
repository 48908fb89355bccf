#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>

#include <cstdio>
#include <exception>
#include <span>
#include <string>
#include <vector>

#include "tools/Replicate/CommandLine.h"
#include "tools/Replicate/FileBatch.h"
#include "tools/Replicate/FileCopy.h"
#include "tools/Replicate/FileDelete.h"
#include "tools/Replicate/HelpText.h"
#include "tools/Replicate/HostProbe.h"
#include "tools/Replicate/Report.h"
#include "tools/Replicate/UsageError.h"

namespace {

constexpr int niceness = 10;

// One line per name, "0" when it reached every destination.
bool copyListedFiles(const Replicate::CommandLine& line, const std::vector<std::string>& names) {
  const std::vector<bool> copied = Replicate::copyFiles(line, names);
  std::string outcome;
  bool allCopied = true;
  for (const bool ok : copied) {
    outcome += ok ? "0\n" : "1\n";
    allCopied = allCopied && ok;
  }
  if (std::fwrite(outcome.data(), 1, outcome.size(), stdout) != outcome.size() || std::fflush(stdout) != 0) {
    Replicate::report("cannot write the outcome to stdout");
    return false;
  }
  return allCopied;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace Replicate;
  CommandLine line;
  std::vector<std::string> names;
  try {
    line = parseCommandLine(std::span<const char* const>(argv + 1, static_cast<size_t>(argc - 1)));
    if (line.command == Command::rsyncFiles && !line.help) names = readNameList(STDIN_FILENO);
  } catch (const UsageError& error) {
    report(std::string(error.what()) + "; see Replicate --help");
    return 2;
  } catch (const std::exception& error) {
    report(error.what());
    return 1;
  }
  if (line.help) {
    // stdio rather than iostreams, whose set-up would cost every run.
    std::fputs(helpText(), stdout);
    return 0;
  }
  // Copies yield the processor to the work whose files they copy: under a
  // storm of writes the writer finishes sooner, and fewer runs follow it.
  errno = 0;
  if (const int priority = getpriority(PRIO_PROCESS, 0); errno == 0) setpriority(PRIO_PROCESS, 0, priority + niceness);
  try {
    bool ok = false;
    switch (line.command) {
      case Command::rsyncFile: ok = copyFile(line); break;
      case Command::rsyncFiles: ok = copyListedFiles(line, names); break;
      case Command::deleteFile: ok = deleteFile(line); break;
      case Command::probe: ok = probeHosts(line); break;
    }
    return ok ? 0 : 1;
  } catch (const std::exception& error) {
    report(error.what());
    return 1;
  }
}
