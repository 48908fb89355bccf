#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/Replicate/ChildProcess.h"
#include "tools/Replicate/HostAddress.h"
#include "tools/Replicate/RemoteShell.h"

namespace Replicate {

// Whether a copy failed for want of the directory it writes into on the
// remote side.
bool missingRemoteDirectory(const ChildRun& run);

// Creates directory and the missing directories above it on host, without
// a remote command line of our own and with any rsync since 3.0 there,
// which the --mkpath of later ones would rule out: rsync copies a local
// tree of empty directories into place. Existing directories keep their
// modes and times, and a symbolic link to a directory on the way is
// followed, not replaced. rsyncOptions are the user's, of which only those
// that say how to reach the remote rsync are kept. Returns the last run of
// rsync, or nothing when directory names no directory that could be made.
std::optional<ChildRun> makeRemoteDirectories(const std::string& rsync, const std::vector<std::string>& rsyncOptions,
                                              const RemoteShell& shell, const HostAddress& host,
                                              const std::string& directory);

// Removes the directories below directory on host that hold nothing but
// directories, as pruneLocalDirectory does here; directory itself stays,
// for the copy to replace. rsyncOptions are as for makeRemoteDirectories.
ChildRun pruneRemoteDirectory(const std::string& rsync, const std::vector<std::string>& rsyncOptions,
                              const RemoteShell& shell, const HostAddress& host, const std::string& directory);

}  // namespace Replicate
