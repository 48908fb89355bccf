#pragma once

#include <sys/types.h>

#include <string>

namespace Agent {

// Where the agent listens and its CLI connects when no path is given:
// /run/filerep/filerep.sock for root, else filerep.sock in the user's runtime
// directory ($XDG_RUNTIME_DIR, or /tmp/filerep-<uid> when that is unset).
std::string defaultSocketPath();
// The same for a given effective uid and XDG_RUNTIME_DIR value (null when
// unset).
std::string defaultSocketPath(uid_t euid, char const* xdgRuntimeDir);

}  // namespace Agent
