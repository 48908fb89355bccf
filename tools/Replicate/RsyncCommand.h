#pragma once

#include <string>
#include <vector>

#include "tools/Replicate/RemoteShell.h"

// What every copy, of one file or of a batch, builds its rsync run from.
namespace Replicate {

// rsync's path. Throws std::runtime_error when there is none on PATH.
std::string findRsync();

// The start of the argument vector: "rsync", the user's options, and the
// options every copy needs.
std::vector<std::string> rsyncArguments(const std::vector<std::string>& options);

// The options that take rsync to a remote host through shell.
void addRemoteOptions(std::vector<std::string>& arguments, const RemoteShell& shell);

// path as rsync must be given it to read it as a local path.
std::string localPathForRsync(const std::string& path);

// The directory holding path, without trailing slashes; empty when there is
// nothing to create: a bare name, or a name in "/".
std::string parentOf(const std::string& path);

// Like mkdir -p, with mode 0755 for what it creates. Throws
// std::runtime_error naming the directory.
void makeDirectories(const std::string& directory);

// Throws std::runtime_error naming source when it cannot be copied: missing,
// unreadable, or a directory.
void checkSource(const std::string& source);

}  // namespace Replicate
