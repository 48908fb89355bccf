#include "tests/support/LeakListener.h"

#include <unistd.h>

#include <fstream>

#include "runtime/ActivityManager.h"
#include "runtime/ChildManager.h"
#include "tests/support/TestProcess.h"

namespace {

std::map<int, std::string> namedChildren() {
  std::map<int, std::string> children;
  for (pid_t const pid : childrenOf(getpid())) {
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), children[pid]);
  }
  return children;
}

// The entries of start that end lacks, in a list for a failure message.
std::string added(std::map<int, std::string> const& start, std::map<int, std::string> const& end) {
  std::string list;
  for (auto const& [number, what] : end) {
    auto const found = start.find(number);
    if (found != start.end() && found->second == what) continue;
    list += (list.empty() ? "" : ", ") + std::to_string(number) + " (" + what + ")";
  }
  return list;
}

}  // namespace

LeakListener::Held LeakListener::held() {
  // The first use opens the loop's descriptor, which no test is to answer for.
  Kel::ActivityManager* const manager = Kel::activityManager();
  Kel::ChildManager& children = manager->children();
  return {manager->clock()->armedTimers(), children.running() + children.waiting(), namedChildren(),
          openDescriptorTargets()};
}

void LeakListener::OnTestStart(::testing::TestInfo const&) { start_ = held(); }

void LeakListener::OnTestEnd(::testing::TestInfo const&) {
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
