#pragma once

#include <cstdint>

#include "entities/FileStatus.h"
#include "runtime/Collection.h"
#include "runtime/Entity.h"
#include "runtime/Name.h"

namespace FileReplication {

// The status of one requester's files.
class RequesterStatus : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeBase<RequesterStatus> {
   public:
    virtual void onFile(Kel::Name) {}
    virtual void onOverflows() {}
  };
  using Notifiee = NotifieeConst;

  using FileCollection = Kel::Collection<Kel::Name, Kel::Ptr<FileStatus>>;

  static Kel::Ptr<RequesterStatus> RequesterStatusIs(Kel::Name name) { return new RequesterStatus(name); }

  Kel::Name name() const { return name_; }
  Kel::Ptr<FileStatus> file(Kel::Name path) const {
    auto const* f = file_.find(path);
    return f ? *f : nullptr;
  }
  FileCollection const& file() const { return file_; }
  std::size_t files() const { return file_.size(); }
  // Creates the entry, or returns the existing one as it stands.
  Kel::Ptr<FileStatus> fileIs(Kel::Name path) {
    if (auto present = file(path)) return present;
    auto f = FileStatus::FileStatusIs(path);
    file_.insert(path, f);
    notify<NotifieeConst>(&NotifieeConst::onFile, path);
    return f;
  }
  void fileDel(Kel::Name path) {
    if (auto removed = file_.erase(path)) notify<NotifieeConst>(&NotifieeConst::onFile, path);
  }
  // How often the kernel dropped events of this requester's watches, so
  // that every file was replicated again.
  std::uint32_t overflows() const { return overflows_; }
  void overflowsIs(std::uint32_t v) {
    if (Kel::changed(overflows_, v)) notify<NotifieeConst>(&NotifieeConst::onOverflows);
  }

 protected:
  explicit RequesterStatus(Kel::Name name) : name_(name) {}

 private:
  Kel::Name name_;
  FileCollection file_;
  std::uint32_t overflows_ = 0;
};

}  // namespace FileReplication
