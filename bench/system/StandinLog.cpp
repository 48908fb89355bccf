#include "bench/system/StandinLog.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace SystemBench {

StandinLog::StandinLog(std::string path) : path_(std::move(path)) {
  if (mkfifo(path_.c_str(), 0600) < 0) throw std::runtime_error("mkfifo " + path_ + ": " + std::strerror(errno));
  reader_ = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  writer_ = open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (reader_ < 0 || writer_ < 0) throw std::runtime_error("open " + path_ + ": " + std::strerror(errno));
  setenv(standinLogVariable, path_.c_str(), 1);
}

StandinLog::~StandinLog() {
  unsetenv(standinLogVariable);
  close(writer_);
  close(reader_);
  unlink(path_.c_str());
}

std::vector<StandinRecord> StandinLog::drain() {
  std::vector<StandinRecord> records;
  StandinRecord buffer[256];
  for (;;) {
    ssize_t const n = read(reader_, buffer, sizeof buffer);
    if (n <= 0) break;
    records.insert(records.end(), buffer, buffer + std::size_t(n) / sizeof(StandinRecord));
  }
  return records;
}

bool StandinLog::next(StandinRecord& record, double timeoutSeconds) {
  pollfd p{reader_, POLLIN, 0};
  if (poll(&p, 1, int(timeoutSeconds * 1000)) <= 0) return false;
  return read(reader_, &record, sizeof record) == sizeof record;
}

std::size_t StandinLog::awaitCount(std::size_t count, double idleSeconds) {
  while (counted_ < count) {
    pollfd p{reader_, POLLIN, 0};
    if (poll(&p, 1, int(idleSeconds * 1000)) <= 0) break;
    counted_ += drain().size();
  }
  return counted_;
}

}  // namespace SystemBench
