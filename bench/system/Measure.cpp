#include "bench/system/Measure.h"

#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <thread>

namespace SystemBench {

namespace {

std::int64_t nanoseconds(clockid_t id) {
  timespec ts;
  clock_gettime(id, &ts);
  return std::int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

}  // namespace

std::int64_t monotonicNs() { return nanoseconds(CLOCK_MONOTONIC); }

std::int64_t threadCpuNs() { return nanoseconds(CLOCK_THREAD_CPUTIME_ID); }

std::int64_t threadSystemNs() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return std::int64_t(usage.ru_stime.tv_sec) * 1000000000 + std::int64_t(usage.ru_stime.tv_usec) * 1000;
}

std::string readText(std::string const& path) {
  std::string text;
  int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return text;
  char buffer[4096];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, std::size_t(n));
  close(fd);
  return text;
}

std::int64_t processCpuNs(pid_t pid) {
  std::int64_t total = 0;
  std::error_code ignored;
  for (auto const& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ignored)) {
    // The first field is the time spent on a CPU, in nanoseconds.
    total += std::atoll(readText(task.path() / "schedstat").c_str());
  }
  return total;
}

std::int64_t processCpuTicksNs(pid_t pid) { return processTimes(pid).ownNs; }

ProcessTimes processTimes(pid_t pid) {
  std::string const line = readText("/proc/" + std::to_string(pid) + "/stat");
  auto const end = line.rfind(')');
  if (end == std::string::npos) return {};
  // The command name may hold spaces; the fields after it do not. utime,
  // stime, cutime and cstime are fields 14 to 17, the state (field 3) comes
  // first.
  std::istringstream fields(line.substr(end + 2));
  std::string field;
  std::int64_t ticks[4] = {};
  for (int i = 3; i <= 17 && fields >> field; ++i) {
    if (i >= 14) ticks[i - 14] = std::stoll(field);
  }
  std::int64_t const tickNs = 1000000000 / sysconf(_SC_CLK_TCK);
  return {(ticks[0] + ticks[1]) * tickNs, (ticks[2] + ticks[3]) * tickNs};
}

std::size_t processResidentBytes(pid_t pid) {
  std::istringstream fields(readText("/proc/" + std::to_string(pid) + "/statm"));
  std::size_t size = 0, resident = 0;
  fields >> size >> resident;
  return resident * std::size_t(sysconf(_SC_PAGESIZE));
}

std::size_t heapInUse() { return mallinfo2().uordblks; }

// Both read /proc with stack buffers only: a reading that allocates would
// move the heap it is there to watch.
std::size_t residentAnonymousBytes() {
  char text[128] = {};
  int const fd = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  ssize_t const n = read(fd, text, sizeof text - 1);
  close(fd);
  if (n <= 0) return 0;
  unsigned long size = 0, resident = 0, fileBacked = 0;
  std::sscanf(text, "%lu %lu %lu", &size, &resident, &fileBacked);
  return (resident - fileBacked) * std::size_t(sysconf(_SC_PAGESIZE));
}

std::size_t openDescriptors() {
  int const fd = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return 0;
  std::size_t n = 0;
  alignas(8) char buffer[4096];
  for (;;) {
    long const got = syscall(SYS_getdents64, fd, buffer, sizeof buffer);
    if (got <= 0) break;
    for (long offset = 0; offset < got;) {
      auto const* entry = reinterpret_cast<dirent64 const*>(buffer + offset);
      if (entry->d_name[0] != '.') ++n;
      offset += entry->d_reclen;
    }
  }
  close(fd);
  // Less the one this reading holds.
  return n - 1;
}

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return NAN;
  std::sort(values.begin(), values.end());
  auto rank = std::size_t(std::ceil(p / 100 * double(values.size())));
  return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

std::string cpuModel() {
  std::istringstream lines(readText("/proc/cpuinfo"));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
  }
  return "unknown";
}

unsigned cpus() { return std::thread::hardware_concurrency(); }

}  // namespace SystemBench
