#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "runtime/ChildArgs.h"
#include "runtime/Entity.h"

namespace Kel {

class ChildManager;
struct ChildSetup;

// One child process started by Kel::run. Its reactors get onPid() once, when
// the child starts (it may first wait for a slot), and onSignalCode() once,
// when it has ended and signalCode() and exitStatus() are set.
//
// Children merged by the manager's batcher share one process: each reports
// that process's pid and ends with its own outcome.
class ChildSiginfo : public Entity {
 public:
  // How the child ended. notEnded while it runs or waits for a slot.
  enum SignalCode : int { notEnded = 0, killed = 1, dumped = 2, exited = 3 };

  class NotifieeConst : public NotifieeBase<ChildSiginfo> {
   public:
    virtual void onPid() {}
    virtual void onSignalCode() {}
  };
  using Notifiee = NotifieeConst;

  // 0 until the child has started (it may wait for a slot under the limit on
  // running children).
  pid_t pid() const { return pid_; }
  SignalCode signalCode() const { return signalCode_; }
  // The exit status for exited, the signal number for killed and dumped.
  int exitStatus() const { return exitStatus_; }
  ChildArgs const& argv() const { return argv_; }
  // What the child wrote on stderr, when its setup captured it (at most the
  // last maxErrorOutput bytes); set when it ends. A child merged with others
  // gets the lines of their process that concern it.
  std::string const& errorOutput() const { return errorOutput_; }
  static constexpr std::size_t maxErrorOutput = 64 * 1024;

  // Sends signal to the child. A child that has not started yet is never
  // started and is reported ended as killed by that signal; one that has
  // ended is left alone. Never signals a pid of 0 or less. A signal number
  // outside 1 to NSIG - 1 is a range exception.
  void kill(int signal) const;

  // From the children's arena: thousands wait together after a burst, and
  // the heap would keep the holes they leave.
  static void* operator new(std::size_t bytes);
  static void operator delete(void* p) noexcept;

 protected:
  friend class ChildManager;
  explicit ChildSiginfo(ChildArgs argv) : argv_(std::move(argv)) {}
  ~ChildSiginfo() override;

 private:
  // Where the child is in the manager's hands. ending: its end is decided
  // (it could not start, or was killed while waiting) and reported on a
  // later turn; done: reported, or dropped by the manager.
  enum class Phase : std::uint8_t { waiting, running, ending, done };

  void pidIs(pid_t pid);
  void endedIs(SignalCode code, int exitStatus);

  ChildArgs argv_;
  pid_t pid_ = 0;
  SignalCode signalCode_ = notEnded;
  int exitStatus_ = 0;
  Phase phase_ = Phase::waiting;
  // The index of the child in the manager's wait queue while waiting.
  std::uint32_t waitIndex_ = 0;
  // Raw: cleared by the manager when it lets the child go.
  ChildManager* manager_ = nullptr;
  // How many children may share its process; its key is the manager's.
  std::uint32_t batchLimit_ = 1;
  bool capturesStderr_ = false;
  // Owned; the child's stderr while it runs, when captured.
  int errorOutputFd_ = -1;
  std::string errorOutput_;
  // The process doing this child's work together with others; raw, the
  // manager holds both and clears it when they part.
  ChildSiginfo* carrier_ = nullptr;
};

std::ostream& operator<<(std::ostream& o, ChildSiginfo::SignalCode code);

// Starts argv (null-terminated; argv[0] is looked up on PATH). The four
// descriptors are the child's stdin, stdout and stderr (-1: inherit) and its
// process group (-1: stay in ours, 0: a new group of its own). Never returns
// null and never throws because the program cannot start: that child is
// reported on a later turn as exited with status 127.
Ptr<ChildSiginfo> run(char const* const* argv, int stdinFd, int stdoutFd, int stderrFd, int processGroup);
// The same with the whole setup, which may also allow merging.
Ptr<ChildSiginfo> run(char const* const* argv, ChildSetup const& setup);

}  // namespace Kel
