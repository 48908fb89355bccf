#include "bench/system/Arrivals.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "bench/system/Measure.h"

namespace SystemBench {

Arrivals::Arrivals(std::vector<std::string> paths) : paths_(std::move(paths)) {
  fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd_ < 0) throw std::runtime_error(std::string("inotify_init1: ") + std::strerror(errno));
  std::unordered_map<std::string, int> watched;
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    std::string const dir = paths_[i].substr(0, paths_[i].rfind('/'));
    if (!watched.count(dir)) {
      int const wd = inotify_add_watch(fd_, dir.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR);
      if (wd < 0) {
        close(fd_);
        throw std::runtime_error("inotify_add_watch " + dir + ": " + std::strerror(errno));
      }
      watched[dir] = wd;
      directories_[wd] = dir;
    }
    index_[paths_[i]] = i;
  }
  reset();
}

Arrivals::~Arrivals() { close(fd_); }

void Arrivals::reset() {
  readEvents();
  arrived_.assign(paths_.size(), false);
  arrivedCount_ = 0;
  lastNs_ = -1;
  inodes_.assign(paths_.size(), 0);
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    struct stat st;
    if (stat(paths_[i].c_str(), &st) == 0) inodes_[i] = st.st_ino;
  }
}

std::int64_t Arrivals::awaitAll(std::int64_t deadlineNs, std::function<bool()> const& giveUp) {
  while (arrivedCount_ < paths_.size()) {
    std::int64_t const left = deadlineNs - monotonicNs();
    if (left <= 0) return -1;
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, int(std::min<std::int64_t>(left / 1000000 + 1, 100))) > 0) {
      readEvents();
    } else if (giveUp && giveUp()) {
      return -1;
    }
  }
  return lastNs_;
}

void Arrivals::arrivedIs(std::size_t index, std::int64_t now) {
  if (arrived_[index]) return;
  arrived_[index] = true;
  ++arrivedCount_;
  lastNs_ = now;
}

void Arrivals::readEvents() {
  alignas(inotify_event) char buffer[65536];
  for (;;) {
    ssize_t const n = read(fd_, buffer, sizeof buffer);
    if (n <= 0) return;
    std::int64_t const now = monotonicNs();
    bool overflowed = false;
    for (ssize_t offset = 0; offset < n;) {
      auto const* event = reinterpret_cast<inotify_event const*>(buffer + offset);
      offset += ssize_t(sizeof(inotify_event) + event->len);
      if (event->mask & IN_Q_OVERFLOW) overflowed = true;
      if (event->len == 0) continue;
      auto const dir = directories_.find(event->wd);
      if (dir == directories_.end()) continue;
      auto const it = index_.find(dir->second + "/" + event->name);
      if (it != index_.end()) arrivedIs(it->second, now);
    }
    if (overflowed) rescan();
  }
}

// The events that did not fit are lost; what they would have said is in
// the directories.
void Arrivals::rescan() {
  std::int64_t const now = monotonicNs();
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    struct stat st;
    if (!arrived_[i] && stat(paths_[i].c_str(), &st) == 0 && st.st_ino != inodes_[i]) arrivedIs(i, now);
  }
}

}  // namespace SystemBench
