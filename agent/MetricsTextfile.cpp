#include "agent/MetricsTextfile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "runtime/ActivityManager.h"
#include "runtime/ClockReactor.h"

namespace Agent {

namespace {

// Empty on success, else what went wrong.
std::string replaceFile(std::string const& path, std::string const& text) {
  std::filesystem::path const target(path);
  // The collector reads only names ending in .prom, and skips dot files.
  std::string temporary = (target.parent_path() / ("." + target.filename().string() + ".XXXXXX")).string();
  int const fd = mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) return "cannot create a file in " + target.parent_path().string() + ": " + std::strerror(errno);
  // Collectors seldom run as the agent's user.
  int error = fchmod(fd, 0644) == 0 ? 0 : errno;
  for (std::size_t written = 0; error == 0 && written < text.size();) {
    ssize_t const n = ::write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = errno;
    } else {
      written += static_cast<std::size_t>(n);
    }
  }
  if (close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error == 0) return {};
  unlink(temporary.c_str());
  return "cannot write " + path + ": " + std::strerror(error);
}

}  // namespace

class MetricsTextfile::WriteTimer : public Kel::ClockReactor<MetricsTextfile, &MetricsTextfile::write> {
 public:
  using ClockReactor::ClockReactor;
};

class MetricsTextfile::StatusWatch
    : public Kel::NestedReactor<MetricsTextfile, FileReplication::Status::NotifieeConst> {
 public:
  using NestedReactor::NestedReactor;
  void onNotifier() override { owner()->requesterWatchesRefresh(); }
  void onRequester(Kel::Name) override { changed(); }
  void onRequester() override { changed(); }

 private:
  void changed() {
    owner()->requesterWatchesRefresh();
    owner()->changed();
  }
};

class MetricsTextfile::RequesterWatch
    : public Kel::NestedReactor<MetricsTextfile, FileReplication::RequesterStatus::NotifieeConst> {
 public:
  using NestedReactor::NestedReactor;
  void onFile(Kel::Name) override { owner()->changed(); }
  void onOverflows() override { owner()->changed(); }
  void onRunsStarted() override { owner()->changed(); }
  void onRunsSucceeded() override { owner()->changed(); }
  void onRunsFailed() override { owner()->changed(); }
  void onRunsTimedOut() override { owner()->changed(); }
};

MetricsTextfile::MetricsTextfile(std::string path, Kel::Ptr<FileReplication::Status const> status, Render render,
                                 Say say)
    : path_(std::move(path)),
      status_(std::move(status)),
      render_(std::move(render)),
      say_(std::move(say)),
      timer_(this),
      statusWatch_(this) {
  timer_->notifierIs(Kel::activityManager()->clock());
  statusWatch_->notifierIs(status_);
  changed();
}

MetricsTextfile::~MetricsTextfile() = default;

void MetricsTextfile::changed() {
  if (timer_->timeMin() != Kel::Clock::never) return;
  // Never from inside the notification: the machine telling it is mid-way.
  timer_->timeMinIs(std::max(Kel::now(), lastWrite_ + writeInterval));
}

void MetricsTextfile::write() {
  timer_->timeMinIs(Kel::Clock::never);
  lastWrite_ = Kel::now();
  std::string text = render_();
  if (text == written_) return;
  std::string const error = replaceFile(path_, text);
  if (error.empty()) {
    written_ = std::move(text);
  } else if (error != lastError_) {
    say_(error);
  }
  lastError_ = error;
}

void MetricsTextfile::requesterWatchesRefresh() {
  for (auto it = requesterWatches_.begin(); it != requesterWatches_.end();) {
    if (status_->requester(it->first) == it->second->notifier()) {
      ++it;
      continue;
    }
    it = requesterWatches_.erase(it);
  }
  for (auto const& [name, rs] : status_->requester()) {
    auto& watch = requesterWatches_[name.str()];
    if (watch) continue;
    watch = Kel::Nested<RequesterWatch>(this);
    watch->notifierIs(rs);
  }
}

}  // namespace Agent
