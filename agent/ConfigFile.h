#pragma once

#include <string>
#include <vector>

#include "agent/AgentConfig.h"

namespace Agent {

// The outcome of reading the configuration file. Each error is one line
// "FILE:LINE:COLUMN: what is wrong; expected what", in the order found; all
// are collected, not only the first. config is meaningful only when ok():
// an invalid file leaves it at its defaults, so that nothing of it is applied
// by mistake. Warnings have the same shape, "FILE:LINE:COLUMN: what; what
// happens", and name what is valid but likely not meant; they never make a
// file invalid.
struct ParsedConfig {
  AgentConfig config;
  std::vector<std::string> errors;
  std::vector<std::string> warnings;
  bool ok() const { return errors.empty(); }
};

// Never throws (short of running out of memory). A configuration that parses
// ok cannot trip an assertion of the replication library: modes, names and
// numbers are within what it takes. A missing directory of an inotify-mode
// file is only a warning, as seen when the file was read: the library waits
// for the directory to appear. So is a missing ssh identityFile.
ParsedConfig parseConfigFile(std::string const& path);
// fileName only names the text in the errors; inotify-mode directories and
// same-file destinations are still checked on the file system.
ParsedConfig parseConfigText(std::string const& text, std::string const& fileName);

}  // namespace Agent
