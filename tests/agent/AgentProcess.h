#pragma once

#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/TestFiles.h"
#include "tests/support/TestProcess.h"

namespace Agent {

// Runs argv to its end with the built Replicate first on PATH.
ProcessResult runCommand(std::vector<std::string> const& argv, std::vector<std::string> const& env = {});

// Checks cond every 20 ms until it holds or seconds have passed: these tests
// drive real processes, whose progress no manual clock can step.
bool eventually(std::function<bool()> const& cond, double seconds = 30);

// The real agent, `filerep run`, as a child process with the built
// Replicate on PATH; launcher, when given, is a command that execs it.
class AgentProcess {
 public:
  AgentProcess(std::string const& config, std::string socket, std::vector<std::string> const& env = {},
               std::vector<std::string> launcher = {});
  ~AgentProcess();
  AgentProcess(AgentProcess const&) = delete;
  AgentProcess& operator=(AgentProcess const&) = delete;

  pid_t pid() const { return pid_; }
  std::string const& socket() const { return socket_; }
  // Waits until the agent answers on its socket; false if it died first.
  bool ready();
  // The status reply, or null when the agent does not answer.
  nlohmann::json status();
  // Waits for the agent to exit by itself; its exit status, or -2 when it
  // still runs after seconds.
  int exited(double seconds = 10);
  // Sends signal and returns the exit status (-1 when killed by a signal).
  int stop(int signal = SIGTERM);
  // What the agent wrote on stderr so far.
  std::string log() const;

 private:
  pid_t pid_ = -1;
  std::string socket_;
  std::string logPath_;
};

// The status of one file from a status reply, or null.
nlohmann::json fileStatus(nlohmann::json const& status, std::string const& requester, std::string const& path);

}  // namespace Agent
