#include "bench/system/Edits.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "agent/ControlClient.h"
#include "bench/system/Measure.h"
#include "bench/system/Replicas.h"
#include "tests/support/TestProcess.h"

namespace SystemBench {

namespace {

std::string startedSource(TempTree const& tree, std::string const& label) {
  std::string const source = tree / ("src/" + label + "/file.dat");
  std::filesystem::create_directories(tree / ("src/" + label));
  writeFile(source, "start\n");
  return source;
}

std::string configFile(TempTree const& tree, std::string const& label, std::string const& text) {
  std::string const file = tree / (label + ".yaml");
  writeFile(file, text);
  return file;
}

}  // namespace

ContentWatch::ContentWatch(std::vector<std::string> paths) : paths_(std::move(paths)) {
  fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd_ < 0) throw std::runtime_error(std::string("inotify_init1: ") + std::strerror(errno));
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    std::string const directory = std::filesystem::path(paths_[i]).parent_path();
    std::filesystem::create_directories(directory);
    int const wd = inotify_add_watch(fd_, directory.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE);
    if (wd < 0) {
      int const error = errno;
      close(fd_);
      throw std::runtime_error("inotify on " + directory + ": " + std::strerror(error));
    }
    byWatch_[wd].push_back(i);
  }
}

ContentWatch::~ContentWatch() { close(fd_); }

std::int64_t ContentWatch::await(std::string const& text, std::int64_t deadlineNs,
                                 std::function<bool()> const& giveUp) {
  std::vector<bool> held(paths_.size(), false);
  std::size_t left = paths_.size();
  std::int64_t last = -1;
  auto look = [&](std::size_t i) {
    if (held[i] || readText(paths_[i]) != text) return;
    held[i] = true;
    --left;
    last = monotonicNs();
  };
  for (std::size_t i = 0; i < paths_.size(); ++i) look(i);
  alignas(inotify_event) char buffer[4096];
  while (left > 0) {
    std::int64_t const wait = deadlineNs - monotonicNs();
    if (wait <= 0) return -1;
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, int(giveUp ? std::min<std::int64_t>(wait / 1000000 + 1, 100) : wait / 1000000 + 1)) <= 0) {
      if (giveUp && giveUp()) return -1;
      continue;
    }
    // Only the files of the directories that changed are read again: with
    // many hosts, reading them all on every event would cost this process
    // more than the copies it times.
    for (ssize_t n; (n = read(fd_, buffer, sizeof buffer)) > 0;) {
      for (ssize_t offset = 0; offset < n;) {
        auto const* event = reinterpret_cast<inotify_event const*>(buffer + offset);
        offset += ssize_t(sizeof(inotify_event) + event->len);
        if (event->mask & IN_Q_OVERFLOW) {
          for (std::size_t i = 0; i < paths_.size(); ++i) look(i);
        } else if (auto const it = byWatch_.find(event->wd); it != byWatch_.end()) {
          for (std::size_t const i : it->second) look(i);
        }
      }
    }
  }
  return last;
}

double timedEdit(AgentProcess& agent, std::string const& source, std::string const& text, ContentWatch& destinations,
                 std::int64_t guardNs, std::int64_t quietLimitNs) {
  awaitQuiet(agent.pid(), 0.02, monotonicNs() + (quietLimitNs > 0 ? quietLimitNs : guardNs));
  int const fd = open(source.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (fd < 0 || write(fd, text.data(), text.size()) != ssize_t(text.size())) {
    throw std::runtime_error("cannot write " + source);
  }
  std::int64_t const t0 = monotonicNs();
  close(fd);
  std::int64_t const t1 = destinations.await(text, t0 + guardNs);
  return t1 < 0 ? -1 : double(t1 - t0) / 1e6;
}

EditedFile::EditedFile(Options const& options, TempTree const& tree, std::string label_, std::string const& settings,
                       std::string const& dstPath, std::vector<std::string> copies_,
                       std::vector<std::string> const& env)
    : label(std::move(label_)),
      source(startedSource(tree, label)),
      copies(std::move(copies_)),
      agent(options.filerepProgram,
            configFile(tree, label, agentConfig("    mode: inotify\n" + settings, {source}, {dstPath})),
            tree / (label + ".sock"), tree / (label + ".log"), env) {}

bool EditedFile::failed() {
  try {
    return statusCounts(Agent::request(agent.socket(), {{"command", "status"}})).failed > 0;
  } catch (std::exception const&) {
    return !agent.running();
  }
}

double EditedFile::edit(int i, std::int64_t guardNs, std::int64_t quietLimitNs) {
  return timedEdit(agent, source, label + " " + std::to_string(i) + "\n", copies, guardNs, quietLimitNs);
}

CopyTimes timedCommand(std::vector<std::string> const& argv, std::vector<std::string> const& env,
                       std::string const& text, ContentWatch& destinations, std::int64_t guardNs) {
  return timedCommands({argv}, env, text, destinations, guardNs);
}

CopyTimes timedCommands(std::vector<std::vector<std::string>> const& argvs, std::vector<std::string> const& env,
                        std::string const& text, ContentWatch& destinations, std::int64_t guardNs) {
  std::int64_t const t0 = monotonicNs();
  std::vector<pid_t> pids;
  for (auto const& argv : argvs) pids.push_back(spawn(argv, env));
  std::int64_t const t1 = destinations.await(text, t0 + guardNs);
  int status = 0;
  for (pid_t pid : pids) {
    int const own = exitCode(pid);
    if (status == 0) status = own;
  }
  std::int64_t const t2 = monotonicNs();
  if (t1 < 0 || status != 0) {
    throw std::runtime_error(argvs[0][0] + " of one file failed: exit status " + std::to_string(status) +
                             (t1 < 0 ? ", nothing arrived" : ""));
  }
  return {double(t1 - t0) / 1e6, double(t2 - t0) / 1e6};
}

void p50Ratio(Report& report, std::string const& bench, std::string const& figure, std::vector<double> const& ours,
              std::vector<double> const& floor, double target) {
  double const ratio = percentile(ours, 50) / percentile(floor, 50);
  if (target <= 0) {
    report.figureIs(bench, figure, ratio, "x");
    return;
  }
  std::ostringstream goal;
  goal << "<= " << target << " x floor";
  report.figureIs(bench, figure, ratio, "x", Report::target, goal.str(), ratio <= target);
}

void spreadRows(Report& report, std::string const& bench, std::string const& side, std::vector<double> const& ms) {
  report.figureIs(bench, "  " + side + " p50", percentile(ms, 50), "ms");
  report.figureIs(bench, "  " + side + " p99", percentile(ms, 99), "ms");
}

}  // namespace SystemBench
