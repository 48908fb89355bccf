#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Replicate {

// Where execvp would find program: itself when it holds a '/', otherwise the
// first executable file of that name in $PATH. Empty when there is none.
std::string findOnPath(std::string_view program);

// Runs the program at path with arguments (arguments[0] is its name), stdin
// from /dev/null, and waits for it. The child is killed when this process
// dies, however it dies. Returns the wait status; throws std::runtime_error
// when the child cannot be started.
int runChild(const std::string& path, const std::vector<std::string>& arguments);

// The internal mode that runChild starts: arguments are
// [<our name>, "--exec-with-pdeathsig", <parent pid>, <path>, <arguments...>].
// Never returns.
[[noreturn]] void execWithParentDeathSignal(int argc, char** argv);

inline constexpr std::string_view execWithParentDeathSignalOption = "--exec-with-pdeathsig";

}  // namespace Replicate
