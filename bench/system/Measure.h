#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace SystemBench {

std::int64_t monotonicNs();
// CPU time of the calling thread, user and system.
std::int64_t threadCpuNs();
// The part of it spent in the kernel, as the scheduler's ticks split it.
std::int64_t threadSystemNs();
// CPU time of every thread of another process, from the scheduler's own
// accounting (nanoseconds), and from /proc/PID/stat (clock ticks, coarse).
std::int64_t processCpuNs(pid_t pid);
std::int64_t processCpuTicksNs(pid_t pid);
// Also from /proc/PID/stat: what a process used itself, and what the
// children it reaped used (theirs including their own reaped children).
struct ProcessTimes {
  std::int64_t ownNs = 0;
  std::int64_t childrenNs = 0;
  std::int64_t totalNs() const { return ownNs + childrenNs; }
};
ProcessTimes processTimes(pid_t pid);
std::size_t processResidentBytes(pid_t pid);

// The whole of a (small) file, empty when it cannot be read.
std::string readText(std::string const& path);

// Bytes the allocator has handed out and not had back.
std::size_t heapInUse();
// Resident pages not backed by a file: the heap, stacks and other private
// memory. Code pages of the program and its libraries come and go with use.
std::size_t residentAnonymousBytes();
std::size_t openDescriptors();

// The p-th percentile (0 to 100) by nearest rank.
double percentile(std::vector<double> values, double p);

std::string cpuModel();
unsigned cpus();

}  // namespace SystemBench
