#pragma once

#include <cstdint>
#include <ostream>

#include "runtime/Entity.h"
#include "runtime/Name.h"
#include "runtime/String.h"

namespace FileReplication {

// The replication status of one file, written by its replication machine.
class FileStatus : public Kel::Entity {
 public:
  // unknown until the first attempt starts.
  enum Status : std::uint32_t { inProgress = 0, synchronized = 1, failed = 2, unknown = 3 };

  class NotifieeConst : public Kel::NotifieeBase<FileStatus> {
   public:
    virtual void onStatus() {}
    virtual void onLastSynchronized() {}
    virtual void onLastError() {}
    virtual void onFailuresInRow() {}
  };
  using Notifiee = NotifieeConst;

  static Kel::Ptr<FileStatus> FileStatusIs(Kel::Name path) { return new FileStatus(path); }

  Kel::Name path() const { return path_; }
  Status status() const { return status_; }
  void statusIs(Status v) {
    if (Kel::changed(status_, v)) notify(&NotifieeConst::onStatus);
  }
  // Seconds since the epoch; 0 until the file was first synchronised.
  double lastSynchronized() const { return lastSynchronized_; }
  void lastSynchronizedIs(double v) {
    if (Kel::changed(lastSynchronized_, v)) notify(&NotifieeConst::onLastSynchronized);
  }
  // Why the last run failed, in one line; empty after a run that did not.
  Kel::String const& lastError() const { return lastError_; }
  void lastErrorIs(Kel::String const& v) {
    if (Kel::changed(lastError_, v)) notify(&NotifieeConst::onLastError);
  }

  // Runs that failed since the last success: what alerting looks at, as one
  // failure is often a passing one.
  std::uint32_t failuresInRow() const { return failuresInRow_; }
  void failuresInRowIs(std::uint32_t v) {
    if (Kel::changed(failuresInRow_, v)) notify(&NotifieeConst::onFailuresInRow);
  }

 protected:
  explicit FileStatus(Kel::Name path) : path_(path) {}

 private:
  Kel::Name path_;
  Status status_ = unknown;
  double lastSynchronized_ = 0;
  Kel::String lastError_;
  std::uint32_t failuresInRow_ = 0;
};

std::ostream& operator<<(std::ostream& o, FileStatus::Status status);

}  // namespace FileReplication
