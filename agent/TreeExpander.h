#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "agent/AgentConfig.h"
#include "agent/TreeRequester.h"

namespace Agent {

// Expands the trees and patterns of every requester into the files they
// hold, and keeps each requester in line with its trees between reloads.
// What it holds is applied as part of the configuration, so the applier
// keeps those files and drops only what no entry wants any more.
class TreeExpander {
 public:
  struct Hooks {
    std::function<void(FileReplication::LogPriority, std::string const&)> say;
    // When the named requester's machine next runs its period.
    std::function<double(std::string const&)> nextRun;
    // Asks the machine of the requester's file for a run now.
    std::function<void(std::string const&, std::string const&)> replicate;
  };

  TreeExpander(Kel::Ptr<FileReplication::Config> config, Kel::Ptr<FileReplication::Status> status, Hooks hooks);

  // wanted with each tree and pattern replaced by its files, read now.
  AgentConfig expanded(AgentConfig const& wanted);
  // Once the expanded configuration is applied: follow the trees from here.
  void applied();
  // The requester's entries with their counts; null when it has none.
  nlohmann::json status(std::string const& requester) const;
  // The path of the tree or pattern that holds the file; null when none does.
  std::string const* entryOf(std::string const& requester, std::string const& path) const;

 private:
  Kel::Ptr<FileReplication::Config> config_;
  Kel::Ptr<FileReplication::Status> status_;
  Hooks hooks_;
  std::map<std::string, std::unique_ptr<TreeRequester>, std::less<>> requesters_;
};

}  // namespace Agent
