#include "runtime/ActivityManager.h"

#include "runtime/ChildManager.h"

namespace Kel {

ActivityManager::ActivityManager()
    : loop_(std::make_unique<EventLoop>()),
      clock_(Clock::ClockIs()),
      children_(std::make_unique<ChildManager>(*loop_)) {}

// Children go first: their exits are served by the loop.
ActivityManager::~ActivityManager() { children_.reset(); }

ActivityManager* activityManager() {
  // Never destroyed: objects with static storage may still hold timers.
  static ActivityManager* manager = new ActivityManager();
  return manager;
}

double now() { return activityManager()->clock()->now(); }

}  // namespace Kel
