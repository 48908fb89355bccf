#include "tools/Replicate/HelpText.h"

namespace Replicate {

const char* helpText() {
  return R"(NAME
    Replicate - copy files to remote hosts with rsync, or delete them there

SYNOPSIS
    Replicate --cmd rsyncFile [--remoteHosts HOSTS] --source SOURCE --target TARGET
              --rsyncOptions OPTIONS
    Replicate --cmd rsyncFiles [--remoteHosts HOSTS] --source SOURCE --target TARGET
              --rsyncOptions OPTIONS < LIST
    Replicate --cmd deleteFile [--remoteHosts HOSTS] --target TARGET
    Replicate --help

DESCRIPTION
    rsyncFile copies the local file SOURCE to TARGET on each of HOSTS, one
    host after the other, with rsync over ssh. Without --remoteHosts it copies
    to TARGET on this machine. Missing parent directories of TARGET are
    created. rsync compares the files by content, not by size and time, and
    sends only the differences.

    rsyncFiles copies many files at once: for each NAME in LIST, the file
    SOURCE/NAME to TARGET/NAME, with a single rsync run per host. LIST, on
    stdin, holds the names, each followed by a NUL byte. A NAME must be
    relative, without empty, "." or ".." components. TARGET and missing
    directories below it are created with default attributes; directories
    that exist are left as they are. A NAME that is refused, a source that is missing or
    is a directory, and a file that rsync cannot copy fail alone, the others
    are copied: when rsync reports a partial transfer, its list is split in
    halves and each half is run again until the files that failed are found.
    On stdout, once every host is done, comes one line per NAME, in the order
    of LIST: 0 when the file was copied to every host, 1 otherwise. rsync's
    own output goes to stderr.

    deleteFile removes TARGET on each of HOSTS, or on this machine without
    --remoteHosts. A TARGET that does not exist counts as removed; a directory
    is refused.

    Every host is tried even when an earlier one fails. No name, option or
    host is ever run as shell code, here or on a remote host: programs are
    started with argument vectors, rsync passes names through its protocol,
    and the remote rm gets its name quoted for the remote shell.

    Children are killed when Replicate dies, however it dies. Connections to
    a host are shared between runs: the first one stays open in the
    background for 60 seconds after its last use, and runs that start
    together wait for one of them to open it. Replicate and its children run
    10 steps nicer than whoever started it, so copies yield the processor to
    the work whose files they copy.

OPTIONS
    --cmd rsyncFile|rsyncFiles|deleteFile
        What to do.

    --remoteHosts HOSTS
        Comma-separated hosts; empty items are ignored, but at least one host
        is required. A host is NAME, USER@NAME, or an IPv6 address with or
        without brackets: ::1, [::1], USER@[::1]. Without this option the
        local file system is used.

    --source SOURCE
        The local file to copy (rsyncFile), or the local directory that the
        names of LIST are in (rsyncFiles).

    --target TARGET
        The file to write or remove, or the directory that the names of LIST
        are copied into (rsyncFiles). A relative TARGET on a remote host is
        relative to the home directory there.

    --rsyncOptions OPTIONS
        Options for rsync (not for deleteFile), split into words like a
        shell does: single quotes, double quotes and backslashes are
        honoured, but nothing is expanded. May be empty.

    --help
        Print this page.

ENVIRONMENT
    RSYNC_RSH
        When set, the command that reaches remote hosts, in place of ssh; it
        is split into words. It receives [-l USER] HOST COMMAND... like ssh.

    XDG_RUNTIME_DIR
        Where the private directory for shared ssh connections, the hosts'
        states and the small trees of directories sent to make missing ones
        is made; /tmp when unset or unsuitable.

    PATH
        Where rsync and ssh are found.

EXIT STATUS
    0   Every host (or the local copy or removal) succeeded; for rsyncFiles,
        every file reached every host, and an empty LIST succeeds.
    1   Something failed; stderr has one line per failed host, or per failed
        file, with the host and the reason.
    2   The command line is malformed, or LIST does not end with a NUL byte;
        rsyncFiles then prints nothing on stdout.
)";
}

}  // namespace Replicate
