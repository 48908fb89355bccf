#pragma once

#include <gtest/gtest.h>

#include <string>

#include "runtime/ActivityManager.h"
#include "tests/support/ScriptedChildren.h"
#include "tests/support/TestFiles.h"

namespace FileReplication {

// A state machine test on manual time from `start`, with scripted children
// and a temporary directory. Subclasses drop their machines in
// dropMachines(), while the children and the directory they use are there.
class SmTest : public testing::Test {
 protected:
  static constexpr double start = 1000;

  SmTest() {
    clock()->manualTimeIs(true);
    clock()->nowIs(start);
  }
  void TearDown() override {
    dropMachines();
    turn();
    clock()->manualTimeIs(false);
  }
  virtual void dropMachines() = 0;

  static Kel::Ptr<Kel::Clock> clock() { return Kel::activityManager()->clock(); }
  static void turn() { Kel::activityManager()->loop().turn(0); }
  std::string path(std::string const& name) const { return dir_ / name; }

  // Ends every child still running, and not signalled, as a success.
  void endRunning() {
    for (std::size_t i = 0; i < children_.launches(); ++i) {
      auto const& child = children_.child(i);
      if (child.signals.empty() && child.siginfo->signalCode() == Kel::ChildSiginfo::notEnded) {
        children_.endExited(child.siginfo, 0);
      }
    }
    turn();
  }

  Kel::ScriptedChildren children_;
  TempDir dir_;
};

}  // namespace FileReplication
