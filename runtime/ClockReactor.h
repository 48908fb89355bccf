#pragma once

#include "runtime/Clock.h"
#include "runtime/NestedReactor.h"

namespace Kel {

// Whether a timer's handler also runs when the timer is bound to a clock,
// so that its owner catches up with a time that may have passed.
enum class OnBinding { wait, handle };

// The nested timer of an owner that only calls one handler when its time
// comes.
template <class Owner, void (Owner::*Handler)(), OnBinding onBinding = OnBinding::wait>
class ClockReactor : public NestedReactor<Owner, Clock::NotifieeConst> {
 public:
  using NestedReactor<Owner, Clock::NotifieeConst>::NestedReactor;
  void onNotifier() override {
    if constexpr (onBinding == OnBinding::handle) (this->owner()->*Handler)();
  }
  void onTime() override { (this->owner()->*Handler)(); }
};

}  // namespace Kel
