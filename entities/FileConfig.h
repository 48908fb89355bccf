#pragma once

#include "runtime/Entity.h"
#include "runtime/Name.h"
#include "runtime/String.h"

namespace FileReplication {

// One file of a requester. Its attributes do not notify: the replication
// machine reads them afresh on every use, so the owner of the configuration
// changes them in place rather than replacing the entity.
class FileConfig : public Kel::Entity {
 public:
  static Kel::Ptr<FileConfig> FileConfigIs(Kel::Name path, Kel::String dstPath, Kel::String rsyncOptions) {
    return new FileConfig(path, std::move(dstPath), std::move(rsyncOptions));
  }

  Kel::Name path() const { return path_; }
  Kel::String const& dstPath() const { return dstPath_; }
  void dstPathIs(Kel::String v) { dstPath_ = std::move(v); }
  Kel::String const& rsyncOptions() const { return rsyncOptions_; }
  void rsyncOptionsIs(Kel::String v) { rsyncOptions_ = std::move(v); }

 protected:
  FileConfig(Kel::Name path, Kel::String dstPath, Kel::String rsyncOptions)
      : path_(path), dstPath_(std::move(dstPath)), rsyncOptions_(std::move(rsyncOptions)) {}

 private:
  Kel::Name path_;
  Kel::String dstPath_;
  Kel::String rsyncOptions_;
};

}  // namespace FileReplication
