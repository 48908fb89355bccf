#include "agent/Metrics.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <map>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

#include "FileReplication/ReplicationSm.h"
#include "agent/HostStates.h"

namespace Agent {

namespace {

using FileReplication::FileStatus;
using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

constexpr FileStatus::Status fileStatuses[] = {FileStatus::synchronized, FileStatus::failed, FileStatus::inProgress,
                                               FileStatus::unknown};

struct RequesterFigures {
  std::size_t files[std::size(fileStatuses)] = {};
  double lastSuccess = 0;
  std::uint64_t runsStarted = 0;
  std::uint64_t runsSucceeded = 0;
  std::uint64_t runsFailed = 0;
  std::uint64_t runsTimedOut = 0;
  std::uint64_t overflows = 0;
  // Files that failed syncErrorThreshold runs in a row.
  std::uint64_t alerting = 0;
};

std::string labelValue(std::string_view value) {
  std::string escaped;
  for (char c : value) {
    if (c == '\\') {
      escaped += "\\\\";
    } else if (c == '"') {
      escaped += "\\\"";
    } else if (c == '\n') {
      escaped += "\\n";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

// Shortest text that reads back as the same double: timestamps keep their
// fractions.
std::string number(double value) {
  char text[32];
  auto const end = std::to_chars(text, text + sizeof text, value).ptr;
  return std::string(text, end);
}

std::string number(std::uint64_t value) { return std::to_string(value); }

void family(std::string& out, std::string_view name, std::string_view type, std::string_view help) {
  out.append("# HELP ").append(name).append(" ").append(help).append("\n");
  out.append("# TYPE ").append(name).append(" ").append(type).append("\n");
}

void sample(std::string& out, std::string_view name, Labels labels, std::string const& value) {
  out.append(name);
  if (labels.size() > 0) {
    char separator = '{';
    for (auto const& [label, text] : labels) {
      out += separator;
      out.append(label).append("=\"").append(labelValue(text)).append("\"");
      separator = ',';
    }
    out += '}';
  }
  out.append(" ").append(value).append("\n");
}

std::map<std::string, RequesterFigures> requesterFigures(MetricsSource const& source) {
  std::map<std::string, RequesterFigures> figures;
  for (auto const& [name, rc] : source.config.requester()) {
    RequesterFigures& f = figures[name.str()];
    auto const rs = source.status.requester(name);
    for (auto const& [path, fc] : rc->file()) {
      auto const fs = rs ? rs->file(path) : nullptr;
      auto const status = fs ? fs->status() : FileStatus::unknown;
      ++f.files[std::find(std::begin(fileStatuses), std::end(fileStatuses), status) - std::begin(fileStatuses)];
      if (fs) f.lastSuccess = std::max(f.lastSuccess, fs->lastSynchronized());
      if (fs && fs->failuresInRow() >= FileReplication::alertThreshold(*rc)) ++f.alerting;
    }
    if (!rs) continue;
    f.runsStarted = rs->runsStarted();
    f.runsSucceeded = rs->runsSucceeded();
    f.runsFailed = rs->runsFailed();
    f.runsTimedOut = rs->runsTimedOut();
    f.overflows = rs->overflows();
  }
  return figures;
}

// One family, one sample per requester.
void perRequester(std::string& out, std::map<std::string, RequesterFigures> const& figures, std::string_view name,
                  std::string_view help, std::uint64_t RequesterFigures::*field) {
  family(out, name, "counter", help);
  for (auto const& [requester, f] : figures) sample(out, name, {{"requester", requester}}, number(f.*field));
}

}  // namespace

std::string metricsText(MetricsSource const& source) {
  std::string out;
  auto const figures = requesterFigures(source);

  family(out, "filerep_files", "gauge", "Configured files by their replication status.");
  for (auto const& [requester, f] : figures) {
    for (std::size_t i = 0; i < std::size(fileStatuses); ++i) {
      std::ostringstream status;
      status << fileStatuses[i];
      sample(out, "filerep_files", {{"requester", requester}, {"status", status.str()}},
             number(std::uint64_t(f.files[i])));
    }
  }
  family(out, "filerep_files_alerting", "gauge", "Files that failed syncErrorThreshold runs in a row.");
  for (auto const& [requester, f] : figures) {
    sample(out, "filerep_files_alerting", {{"requester", requester}}, number(f.alerting));
  }
  perRequester(out, figures, "filerep_runs_started_total", "Replication runs started, one per file.",
               &RequesterFigures::runsStarted);
  perRequester(out, figures, "filerep_runs_succeeded_total", "Replication runs that succeeded.",
               &RequesterFigures::runsSucceeded);
  perRequester(out, figures, "filerep_runs_failed_total", "Replication runs that failed.",
               &RequesterFigures::runsFailed);
  perRequester(out, figures, "filerep_runs_timed_out_total", "Replication runs killed by replicationTimeout.",
               &RequesterFigures::runsTimedOut);
  perRequester(out, figures, "filerep_inotify_overflows_total",
               "Times the kernel dropped inotify events, so that every file was replicated again.",
               &RequesterFigures::overflows);
  family(out, "filerep_last_success_timestamp_seconds", "gauge", "When a file of the requester last synchronised.");
  for (auto const& [requester, f] : figures) {
    if (f.lastSuccess > 0) {
      sample(out, "filerep_last_success_timestamp_seconds", {{"requester", requester}}, number(f.lastSuccess));
    }
  }

  std::set<std::string> hosts;
  for (auto const& [name, rc] : source.config.requester()) {
    for (auto const& [text, host] : rc->remoteHost()) hosts.insert(text.str());
  }
  auto const hostOf = [&](std::string const& text) {
    return source.hostStates ? source.hostStates->host(text) : HostStates::Host();
  };
  family(out, "filerep_host_up", "gauge", "Whether the remote host answered Replicate's last run (1) or not (0).");
  for (auto const& text : hosts) {
    auto const state = hostOf(text).state;
    if (state != HostStates::State::unknown) {
      sample(out, "filerep_host_up", {{"host", text}}, state == HostStates::State::up ? "1" : "0");
    }
  }
  family(out, "filerep_host_last_success_timestamp_seconds", "gauge", "When a run last reached the remote host.");
  for (auto const& text : hosts) {
    double const lastSuccess = hostOf(text).lastSuccess;
    if (lastSuccess > 0)
      sample(out, "filerep_host_last_success_timestamp_seconds", {{"host", text}}, number(lastSuccess));
  }

  family(out, "filerep_replicate_running", "gauge", "Replicate processes running.");
  sample(out, "filerep_replicate_running", {}, number(std::uint64_t(source.replicateRunning)));
  family(out, "filerep_replicate_waiting", "gauge",
         "Replicate processes waiting for a slot (maxConcurrentReplications).");
  sample(out, "filerep_replicate_waiting", {}, number(std::uint64_t(source.replicateWaiting)));
  family(out, "filerep_inotify_watches", "gauge", "Directories watched through inotify.");
  sample(out, "filerep_inotify_watches", {}, number(std::uint64_t(source.inotifyWatches)));
  family(out, "filerep_reloads_total", "counter", "Reloads of the configuration file.");
  sample(out, "filerep_reloads_total", {}, number(source.reloads));
  family(out, "filerep_reload_errors_total", "counter", "Reloads refused because the file was not valid.");
  sample(out, "filerep_reload_errors_total", {}, number(source.reloadErrors));
  return out;
}

}  // namespace Agent
