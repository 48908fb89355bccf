#pragma once

#include <span>
#include <string>
#include <vector>

#include "tools/Replicate/HostAddress.h"

namespace Replicate {

enum class Command { rsyncFile, rsyncFiles, deleteFile, probe };

// What one run is asked to do. No hosts means the local file system. For
// rsyncFiles, source and target are the roots below which the names on
// stdin lie.
struct CommandLine {
  bool help = false;
  Command command = Command::rsyncFile;
  std::vector<HostAddress> remoteHosts;
  std::string source;
  std::string target;
  std::vector<std::string> rsyncOptions;
  // Words for ssh, before our own options; only with remote hosts.
  std::vector<std::string> sshOptions;
};

// Reads the arguments after the program name. Throws UsageError naming what
// is wrong.
CommandLine parseCommandLine(std::span<const char* const> arguments);

}  // namespace Replicate
