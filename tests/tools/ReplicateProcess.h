#pragma once

#include <string>
#include <vector>

#include "tests/support/TestFiles.h"
#include "tests/support/TestProcess.h"

// Runs the Replicate built alongside these tests to its end in directory.
inline ProcessResult runReplicate(std::vector<std::string> arguments, std::string const& directory,
                                  std::vector<std::string> const& environment = {}) {
  arguments.insert(arguments.begin(), REPLICATE_PROGRAM);
  return runProcess(arguments, environment, directory);
}

// The same with input on its stdin, which runProcess leaves on /dev/null;
// the shell only redirects and passes every word on untouched.
inline ProcessResult runReplicateWithInput(std::vector<std::string> arguments, std::string const& input,
                                           std::string const& directory,
                                           std::vector<std::string> const& environment = {}) {
  const TempDir inputDirectory;
  writeFile(inputDirectory / "input", input);
  arguments.insert(arguments.begin(),
                   {"/bin/sh", "-c", "exec \"$@\" < \"$0\"", inputDirectory / "input", REPLICATE_PROGRAM});
  return runProcess(arguments, environment, directory);
}
