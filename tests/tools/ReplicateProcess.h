#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// A run of the Replicate program built alongside these tests, with its
// stdout and stderr on pipes.
class ReplicateProcess {
 public:
  // environment holds NAME=VALUE entries that replace or add to ours.
  ReplicateProcess(const std::vector<std::string>& arguments, const std::string& directory,
                   const std::vector<std::string>& environment = {});
  ~ReplicateProcess();
  ReplicateProcess(const ReplicateProcess&) = delete;
  ReplicateProcess& operator=(const ReplicateProcess&) = delete;

  pid_t pid() const { return pid_; }
  // Blocks until stdout has something, which a copy with --progress prints
  // as soon as it starts. False when stdout ended first.
  bool awaitOutput();
  // Reads stdout and stderr until every process holding them has closed
  // them, that is until our child and everything it started are gone.
  // False when that takes longer than a generous guard.
  bool drain();
  // Reaps our child; returns its wait status.
  int wait();

  const std::string& out() const { return out_; }
  const std::string& err() const { return err_; }

 private:
  bool readSome(int timeoutMs);

  pid_t pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  std::string out_;
  std::string err_;
};

struct ReplicateResult {
  int exitCode;  // -1 when killed by a signal
  std::string out;
  std::string err;
};

// Runs Replicate to the end in directory.
ReplicateResult runReplicate(const std::vector<std::string>& arguments, const std::string& directory,
                             const std::vector<std::string>& environment = {});
