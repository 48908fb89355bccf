#include <unistd.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <map>
#include <string>

#include "runtime/ActivityManager.h"
#include "runtime/ChildManager.h"
#include "tests/support/TestProcess.h"

namespace {

// Fails any test that leaves behind what it started: a timer armed on the
// process's clock, a child the runtime still holds or one nobody reaped, a
// descriptor open. Each test is measured against its own start, so what a
// suite keeps on purpose from SetUpTestSuite to TearDownTestSuite does not
// count, and neither does what a test before it leaked.
class LeakListener : public ::testing::EmptyTestEventListener {
 public:
  void OnTestStart(::testing::TestInfo const&) override { start_ = held(); }

  void OnTestEnd(::testing::TestInfo const&) override {
    Held const end = held();
    if (end.armedTimers > start_.armedTimers) {
      ADD_FAILURE() << "the test left " << end.armedTimers - start_.armedTimers
                    << " timer(s) armed on the process's clock";
    }
    if (end.runtimeChildren > start_.runtimeChildren) {
      ADD_FAILURE() << "the test left " << end.runtimeChildren - start_.runtimeChildren
                    << " child(ren) held by the runtime's child manager";
    }
    if (std::string const children = added(start_.processes, end.processes); !children.empty()) {
      ADD_FAILURE() << "the test left child processes unreaped: " << children;
    }
    if (end.descriptors.size() > start_.descriptors.size()) {
      ADD_FAILURE() << "the test left descriptors open: " << added(start_.descriptors, end.descriptors);
    }
  }

 private:
  struct Held {
    std::size_t armedTimers;
    std::size_t runtimeChildren;
    // By pid, with the name of their program.
    std::map<int, std::string> processes;
    // By number, with what they refer to.
    std::map<int, std::string> descriptors;
  };

  static Held held() {
    // The first use opens the loop's descriptor, which no test is to answer for.
    Kel::ActivityManager* const manager = Kel::activityManager();
    Kel::ChildManager& children = manager->children();
    std::map<int, std::string> processes;
    for (pid_t const pid : childrenOf(getpid())) {
      std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), processes[pid]);
    }
    return {manager->clock()->armedTimers(), children.running() + children.waiting(), processes,
            openDescriptorTargets()};
  }

  // The entries of end that start lacks, listed for a failure message.
  static std::string added(std::map<int, std::string> const& start, std::map<int, std::string> const& end) {
    std::string list;
    for (auto const& [number, what] : end) {
      auto const found = start.find(number);
      if (found != start.end() && found->second == what) continue;
      list += (list.empty() ? "" : ", ") + std::to_string(number) + " (" + what + ")";
    }
    return list;
  }

  Held start_;
};

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // gtest owns and deletes the listener.
  ::testing::UnitTest::GetInstance()->listeners().Append(new LeakListener);
  return RUN_ALL_TESTS();
}
