#include "FileReplication/DirWatch.h"

#include <sys/stat.h>

#include <cstring>

#include "FileReplication/FileReplicationUtils.h"
#include "FileReplication/Log.h"
#include "runtime/ActivityManager.h"
#include "runtime/ClockReactor.h"
#include "runtime/Exception.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("FileReplicationInotify")

namespace FileReplication {

namespace {

// Directories appearing on the way down while the ancestor watch is placed
// send us down again; a path that keeps changing under us stops here.
constexpr int maxDescents = 8;

bool isLost(InotifyEvent const& event) {
  return event.eventType() == InotifyEvent::deleted && event.fileName().empty();
}

bool isDirectory(Kel::String const& path) {
  struct stat st;
  return stat(path.charPtr(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

class DirWatch::KelRetryClock : public Kel::ClockReactor<DirWatch, &DirWatch::handleRetry> {
 public:
  using ClockReactor::ClockReactor;
};

Kel::Ptr<DirWatch> DirWatch::DirWatchIs(Kel::String path, Listener* listener, double retryDelay) {
  Kel::Ptr<DirWatch> const watch = new DirWatch(std::move(path), listener, retryDelay);
  watch->resolve();
  return watch;
}

DirWatch::DirWatch(Kel::String path, Listener* listener, double retryDelay)
    : path_(std::move(path)), listener_(listener), retryDelay_(retryDelay), retryClock_(this) {
  retryClock_->notifierIs(Kel::activityManager()->clock());
}

DirWatch::~DirWatch() {
  drop();
  if (watches_) watches_->subscriberDel(this);
}

Kel::String DirWatch::errorText() const {
  if (error_ == 0) return Kel::String();
  std::string text = "cannot watch the directory " + path_.str() + ": " + Kel::errnoText(error_);
  // The kernel's per-user allowances; the defaults are small.
  if (error_ == ENOSPC) text += "; raise the sysctl fs.inotify.max_user_watches";
  if (error_ == EMFILE) text += "; raise the sysctl fs.inotify.max_user_instances";
  return Kel::String(text);
}

void DirWatch::drop() {
  if (!watches_) return;
  if (watchId_) watches_->watchDel(watchId_, this);
  if (ancestorId_) watches_->watchDel(ancestorId_, this);
  watchId_ = ancestorId_ = 0;
  waitingOn_ = Kel::String();
}

bool DirWatch::resolve() {
  std::uint32_t const before = watchId_;
  Kel::String const waitedOn = waitingOn_;
  drop();
  if (!watches_) {
    try {
      watches_ = InotifyWatches::instance();
      watches_->subscriberIs(this);
    } catch (Kel::ErrnoException const& e) {
      failed(e.error());
      return true;
    }
  }
  Kel::String at = path_;
  for (int descents = 0;;) {
    int const wd = watches_->watchIs(at, this);
    if (wd < 0 && Utils::missing(-wd) && at != "/") {
      at = Utils::dirname(at);
      continue;
    }
    if (wd < 0) {
      failed(-wd);
      return true;
    }
    if (at == path_) {
      watchId_ = std::uint32_t(wd);
      break;
    }
    ancestorId_ = std::uint32_t(wd);
    waitingOn_ = at;
    // What appeared before this watch was in place sends no event.
    if (++descents < maxDescents && isDirectory(nextToward())) {
      drop();
      at = path_;
      continue;
    }
    break;
  }
  if (error_) log(LogPriority::notice, "watching the directory " + path_.str() + " again");
  error_ = 0;
  retryClock_->timeMinIs(Kel::Clock::never);
  if (!watchId_) KEL_TRACE(6, "Waiting for directory " << path_ << " to appear; watching " << waitingOn_);
  return (watchId_ != 0) != (before != 0) || waitingOn_ != waitedOn;
}

void DirWatch::failed(int error) {
  bool const fresh = error != error_;
  error_ = error;
  // Reported once, not at every retry.
  if (fresh) log(LogPriority::error, errorText().str());
  retryClock_->timeMinIs(Kel::now() + retryDelay_);
}

std::size_t DirWatch::nextNameStart() const { return waitingOn_ == "/" ? 1 : waitingOn_.size() + 1; }

Kel::String DirWatch::nextToward() const {
  return Kel::String(path_.str().substr(0, path_.str().find('/', nextNameStart())));
}

void DirWatch::tellAnew() {
  if (listener_) listener_->onDirAnew();
}

void DirWatch::handleRetry() {
  KEL_TRACE(6, "Watching directory " << path_ << " again after: " << errorText());
  if (resolve()) tellAnew();
}

void DirWatch::onWatchEvent(InotifyEvent const& event) {
  // Keeps this alive through a listener that drops its last pointer.
  Kel::Ptr<DirWatch> const keep(this);
  if (watchId_ && event.watchId() == watchId_) {
    if (!isLost(event)) {
      if (listener_) listener_->onDirEntry(event);
      return;
    }
    watchId_ = 0;
    KEL_TRACE(6, "Watched directory " << path_ << " is gone");
    log(LogPriority::warning,
        "the watched directory " + path_.str() + " is gone: its files count as missing until it is back");
    resolve();
    if (watchId_) log(LogPriority::notice, "the directory " + path_.str() + " is back: replicating its files");
    tellAnew();
    return;
  }
  if (!ancestorId_ || event.watchId() != ancestorId_) return;
  if (isLost(event)) {
    ancestorId_ = 0;
  } else if (event.fileName().str() != nextToward().str().substr(nextNameStart())) {
    return;
  }
  if (resolve() && watchId_) {
    log(LogPriority::notice, "the directory " + path_.str() + " is there: replicating its files");
    tellAnew();
  }
}

void DirWatch::onOverflow() {
  Kel::Ptr<DirWatch> const keep(this);
  if (listener_) listener_->onDirOverflow();
  // A lost watch may have been among the lost events: the kernel gives the
  // directory now at path the id we hold only if it is the one we watch.
  if (watches_ && watchId_ && watches_->watchIs(path_, this) == int(watchId_)) return;
  if (resolve()) tellAnew();
}

}  // namespace FileReplication
