#pragma once

#include <memory>

#include "runtime/Clock.h"
#include "runtime/EventLoop.h"
#include "runtime/Ptr.h"

namespace Kel {

class ChildManager;

// The process's activity manager: its event loop, its shared clock and its
// table of child processes.
class ActivityManager {
 public:
  ActivityManager();
  ~ActivityManager();

  Ptr<Clock> clock() const { return clock_; }
  EventLoop& loop() { return *loop_; }
  ChildManager& children() { return *children_; }

 private:
  std::unique_ptr<EventLoop> loop_;
  Ptr<Clock> clock_;
  std::unique_ptr<ChildManager> children_;
};

// Created on first use; lives as long as the process.
ActivityManager* activityManager();

// Wall-clock seconds since the epoch, or the manual time of the shared clock.
double now();

}  // namespace Kel
