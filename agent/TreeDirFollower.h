#pragma once

#include <cstddef>
#include <string>

#include "FileReplication/DirWatch.h"
#include "runtime/Ptr.h"

namespace Agent {

// Follows one directory of a tree entry through the shared inotify instance
// and tells its listener, with the entry and directory it stands for.
class TreeDirFollower : private FileReplication::DirWatch::Listener {
 public:
  class Listener {
   public:
    virtual void onTreeDirEntry(std::size_t entry, std::string const& dir,
                                FileReplication::InotifyEvent const& event) = 0;
    virtual void onTreeDirAnew(std::size_t entry, std::string const& dir) = 0;
    virtual void onTreeDirOverflow() = 0;

   protected:
    ~Listener() = default;
  };

  // dir has no trailing '/'; empty for the root.
  TreeDirFollower(Listener* listener, std::size_t entry, std::string dir, double retryDelay);
  virtual ~TreeDirFollower();
  TreeDirFollower(TreeDirFollower const&) = delete;
  TreeDirFollower& operator=(TreeDirFollower const&) = delete;

  // Tells nothing more; safe inside its own callbacks.
  void retire();

 private:
  void onDirEntry(FileReplication::InotifyEvent const& event) override;
  void onDirAnew() override;
  void onDirOverflow() override;

  Listener* listener_;
  std::size_t entry_;
  std::string dir_;
  Kel::Ptr<FileReplication::DirWatch> watch_;
};

}  // namespace Agent
