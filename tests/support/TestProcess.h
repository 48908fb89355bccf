#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

// Starts argv (argv[0] found on PATH, or a path) in directory ("" keeps
// ours) with stdin on /dev/null and stdout, stderr on the given descriptors
// (/dev/null for a negative one).
// environment holds NAME=VALUE entries that replace or add to ours; of two
// entries for one name the first wins.
pid_t spawnProcess(std::vector<std::string> const& argv, std::vector<std::string> const& environment,
                   std::string const& directory, int out, int err);
// The descriptors open, by number, with what each refers to.
std::map<int, std::string> openDescriptorTargets();
// The children pid has right now, started and not yet reaped.
std::vector<pid_t> childrenOf(pid_t pid);
// Reaps pid; its exit status, or -1 when a signal ended it or it cannot be
// reaped.
int exitCode(pid_t pid);

// A child with its stdout and stderr on pipes, killed and reaped at the
// latest when this goes.
class TestProcess {
 public:
  explicit TestProcess(std::vector<std::string> const& argv, std::vector<std::string> const& environment = {},
                       std::string const& directory = "");
  ~TestProcess();
  TestProcess(TestProcess const&) = delete;
  TestProcess& operator=(TestProcess const&) = delete;

  pid_t pid() const { return pid_; }
  // Blocks until stdout has something. False when stdout ended first.
  bool awaitOutput();
  // Reads stdout and stderr until every process holding them has closed
  // them, that is until our child and everything it started are gone.
  // False when that takes longer than a generous guard.
  bool drain();
  // Reaps our child; returns its wait status.
  int wait();

  std::string const& out() const { return out_; }
  std::string const& err() const { return err_; }

 private:
  bool readSome(int timeoutMs);

  pid_t pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  std::string out_;
  std::string err_;
};

struct ProcessResult {
  int status;  // -1 when killed by a signal
  std::string out;
  std::string err;
};

// Runs argv to its end.
ProcessResult runProcess(std::vector<std::string> const& argv, std::vector<std::string> const& environment = {},
                         std::string const& directory = "");
