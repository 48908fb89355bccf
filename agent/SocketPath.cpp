#include "agent/SocketPath.h"

#include <unistd.h>

#include <cstdlib>

namespace Agent {

std::string defaultSocketPath() { return defaultSocketPath(geteuid(), std::getenv("XDG_RUNTIME_DIR")); }

std::string defaultSocketPath(uid_t euid, char const* xdgRuntimeDir) {
  if (euid == 0) return "/run/filerep/filerep.sock";
  // A relative or empty value is no runtime directory at all.
  if (xdgRuntimeDir && xdgRuntimeDir[0] == '/') return std::string(xdgRuntimeDir) + "/filerep.sock";
  return "/tmp/filerep-" + std::to_string(euid) + "/filerep.sock";
}

}  // namespace Agent
