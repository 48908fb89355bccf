// One edited file to its new content at the destination, under an inotify
// requester of the real agent, against rsync of that one file started
// directly. Samples of the two alternate, so that noise hits both alike.
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "bench/system/Benches.h"
#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "bench/system/Replicas.h"

namespace SystemBench {

namespace {

// A file in a directory watched with inotify. The file is read on every
// event of the directory: what matters is when it holds the new content,
// which a late run of an earlier edit cannot fake.
class ContentWatch {
 public:
  explicit ContentWatch(std::string path) : path_(std::move(path)) {
    std::string const directory = std::filesystem::path(path_).parent_path();
    std::filesystem::create_directories(directory);
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0 || inotify_add_watch(fd_, directory.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
      int const error = errno;
      if (fd_ >= 0) close(fd_);
      throw std::runtime_error("inotify on " + directory + ": " + std::strerror(error));
    }
  }
  ~ContentWatch() { close(fd_); }
  ContentWatch(ContentWatch const&) = delete;
  ContentWatch& operator=(ContentWatch const&) = delete;

  // When the file held text, or -1 at deadlineNs.
  std::int64_t await(std::string const& text, std::int64_t deadlineNs) {
    alignas(inotify_event) char buffer[4096];
    for (;;) {
      if (readText(path_) == text) return monotonicNs();
      std::int64_t const left = deadlineNs - monotonicNs();
      if (left <= 0) return -1;
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, int(left / 1000000 + 1)) > 0) {
        while (read(fd_, buffer, sizeof buffer) > 0) {
        }
      }
    }
  }

 private:
  std::string path_;
  int fd_ = -1;
};

constexpr std::int64_t sampleGuardNs = 10'000'000'000;

}  // namespace

void latencyBench(Options const& options, Report& report) {
  int const warmUp = 3;
  int const samples = options.samples > 0 ? options.samples : options.quick ? 10 : 100;
  TempTree tree("latency");
  auto const env = realEnvironment(options);
  // Apart from the agent's, so that the floor's edits do not wake it.
  std::string const source = tree / "src/agent/file.dat";
  std::string const floorSource = tree / "src/floor/file.dat";
  std::filesystem::create_directories(tree / "src/agent");
  std::filesystem::create_directories(tree / "src/floor");
  writeFile(source, "start\n");
  ContentWatch destination(tree / "dst/agent/file.dat");
  ContentWatch floorDestination(tree / "dst/floor/file.dat");

  writeFile(tree / "filerep.yaml", agentConfig("    mode: inotify\n", {source}, {tree / "dst/agent/file.dat"}));
  AgentProcess agent(options.filerepProgram, tree / "filerep.yaml", tree / "filerep.sock", tree / "agent.log", env);
  if (destination.await("start\n", monotonicNs() + sampleGuardNs) < 0) {
    throw std::runtime_error("the first run did not copy the file:\n" + agent.logTail());
  }

  std::vector<double> ours, floor, floorExit;
  auto agentSample = [&](int i) {
    // Each edit after the runs of the one before have ended.
    awaitQuiet(agent.pid(), 0.02, monotonicNs() + sampleGuardNs);
    std::string const text = "agent " + std::to_string(i) + "\n";
    int const fd = open(source.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0 || write(fd, text.data(), text.size()) != ssize_t(text.size())) {
      throw std::runtime_error("cannot write " + source);
    }
    std::int64_t const t0 = monotonicNs();
    close(fd);
    std::int64_t const t1 = destination.await(text, t0 + sampleGuardNs);
    if (t1 < 0) throw std::runtime_error("an edit did not reach the destination:\n" + agent.logTail());
    if (i >= warmUp) ours.push_back(double(t1 - t0) / 1e6);
  };
  auto floorSample = [&](int i) {
    std::string const text = "floor " + std::to_string(i) + "\n";
    writeFile(floorSource, text);
    std::int64_t const t0 = monotonicNs();
    // --ignore-times as Replicate runs it: two edits within a second at the
    // same size would look unchanged to rsync's quick check.
    pid_t const pid = spawn({"rsync", "-a", "--ignore-times", floorSource, tree / "dst/floor/file.dat"}, env);
    std::int64_t const t1 = floorDestination.await(text, t0 + sampleGuardNs);
    int const status = reap(pid);
    std::int64_t const t2 = monotonicNs();
    if (t1 < 0 || status != 0) throw std::runtime_error("rsync of one file failed: " + std::to_string(status));
    if (i >= warmUp) {
      floor.push_back(double(t1 - t0) / 1e6);
      floorExit.push_back(double(t2 - t0) / 1e6);
    }
  };
  for (int i = 0; i < warmUp + samples; ++i) {
    if (i % 2 == 0) {
      agentSample(i);
      floorSample(i);
    } else {
      floorSample(i);
      agentSample(i);
    }
  }
  agent.stop();

  std::string const b = "latency";
  double const ratio = percentile(ours, 50) / percentile(floor, 50);
  report.figureIs(b, "edit to new content at the destination, p50: agent / floor", ratio, "x", Report::target,
                  "<= 1.05 x floor", ratio <= 1.05);
  report.figureIs(b, "  agent p50", percentile(ours, 50), "ms");
  report.figureIs(b, "  agent p99", percentile(ours, 99), "ms");
  report.figureIs(b, "  floor (rsync started directly) p50", percentile(floor, 50), "ms");
  report.figureIs(b, "  floor p99", percentile(floor, 99), "ms");
  report.figureIs(b, "  floor: start to exit p50", percentile(floorExit, 50), "ms");
  report.figureIs(b, "p99: agent / floor", percentile(ours, 99) / percentile(floor, 99), "x");
  report.noteIs(b, std::to_string(samples) + " edits each, alternating, after " + std::to_string(warmUp) +
                       " of warm-up; the agent's from the writer's close(), the floor's from its posix_spawn, both to "
                       "the content seen at the destination through inotify");
}

}  // namespace SystemBench
