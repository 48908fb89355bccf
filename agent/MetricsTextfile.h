#pragma once

#include <functional>
#include <map>
#include <string>

#include "entities/Status.h"
#include "runtime/Clock.h"
#include "runtime/NestedReactor.h"
#include "runtime/Ptr.h"

namespace Agent {

// Keeps the agent's metrics in a file for a node exporter's textfile
// collector. Each write goes to a temporary file beside it that is then
// renamed over it, so the collector never reads half of one.
//
// Written when something changed, at most once per writeInterval: an idle
// agent does not wake for it. Runs starting and ending, files and requesters
// coming and going are seen through the status tree; the owner calls
// changed() for what happens elsewhere.
class MetricsTextfile {
 public:
  static constexpr double writeInterval = 15;

  using Render = std::function<std::string()>;
  using Say = std::function<void(std::string const&)>;

  // Writes on the next turn of the loop. render gives the text; say tells
  // the operator why a write failed, once per distinct reason.
  MetricsTextfile(std::string path, Kel::Ptr<FileReplication::Status const> status, Render render, Say say);
  ~MetricsTextfile();
  MetricsTextfile(MetricsTextfile const&) = delete;
  MetricsTextfile& operator=(MetricsTextfile const&) = delete;

  std::string const& path() const { return path_; }

  void changed();
  // Now, unless the file already says the same; for shutdown.
  void write();

 private:
  class WriteTimer;
  class StatusWatch;
  class RequesterWatch;

  void requesterWatchesRefresh();

  std::string path_;
  Kel::Ptr<FileReplication::Status const> status_;
  Render render_;
  Say say_;
  Kel::Nested<WriteTimer> timer_;
  Kel::Nested<StatusWatch> statusWatch_;
  std::map<std::string, Kel::Nested<RequesterWatch>> requesterWatches_;
  double lastWrite_ = -Kel::Clock::never;
  std::string written_;
  std::string lastError_;
};

}  // namespace Agent
