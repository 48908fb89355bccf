#include "tools/Replicate/ChildStatus.h"

#include <sys/wait.h>

#include <cstring>

namespace Replicate {

namespace {

const char* rsyncExitMeaning(int code) {
  switch (code) {
    case 1: return "syntax or usage error";
    case 2: return "protocol incompatibility";
    case 3: return "errors selecting input/output files, dirs";
    case 4: return "requested action not supported";
    case 5: return "error starting client-server protocol";
    case 10: return "error in socket I/O";
    case 11: return "error in file I/O";
    case 12: return "error in rsync protocol data stream";
    case 13: return "errors with program diagnostics";
    case 14: return "error in IPC code";
    case 20: return "received SIGUSR1 or SIGINT";
    case 21: return "some error returned by waitpid()";
    case 22: return "error allocating core memory buffers";
    case 23: return "partial transfer due to error";
    case 24: return "partial transfer due to vanished source files";
    case 25: return "the --max-delete limit stopped deletions";
    case 30: return "timeout in data send/receive";
    case 35: return "timeout waiting for daemon connection";
    case 124: return "the remote shell failed";
    case 125: return "the remote shell was killed";
    case 126: return "a command could not be run";
    case 127: return "the remote command was not found; is rsync installed there?";
    case 255: return "the remote shell failed: host unreachable, or authentication refused";
    default: return nullptr;
  }
}

std::string describeSignal(const char* program, int waitStatus) {
  const int signal = WTERMSIG(waitStatus);
  return std::string(program) + " killed by signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
}

}  // namespace

bool succeeded(int waitStatus) { return WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == 0; }

std::string describeRsyncFailure(int waitStatus) {
  if (WIFSIGNALED(waitStatus)) return describeSignal("rsync", waitStatus);
  const int code = WEXITSTATUS(waitStatus);
  std::string text = "rsync failed with exit code " + std::to_string(code);
  if (const char* meaning = rsyncExitMeaning(code)) text += std::string(" (") + meaning + ")";
  return text;
}

std::string describeRemoteDeleteFailure(int waitStatus) {
  if (WIFSIGNALED(waitStatus)) return describeSignal("the remote shell", waitStatus);
  const int code = WEXITSTATUS(waitStatus);
  if (code == 255) {
    return "the remote shell failed with exit code 255 (host unreachable, or authentication refused)";
  }
  return "rm failed on the remote host with exit code " + std::to_string(code);
}

}  // namespace Replicate
