// One file saved over and over by renaming it away and putting a new one in
// its place, under an inotify requester of the real agent with the real
// Replicate: whether a reader of the destination ever finds it missing, or
// holding something other than one whole version, while the source's name
// is briefly gone.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <thread>

#include "bench/system/Benches.h"
#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "bench/system/Replicas.h"

namespace SystemBench {

namespace {

constexpr std::size_t versionSize = 4096;

// A torn or mixed copy cannot pass for a version: the header, the filler
// and the trailer all carry the number.
std::string versionText(int n) {
  char head[32], tail[32];
  int const headLength = std::snprintf(head, sizeof head, "version %d\n", n);
  int const tailLength = std::snprintf(tail, sizeof tail, "end of version %d\n", n);
  std::string text(head, std::size_t(headLength));
  text.append(versionSize - text.size() - std::size_t(tailLength), char('a' + n % 26));
  return text.append(tail, std::size_t(tailLength));
}

bool isVersion(std::string const& text) {
  int n = -1;
  return std::sscanf(text.c_str(), "version %d\n", &n) == 1 && n >= 0 && text == versionText(n);
}

// Writes the whole of text to path, created when flags say so.
void writeAll(std::string const& path, std::string const& text, int flags) {
  int const fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, 0644);
  if (fd < 0 || write(fd, text.data(), text.size()) != ssize_t(text.size()) || close(fd) != 0) {
    throw std::runtime_error("cannot write " + path);
  }
}

void renameTo(std::string const& from, std::string const& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0) throw std::runtime_error("cannot rename " + from + " to " + to);
}

enum class Sample { right, missing, wrong };

Sample sample(std::string const& path) {
  int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? Sample::missing : Sample::wrong;
  // One byte more than a version, so that a longer file shows.
  char buffer[versionSize + 1];
  std::size_t got = 0;
  ssize_t n = 0;
  while (got < sizeof buffer && (n = read(fd, buffer + got, sizeof buffer - got)) > 0) got += std::size_t(n);
  close(fd);
  return isVersion(std::string(buffer, got)) ? Sample::right : Sample::wrong;
}

}  // namespace

