#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <string>

// Fails any test that leaves behind what it started: a timer armed on the
// process's clock, a child the runtime still holds or one nobody reaped, a
// descriptor open. Each test is measured against its own start, so what a
// suite keeps on purpose from SetUpTestSuite to TearDownTestSuite does not
// count, and neither does what a test before it leaked.
class LeakListener : public ::testing::EmptyTestEventListener {
 public:
  void OnTestStart(::testing::TestInfo const& test) override;
  void OnTestEnd(::testing::TestInfo const& test) override;

 private:
  struct Held {
    std::size_t armedTimers;
    std::size_t runtimeChildren;
    // By pid, with the name of their program.
    std::map<int, std::string> processes;
    // By number, with what they refer to.
    std::map<int, std::string> descriptors;
  };
  static Held held();

  Held start_;
};
