#pragma once

#include <functional>
#include <map>
#include <string>

#include "FileReplication/DirWatch.h"
#include "FileReplication/Log.h"
#include "entities/Config.h"
#include "runtime/ChildSiginfo.h"
#include "runtime/Clock.h"
#include "runtime/Name.h"
#include "runtime/NestedReactor.h"
#include "runtime/Ptr.h"

namespace Agent {

// What Replicate last found out about each remote host of the configuration:
// it keeps one state file per host in its control directory, which this
// follows through inotify. Replicate's runs skip a host that is down, so
// this probes it when its back-off says, and once it is up again has every
// enabled requester that has it replicate all of its files: the host missed
// whatever changed meanwhile.
class HostStates : private FileReplication::DirWatch::Listener {
 public:
  enum class State { unknown, up, down };
  struct Host {
    State state = State::unknown;
    // Unix seconds; 0 when not known.
    double since = 0;
    double lastSuccess = 0;
    double nextTry = 0;
    // What to do about the last failure with this host; empty if none.
    std::string error;
  };
  struct Hooks {
    // A line for the operator.
    std::function<void(FileReplication::LogPriority, std::string const&)> say;
    // Replicates every file of the requester once.
    std::function<void(Kel::Name)> replicateAll;
    // A host's state file was read again, changed or not; may be empty.
    std::function<void()> stateRead = nullptr;
  };

  // A probe that hangs longer than this is killed, so that the host gets
  // the next one.
  static constexpr double probeTimeLimit = 120;
  // A probe that leaves the host's next try as it was (a Replicate that
  // cannot write the file) is followed by the next one this much later.
  static constexpr double probeRetryDelay = 60;

  // Follows Replicate's control directory, made as Replicate makes it when
  // missing. Throws std::runtime_error when it is not safe to use.
  HostStates(Kel::Ptr<FileReplication::Config const> config, Hooks hooks);
  virtual ~HostStates();
  HostStates(HostStates const&) = delete;
  HostStates& operator=(HostStates const&) = delete;

  std::string const& directory() const { return directory_; }
  // Unknown for a host that has no state file or is not in the configuration.
  Host const& host(std::string const& text) const;
  // To be called after each change of the configuration: follows the hosts
  // it has now, and probes only those of enabled requesters.
  void configChanged();

 private:
  class ProbeClock;
  class ProbeEnd;
  struct Entry {
    std::string fileName;
    Host host;
    // At the next probe while none runs; at the time limit while one does.
    Kel::Nested<ProbeClock> clock;
    Kel::Ptr<Kel::ChildSiginfo const> probe;
    Kel::Nested<ProbeEnd> probeEnd;
    // The nextTry that the last probe was started for, and when it ended.
    double probedFor = -1;
    double probeEndedAt = 0;
  };

  void onDirEntry(FileReplication::InotifyEvent const& event) override;
  void onDirAnew() override;
  void onDirOverflow() override { onDirAnew(); }

  void refresh(std::string const& host);
  void changed(std::string const& host, Host const& before, Host const& after);
  void schedule(std::string const& host);
  void handleProbeClock(std::string const& host);
  void handleProbeEnd(std::string const& host);
  void release(Entry& entry);
  // Whether an enabled requester has the host.
  bool wanted(std::string const& host) const;

  Kel::Ptr<FileReplication::Config const> config_;
  Hooks hooks_;
  std::string directory_;
  Kel::Ptr<FileReplication::DirWatch> watch_;
  // By host text, as the configuration and Replicate's command line give it.
  std::map<std::string, Entry> hosts_;
  std::map<std::string, std::string> hostOfFile_;
};

}  // namespace Agent