void renameSaveBench(Options const& options, Report& report) {
  int const saves = options.saves > 0 ? options.saves : options.quick ? 20 : 1000;
  auto const limitNs = std::int64_t(convergenceLimit(options) * 1e9);
  TempTree tree("renamesave");
  std::filesystem::create_directories(tree / "src");
  std::filesystem::create_directories(tree / "dst");
  std::string const source = tree / "src/f";
  std::string const destination = tree / "dst/f";
  std::string const prepared = tree / "prepared";
  writeAll(source, versionText(0), O_CREAT | O_TRUNC);

  // Only when asked for: an agent that does not know the key refuses it.
  char delay[32] = "";
  if (options.deleteDelay >= 0) std::snprintf(delay, sizeof delay, "%g", options.deleteDelay);
  std::string settings = "    mode: inotify\n";
  if (*delay) settings += "    deleteDelay: " + std::string(delay) + "\n";
  writeFile(tree / "filerep.yaml", agentConfig(settings, {source}, {destination}));
  AgentProcess agent(options.filerepProgram, tree / "filerep.yaml", tree / "filerep.sock", tree / "agent.log",
                     realEnvironment(options));
  auto await = [&](std::string const& text) {
    std::int64_t const deadline = monotonicNs() + limitNs;
    while (readText(destination) != text) {
      if (monotonicNs() > deadline || !agent.running()) return std::int64_t(-1);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return monotonicNs();
  };
  if (await(versionText(0)) < 0) throw std::runtime_error("the first run did not copy the file:\n" + agent.logTail());

  // Samples are put down to the save under way when they were taken: a
  // destination deleted for one save may stay missing through the next.
  std::atomic<int> current{0};
  std::vector<char> missingIn(std::size_t(saves) + 1), wrongIn(std::size_t(saves) + 1);
  std::size_t samples = 0, missing = 0, wrong = 0;
  std::jthread sampler([&](std::stop_token stop) {
    auto next = std::chrono::steady_clock::now();
    while (!stop.stop_requested()) {
      int const save = current.load();
      Sample const s = sample(destination);
      ++samples;
      if (s == Sample::missing) ++missing, missingIn[std::size_t(save)] = 1;
      if (s == Sample::wrong) ++wrong, wrongIn[std::size_t(save)] = 1;
      next += std::chrono::milliseconds(1);
      auto const now = std::chrono::steady_clock::now();
      if (next < now) next = now;
      std::this_thread::sleep_until(next);
    }
  });

  // Fixed, so that runs compare save for save.
  std::mt19937 random(1);
  std::uniform_int_distribution<int> gapUs(2000, 60000), pauseUs(5000, 30000);
  auto away = [&](std::string const& name) {
    renameTo(source, name);
    std::this_thread::sleep_for(std::chrono::microseconds(gapUs(random)));
  };
  std::int64_t lastSave = 0;
  for (int n = 1; n <= saves; ++n) {
    std::string const text = versionText(n);
    if (n % 3 == 2) writeAll(prepared, text, O_CREAT | O_TRUNC);
    current = n;
    switch (n % 3) {
      case 1:  // an editor keeping a backup
        away(source + "~");
        writeAll(source, text, O_CREAT | O_TRUNC);
        break;
      case 2:  // mv f f.bak; cp new f, through a temporary name
        away(source + ".bak");
        std::filesystem::copy_file(prepared, source + ".tmp", std::filesystem::copy_options::overwrite_existing);
        renameTo(source + ".tmp", source);
        break;
      default:  // a log rotated with a fresh file created in its place
        away(source + ".1");
        writeAll(source, text, O_CREAT | O_EXCL);
        break;
    }
    lastSave = monotonicNs();
    if (n < saves) std::this_thread::sleep_for(std::chrono::microseconds(pauseUs(random)));
  }
  std::int64_t const right = await(versionText(saves));
  sampler.request_stop();
  sampler.join();
  agent.stop();

  int missingSaves = 0, badSaves = 0;
  for (int n = 1; n <= saves; ++n) {
    missingSaves += missingIn[std::size_t(n)];
    badSaves += missingIn[std::size_t(n)] || wrongIn[std::size_t(n)];
  }
  std::string const b = "renamesave";
  report.figureIs(b, "saves leaving the destination missing or wrong", badSaves, "", Report::target,
                  "0 of " + std::to_string(saves), badSaves == 0);
  report.figureIs(b, "  saves", saves, "");
  report.figureIs(b, "  samples of the destination", double(samples), "");
  report.figureIs(b, "  missing samples", double(missing), "");
  // A partial or mixed copy is never acceptable, however slow the machine.
  report.figureIs(b, "  wrong samples", double(wrong), "", Report::check, "0", wrong == 0);
  report.figureIs(b, "  saves during which it was missing", missingSaves, "");
  double const toRightMs = right < 0 ? double(limitNs) / 1e6 : double(right - lastSave) / 1e6;
  report.figureIs(b, std::string("last save to the right content") + (right < 0 ? " (gave up: more)" : ""), toRightMs,
                  "ms");
  report.figureIs(b, "destination not the last version at the end", right < 0, "", Report::check, "0", right >= 0);
  report.noteIs(b, std::to_string(saves) +
                       " saves of one 4 KiB file, by turns: rename to f~ then write f; rename to f.bak then copy to "
                       "f.tmp and rename that to f; rename to f.1 then create f; the name missing 2-60 ms, 5-30 ms "
                       "between saves; an inotify requester, local destination, " +
                       (*delay ? "deleteDelay " + std::string(delay) + " s" : std::string("default settings")) +
                       "; the destination opened and read every 1 ms");
}

}  // namespace SystemBench
