#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace Replicate {

// Where execvp would find program: itself when it holds a '/', otherwise the
// first executable file of that name in $PATH. Empty when there is none.
std::string findOnPath(std::string_view program);

// Where a child's standard streams go; the rest is inherited.
struct ChildStreams {
  // Its stdin; negative for /dev/null.
  int input = -1;
  // Its stdout joins our stderr, for when our stdout carries results.
  bool outputToStderr = false;
  // Its stderr; negative for ours.
  int errors = -1;
};

// Starts the program at path with arguments (arguments[0] is its name),
// with default signal dispositions and an empty signal mask. The child is
// killed when this process dies, however it dies. Throws std::runtime_error
// when no process can be made; a program that cannot be run exits 126.
pid_t startChild(const std::string& path, const std::vector<std::string>& arguments, ChildStreams streams = {});

// Reaps child; returns its wait status.
int awaitChild(pid_t child);

// startChild, then awaitChild.
int runChild(const std::string& path, const std::vector<std::string>& arguments, ChildStreams streams = {});

// How a child ended and what it wrote on stderr.
struct ChildRun {
  int status = 0;
  std::string errors;
};

// runChild with the child's stderr kept (streams.errors is ignored). It goes
// to a file in memory, read once the child ended: a process it leaves
// behind, such as a shared ssh connection, cannot hold us up the way it
// would hold the end of a pipe.
ChildRun runCapturingErrors(const std::string& path, const std::vector<std::string>& arguments,
                            ChildStreams streams = {});

}  // namespace Replicate
