#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace SystemBench {

// This process's environment with changes (NAME=VALUE) in place of the
// entries they name; NAME alone removes the entry.
std::vector<std::string> environmentWith(std::vector<std::string> const& changes);

// The first executable name in the directories of path, or empty.
std::string programOnPath(std::string const& name, std::string const& path);

// Starts argv (argv[0] a path, or a name looked up on our PATH) with env as
// its whole environment, stdin on /dev/null and stdout and stderr on output
// (/dev/null when empty).
pid_t spawn(std::vector<std::string> const& argv, std::vector<std::string> const& env, std::string const& output = "");
// Runs argv to its end; its exit status.
int run(std::vector<std::string> const& argv, std::vector<std::string> const& env, std::string const& output = "");

// Waits until pid has had no child and used no CPU for quietSeconds, or
// until deadlineNs (monotonic). Since when it has been quiet, or -1 when the
// deadline came first.
std::int64_t awaitQuiet(pid_t pid, double quietSeconds, std::int64_t deadlineNs);

// `filerep run` as a child of ours, stopped at the end of scope.
class AgentProcess {
 public:
  AgentProcess(std::string const& program, std::string const& config, std::string socket, std::string logFile,
               std::vector<std::string> const& env);
  ~AgentProcess();
  AgentProcess(AgentProcess const&) = delete;
  AgentProcess& operator=(AgentProcess const&) = delete;

  pid_t pid() const { return pid_; }
  std::string const& socket() const { return socket_; }
  // False once it has exited.
  bool running();
  // SIGTERM, and SIGKILL when that does not end it soon; the exit status,
  // or -1 when it did not exit by itself.
  int stop();
  // What it wrote on stdout and stderr, its children's included; the end
  // of it, for error messages.
  std::string log() const;
  std::string logTail() const;

 private:
  pid_t pid_ = -1;
  int exitStatus_ = -1;
  std::string socket_;
  std::string logFile_;
};

}  // namespace SystemBench
