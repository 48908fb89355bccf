#pragma once

#include <string>
#include <vector>

#include "tests/support/TestProcess.h"

// Runs the Replicate built alongside these tests to its end in directory.
inline ProcessResult runReplicate(std::vector<std::string> arguments, std::string const& directory,
                                  std::vector<std::string> const& environment = {}) {
  arguments.insert(arguments.begin(), REPLICATE_PROGRAM);
  return runProcess(arguments, environment, directory);
}
