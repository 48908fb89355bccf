#pragma once

#include <cerrno>
#include <cstdint>

#include "runtime/ChildSiginfo.h"
#include "runtime/Ptr.h"
#include "runtime/String.h"

namespace FileReplication {

// Starts the external Replicate command for one file. Each value becomes
// exactly one element of the argument vector: nothing is quoted or split, and
// no shell is involved.
namespace Commands {

// Up to maxFilesPerRun copies due together may be merged into one Replicate
// process (see ReplicateBatcher); each still ends with its own outcome.
// sshOptions is passed on whole, for Replicate to split; only with remote
// hosts, since a local copy has no ssh to give it to. What Replicate writes
// on stderr is captured for the child's errorOutput(), unless a deletion is
// told to leave it on ours (no one waits for its end).
Kel::Ptr<Kel::ChildSiginfo const> rsyncFile(Kel::String8 remoteHostsString, Kel::String8 source, Kel::String8 target,
                                            Kel::String8 rsyncOptions, std::uint32_t maxFilesPerRun = 1,
                                            Kel::String8 sshOptions = Kel::String8());
Kel::Ptr<Kel::ChildSiginfo const> deleteFile(Kel::String8 remoteHostsString, Kel::String8 target,
                                             Kel::String8 sshOptions = Kel::String8(), bool captureStderr = true);

}  // namespace Commands

namespace Utils {

// True exactly when stat() succeeds: a dangling symbolic link, or a path
// behind a directory we may not search, counts as missing.
bool exists(Kel::String8 path);
// Why stat() fails, 0 when it succeeds. Only ENOENT and ENOTDIR say the
// file is not there; any other error says nothing about it.
int statError(Kel::String8 const& path);
// Which file a path names: another one after a rename over it.
struct FileId {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  friend bool operator==(FileId const&, FileId const&) = default;
};
// statError, and the file's identity when it succeeds.
int statError(Kel::String8 const& path, FileId& id);
inline bool missing(int statError) { return statError == ENOENT || statError == ENOTDIR; }
// Whether both paths name one existing file (same device and inode).
bool sameFile(Kel::String8 const& a, Kel::String8 const& b);
// Where the file path resolves to when its last part is a symbolic link;
// empty for anything else, a dangling link included.
Kel::String8 linkTarget(Kel::String8 const& path);
// POSIX dirname and basename, on a scratch copy since both may write into
// their argument.
Kel::String8 dirname(Kel::String8 path);
Kel::String8 filename(Kel::String8 path);

}  // namespace Utils

}  // namespace FileReplication
