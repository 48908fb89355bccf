#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/system/Benches.h"
#include "bench/system/Processes.h"
#include "bench/system/Report.h"
#include "bench/system/TempTree.h"

// One edit at a time, from the write to its content at the destinations:
// what the latency benchmarks of the real agent share.
namespace SystemBench {

// Files in directories watched with inotify. A file is read again on every
// event of its directory: what matters is when it holds the new content,
// which a late run of an earlier edit cannot fake.
class ContentWatch {
 public:
  // Makes the files' directories.
  explicit ContentWatch(std::vector<std::string> paths);
  ~ContentWatch();
  ContentWatch(ContentWatch const&) = delete;
  ContentWatch& operator=(ContentWatch const&) = delete;

  // When the last of the files came to hold text, or -1 at deadlineNs, or
  // once giveUp, asked every 100 ms or so, says so.
  std::int64_t await(std::string const& text, std::int64_t deadlineNs, std::function<bool()> const& giveUp = {});

 private:
  std::vector<std::string> paths_;
  std::unordered_map<int, std::vector<std::size_t>> byWatch_;
  int fd_ = -1;
};

// Rewrites source with text once the agent's runs of the edit before have
// ended, or once quietLimitNs (guardNs when 0) has passed. The milliseconds
// from the writer's close() to text in every destination, or -1 when that
// takes longer than guardNs.
double timedEdit(AgentProcess& agent, std::string const& source, std::string const& text, ContentWatch& destinations,
                 std::int64_t guardNs, std::int64_t quietLimitNs = 0);

// An agent of one inotify requester of one file, tree/src/LABEL/file.dat,
// which holds "start\n" at first, and the copies of the file it makes.
struct EditedFile {
  // settings: the requester's lines other than mode and files; dstPath as
  // the agent is told, copies where they land.
  EditedFile(Options const& options, TempTree const& tree, std::string label, std::string const& settings,
             std::string const& dstPath, std::vector<std::string> copies, std::vector<std::string> const& env);
  // When the first run had put "start\n" in every copy, or -1 at deadlineNs.
  std::int64_t awaitFirstRun(std::int64_t deadlineNs) { return copies.await("start\n", deadlineNs); }
  // Whether the agent says the file's last run failed.
  bool failed();
  // Edit i, as timedEdit times it.
  double edit(int i, std::int64_t guardNs, std::int64_t quietLimitNs = 0);

  std::string label;
  std::string source;
  ContentWatch copies;
  AgentProcess agent;
  std::vector<double> ms;
};

// A copy command for text, timed from its start to text in every
// destination, and to its exit. Throws when it fails or is late.
struct CopyTimes {
  double arrivedMs = 0;
  double exitedMs = 0;
};
CopyTimes timedCommand(std::vector<std::string> const& argv, std::vector<std::string> const& env,
                       std::string const& text, ContentWatch& destinations, std::int64_t guardNs);
// The same with several commands started at once; exitedMs is the last exit.
CopyTimes timedCommands(std::vector<std::vector<std::string>> const& argvs, std::vector<std::string> const& env,
                        std::string const& text, ContentWatch& destinations, std::int64_t guardNs);

// The p50 of ours over the floor's, against target times the floor (for
// information when target is 0).
void p50Ratio(Report& report, std::string const& bench, std::string const& figure, std::vector<double> const& ours,
              std::vector<double> const& floor, double target = 0);
// The p50 and p99 of one side, indented under the ratio they make.
void spreadRows(Report& report, std::string const& bench, std::string const& side, std::vector<double> const& ms);

}  // namespace SystemBench
