#include "FileReplication/FileReplicationUtils.h"

#include <libgen.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>
#include <vector>

#include "runtime/ChildLauncher.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("FileReplicationUtils")

namespace FileReplication {

namespace Commands {

namespace {

// "Replicate --cmd CMD [--remoteHosts HOSTS [--sshOptions SSH]]": the rest
// is the command's own.
std::vector<char const*> commandHead(char const* cmd, Kel::String8 const& remoteHostsString,
                                     Kel::String8 const& sshOptions) {
  std::vector<char const*> argv = {"Replicate", "--cmd", cmd};
  if (remoteHostsString == "") return argv;
  argv.insert(argv.end(), {"--remoteHosts", remoteHostsString.charPtr()});
  if (sshOptions != "") argv.insert(argv.end(), {"--sshOptions", sshOptions.charPtr()});
  return argv;
}

}  // namespace

Kel::Ptr<Kel::ChildSiginfo const> rsyncFile(Kel::String8 remoteHostsString, Kel::String8 source, Kel::String8 target,
                                            Kel::String8 rsyncOptions, std::uint32_t maxFilesPerRun,
                                            Kel::String8 sshOptions) {
  Kel::ChildSetup setup;
  setup.batchLimit = maxFilesPerRun;
  setup.captureStderr = true;
  KEL_TRACE(6, "rsycnFile remoteHostsString:" << remoteHostsString << " source:" << source << " target:" << target
                                              << " rsyncOptions: " << rsyncOptions
                                              << (sshOptions == "" ? "" : " sshOptions: ") << sshOptions);
  auto argv = commandHead("rsyncFile", remoteHostsString, sshOptions);
  argv.insert(argv.end(), {"--source", source.charPtr(), "--target", target.charPtr(), "--rsyncOptions",
                           rsyncOptions.charPtr(), nullptr});
  return Kel::run(argv.data(), setup);
}

Kel::Ptr<Kel::ChildSiginfo const> deleteFile(Kel::String8 remoteHostsString, Kel::String8 target,
                                             Kel::String8 sshOptions, bool captureStderr) {
  KEL_TRACE(6, "deleteFile remoteHostsString:" << remoteHostsString << " target:" << target
                                               << (sshOptions == "" ? "" : " sshOptions: ") << sshOptions);
  auto argv = commandHead("deleteFile", remoteHostsString, sshOptions);
  argv.insert(argv.end(), {"--target", target.charPtr(), nullptr});
  Kel::ChildSetup setup;
  setup.captureStderr = captureStderr;
  return Kel::run(argv.data(), setup);
}

}  // namespace Commands

namespace Utils {

bool exists(Kel::String8 path) {
  struct stat st;
  return stat(path.charPtr(), &st) == 0;
}

int statError(Kel::String8 const& path) {
  FileId ignored;
  return statError(path, ignored);
}

int statError(Kel::String8 const& path, FileId& id) {
  struct stat st;
  if (stat(path.charPtr(), &st) != 0) return errno;
  id = {std::uint64_t(st.st_dev), std::uint64_t(st.st_ino)};
  return 0;
}

bool sameFile(Kel::String8 const& a, Kel::String8 const& b) {
  struct stat sa;
  struct stat sb;
  return stat(a.charPtr(), &sa) == 0 && stat(b.charPtr(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

Kel::String8 linkTarget(Kel::String8 const& path) {
  struct stat st;
  if (lstat(path.charPtr(), &st) != 0 || !S_ISLNK(st.st_mode)) return Kel::String8();
  std::unique_ptr<char, decltype(&free)> const resolved(realpath(path.charPtr(), nullptr), &free);
  return resolved ? Kel::String8(resolved.get()) : Kel::String8();
}

Kel::String8 dirname(Kel::String8 path) {
  auto scratch = std::make_unique<char[]>(path.size() + 1);
  strcpy(scratch.get(), path.charPtr());
  return Kel::String8(::dirname(scratch.get()));
}

Kel::String8 filename(Kel::String8 path) {
  auto scratch = std::make_unique<char[]>(path.size() + 1);
  strcpy(scratch.get(), path.charPtr());
  // The POSIX basename, not the GNU one: "a/b/" gives "b" and "" gives ".".
  return Kel::String8(__xpg_basename(scratch.get()));
}

}  // namespace Utils

}  // namespace FileReplication
