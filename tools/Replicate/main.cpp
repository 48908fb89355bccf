#include <exception>
#include <iostream>
#include <span>
#include <string_view>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/CommandLine.h"
#include "tools/Replicate/FileCopy.h"
#include "tools/Replicate/FileDelete.h"
#include "tools/Replicate/HelpText.h"
#include "tools/Replicate/Report.h"
#include "tools/Replicate/UsageError.h"

int main(int argc, char** argv) {
  using namespace Replicate;
  if (argc > 1 && argv[1] == execWithParentDeathSignalOption) execWithParentDeathSignal(argc, argv);

  CommandLine line;
  try {
    line = parseCommandLine(std::span<const char* const>(argv + 1, static_cast<size_t>(argc - 1)));
  } catch (const UsageError& error) {
    report(std::string(error.what()) + "; see Replicate --help");
    return 2;
  }
  if (line.help) {
    std::cout << helpText();
    return 0;
  }
  try {
    const bool ok = line.command == Command::rsyncFile ? copyFile(line) : deleteFile(line);
    return ok ? 0 : 1;
  } catch (const std::exception& error) {
    report(error.what());
    return 1;
  }
}
