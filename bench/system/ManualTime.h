#pragma once

#include "runtime/ActivityManager.h"

namespace SystemBench {

// Puts the shared clock on manual time for the scope, so that no period
// and no time-out falls due unless the bench steps the clock.
class ManualTime {
 public:
  ManualTime() { Kel::activityManager()->clock()->manualTimeIs(true); }
  ~ManualTime() { Kel::activityManager()->clock()->manualTimeIs(false); }
  ManualTime(ManualTime const&) = delete;
  ManualTime& operator=(ManualTime const&) = delete;
};

}  // namespace SystemBench
