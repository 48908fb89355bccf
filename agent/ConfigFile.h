#pragma once

#include <string>
#include <vector>

#include "agent/AgentConfig.h"

namespace Agent {

// The outcome of reading the configuration file. Each error is one line
// "FILE:LINE:COLUMN: what is wrong; expected what", in the order found; all
// are collected, not only the first. config is meaningful only when ok():
// an invalid file leaves it at its defaults, so that nothing of it is applied
// by mistake.
struct ParsedConfig {
  AgentConfig config;
  std::vector<std::string> errors;
  bool ok() const { return errors.empty(); }
};

// Never throws (short of running out of memory). A configuration that parses
// ok cannot trip an assertion of the replication library: modes are valid
// and the directory of every inotify-mode file exists and is a directory,
// as seen when the file was read.
ParsedConfig parseConfigFile(std::string const& path);
// fileName only names the text in the errors; inotify-mode directories are
// still checked on the file system.
ParsedConfig parseConfigText(std::string const& text, std::string const& fileName);

}  // namespace Agent
