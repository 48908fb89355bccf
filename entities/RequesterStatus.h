#pragma once

#include <cstdint>

#include "entities/FileStatus.h"
#include "runtime/Entity.h"
#include "runtime/Name.h"
#include "runtime/NotifyingCollection.h"

namespace FileReplication {

// The status of one requester's files.
class RequesterStatus : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeBase<RequesterStatus> {
   public:
    virtual void onFile(Kel::Name) {}
    virtual void onOverflows() {}
    virtual void onRunsStarted() {}
    virtual void onRunsSucceeded() {}
    virtual void onRunsFailed() {}
    virtual void onRunsTimedOut() {}
  };
  using Notifiee = NotifieeConst;

  using FileCollection = Kel::NotifyingCollection<Kel::Name, Kel::Ptr<FileStatus>>;

  static Kel::Ptr<RequesterStatus> RequesterStatusIs(Kel::Name name) { return new RequesterStatus(name); }

  Kel::Name name() const { return name_; }
  Kel::Ptr<FileStatus> file(Kel::Name path) const { return file_.value(path); }
  FileCollection const& file() const { return file_; }
  std::size_t files() const { return file_.size(); }
  // Creates the entry, or returns the existing one as it stands.
  Kel::Ptr<FileStatus> fileIs(Kel::Name path) { return file_.findOrInsert(path, FileStatus::FileStatusIs); }
  void fileDel(Kel::Name path) { file_.erase(path); }
  // How often the kernel dropped events of this requester's watches, so
  // that every file was replicated again.
  std::uint32_t overflows() const { return overflows_; }
  void overflowsIs(std::uint32_t v) {
    if (Kel::changed(overflows_, v)) notify<NotifieeConst>(&NotifieeConst::onOverflows);
  }
  // Runs of the files' machines, each file's counted on its own even when
  // one Replicate process carries many. A run stopped because its file or
  // requester went away is started and nothing else.
  std::uint64_t runsStarted() const { return runsStarted_; }
  void runsStartedIs(std::uint64_t v) {
    if (Kel::changed(runsStarted_, v)) notify<NotifieeConst>(&NotifieeConst::onRunsStarted);
  }
  std::uint64_t runsSucceeded() const { return runsSucceeded_; }
  void runsSucceededIs(std::uint64_t v) {
    if (Kel::changed(runsSucceeded_, v)) notify<NotifieeConst>(&NotifieeConst::onRunsSucceeded);
  }
  std::uint64_t runsFailed() const { return runsFailed_; }
  void runsFailedIs(std::uint64_t v) {
    if (Kel::changed(runsFailed_, v)) notify<NotifieeConst>(&NotifieeConst::onRunsFailed);
  }
  // Killed by the replication time-out; not counted as failed as well.
  std::uint64_t runsTimedOut() const { return runsTimedOut_; }
  void runsTimedOutIs(std::uint64_t v) {
    if (Kel::changed(runsTimedOut_, v)) notify<NotifieeConst>(&NotifieeConst::onRunsTimedOut);
  }

 protected:
  explicit RequesterStatus(Kel::Name name) : name_(name) {}

 private:
  Kel::Name name_;
  FileCollection file_{[this](Kel::Name const& path) { notify<Notifiee>(&Notifiee::onFile, path); }};
  std::uint32_t overflows_ = 0;
  std::uint64_t runsStarted_ = 0;
  std::uint64_t runsSucceeded_ = 0;
  std::uint64_t runsFailed_ = 0;
  std::uint64_t runsTimedOut_ = 0;
};

}  // namespace FileReplication
