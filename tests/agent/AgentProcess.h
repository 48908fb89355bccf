#pragma once

#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace Agent {

// Output and exit status of a command run to its end.
struct CommandResult {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs argv (argv[0] found on PATH, or a path) with extra environment
// entries "NAME=value", and waits for it.
CommandResult runCommand(std::vector<std::string> const& argv, std::vector<std::string> const& env = {});

// Checks cond every 20 ms until it holds or seconds have passed: these tests
// drive real processes, whose progress no manual clock can step.
bool eventually(std::function<bool()> const& cond, double seconds = 30);

// A temporary directory, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  std::string const& path() const { return path_; }
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void writeFile(std::string const& path, std::string const& content);
// Writes beside and renames over, as editors do, so a reader never sees half.
void replaceFile(std::string const& path, std::string const& content);
std::string readFile(std::string const& path);

// The real agent, `filerep run`, as a child process with the built
// Replicate on PATH.
class AgentProcess {
 public:
  AgentProcess(std::string const& config, std::string socket, std::vector<std::string> const& env = {});
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
