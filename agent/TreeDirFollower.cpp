#include "agent/TreeDirFollower.h"

namespace Agent {

TreeDirFollower::TreeDirFollower(Listener* listener, std::size_t entry, std::string dir, double retryDelay)
    : listener_(listener), entry_(entry), dir_(std::move(dir)) {
  watch_ = FileReplication::DirWatch::DirWatchIs(dir_.empty() ? "/" : dir_, this, retryDelay);
}

TreeDirFollower::~TreeDirFollower() { retire(); }

void TreeDirFollower::retire() {
  if (watch_) watch_->listenerDel();
  listener_ = nullptr;
}

void TreeDirFollower::onDirEntry(FileReplication::InotifyEvent const& event) {
  if (listener_) listener_->onTreeDirEntry(entry_, dir_, event);
}

void TreeDirFollower::onDirAnew() {
  if (listener_) listener_->onTreeDirAnew(entry_, dir_);
}

void TreeDirFollower::onDirOverflow() {
  if (listener_) listener_->onTreeDirOverflow();
}

}  // namespace Agent
