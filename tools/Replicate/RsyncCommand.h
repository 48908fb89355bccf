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

// What a source looked like when it was checked: a copy that failed while
// it changed is worth another try.
struct SourceState {
  long long changeNs = 0;
  long long size = 0;
  bool operator==(const SourceState&) const = default;
};

// Throws std::runtime_error naming source when it cannot be copied: missing,
// unreadable, or a directory.
SourceState checkSource(const std::string& source);

// Whether source is no longer as state says; state becomes what it is now.
bool sourceChanged(const std::string& source, SourceState& state);

// rsync's exit for a run that copied some files and not others; for one
// file, what a file changing under it leads to.
bool partialTransfer(int waitStatus);

// How often a file that changed while it failed to copy is copied again.
inline constexpr int retriesWhileChanging = 2;

}  // namespace Replicate
