#pragma once

#include <cstdint>

#include "FileReplication/InotifyWatches.h"
#include "runtime/Clock.h"
#include "runtime/NestedReactor.h"
#include "runtime/Ptr.h"
#include "runtime/String.h"

namespace FileReplication {

// Keeps one directory path watched through the shared inotify instance,
// whatever happens to it: deleted, moved away, swapped for another directory
// (how deploy tools publish a new version) or not there yet. While the path
// is missing, its nearest existing ancestor is watched for the way down to
// appear; a watch the kernel refuses (a limit, a permission) is tried again
// every retryDelay seconds.
class DirWatch : public Kel::PtrInterface, private InotifyWatches::Subscriber {
 public:
  class Listener {
   public:
    // A name in the directory changed.
    virtual void onDirEntry(InotifyEvent const& event) = 0;
    // The directory went, came back, or can no longer be watched (error()):
    // any name in it may have changed unseen.
    virtual void onDirAnew() = 0;
    // The kernel dropped events: any name anywhere may have changed unseen.
    virtual void onDirOverflow() {}

   protected:
    ~Listener() = default;
  };

  // Watching starts at once; the listener must outlive the watch or call
  // listenerDel first.
  static Kel::Ptr<DirWatch> DirWatchIs(Kel::String path, Listener* listener, double retryDelay);

  Kel::String const& path() const { return path_; }
  // The directory's watch id; 0 while it is missing or cannot be watched.
  std::uint32_t watchId() const { return watchId_; }
  // The ancestor watched while the directory is missing; empty otherwise.
  Kel::String const& waitingOn() const { return waitingOn_; }
  // Why the kernel refused the last watch; 0 when it did not.
  int error() const { return error_; }
  // error() for an operator: what failed and, for a kernel limit, what to raise.
  Kel::String errorText() const;
  double retryDelay() const { return retryDelay_; }
  void retryDelayIs(double seconds) { retryDelay_ = seconds; }
  void listenerDel() { listener_ = nullptr; }

  void handleRetry();

 private:
  class KelRetryClock;

  DirWatch(Kel::String path, Listener* listener, double retryDelay);
  ~DirWatch() override;

  void onWatchEvent(InotifyEvent const& event) override;
  void onOverflow() override;
  // Watches the path, or the nearest ancestor that exists; true when that
  // changed what is watched.
  bool resolve();
  void drop();
  void failed(int error);
  // The ancestor's child on the way down to path, and where its name starts.
  Kel::String nextToward() const;
  std::size_t nextNameStart() const;
  void tellAnew();

  Kel::String path_;
  Listener* listener_;
  double retryDelay_;
  Kel::Ptr<InotifyWatches> watches_;
  std::uint32_t watchId_ = 0;
  std::uint32_t ancestorId_ = 0;
  Kel::String waitingOn_;
  int error_ = 0;
  Kel::Nested<KelRetryClock> retryClock_;
};

}  // namespace FileReplication
