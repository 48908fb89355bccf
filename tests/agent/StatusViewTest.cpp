#include <stdlib.h>
#include <time.h>

#include <optional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "agent/StatusView.h"
#include "tests/support/WhatOf.h"

namespace {

using nlohmann::json;

constexpr double now = 1700000000;  // 2023-11-14 22:13:20 UTC

// Local time is the reader's; the table is checked in UTC.
class StatusViewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (char const* tz = getenv("TZ")) savedTz_ = tz;
    setenv("TZ", "UTC0", 1);
    tzset();
  }
  void TearDown() override {
    if (savedTz_) {
      setenv("TZ", savedTz_->c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  std::optional<std::string> savedTz_;
};

json file(json status, char const* state, json lastSynchronized) {
  return {{"status", std::move(status)}, {"state", state}, {"lastSynchronized", std::move(lastSynchronized)}};
}

TEST_F(StatusViewTest, RendersSortedAlignedRowsWithAges) {
  json failing = file("failed", "backoff", now - 330);
  failing.update({{"dstPath", "/bak/c"},
                  {"lastError", "Replicate exited with status 1"},
                  {"failuresInRow", 4},
                  {"nextRetry", now + 8}});
  json const status = {{"ok", true},
                       {"requesters",
                        {{"beta", {{"mode", "inotify"}, {"enabled", false}, {"files", json::object()}}},
                         {"alpha",
                          {{"mode", "periodic"},
                           {"enabled", true},
                           {"files",
                            {{"/srv/e", file("synchronized", "standby", now - 2 * 86400 - 5)},
                             {"/srv/b", file("synchronized", "standby", now - 12)},
                             {"/srv/a", file(nullptr, "queued", nullptr)},
                             {"/srv/d", file("inProgress", "replicating", now - 3 * 3600 - 100)},
                             {"/srv/c", failing},
                             {"/srv/f", file("synchronized", "standby", now + 0.4)}}}}}}}};
  EXPECT_EQ(Agent::statusTable(status, now),
            "alpha: periodic, enabled, 6 files\n"
            "  PATH              STATUS        STATE        LAST SYNCHRONIZED    AGE\n"
            "  /srv/a            -             queued       never\n"
            "  /srv/b            synchronized  standby      2023-11-14 22:13:08  12s ago\n"
            "  /srv/c -> /bak/c  failed        backoff      2023-11-14 22:07:50  5m ago\n"
            "    Replicate exited with status 1; 4 failed runs in a row; next try 22:13:28\n"
            "  /srv/d            inProgress    replicating  2023-11-14 19:11:40  3h ago\n"
            "  /srv/e            synchronized  standby      2023-11-12 22:13:15  2d ago\n"
            "  /srv/f            synchronized  standby      2023-11-14 22:13:20  0s ago\n"
            "\n"
            "beta: inotify, disabled, 0 files\n");
  EXPECT_EQ(Agent::statusTable(json{{"requesters", json::object()}}, now), "no requesters\n");
}

TEST_F(StatusViewTest, EscapesNamesThatCouldBreakTheTable) {
  json const status = {{"requesters",
                        {{"r\x1b[2J",
                          {{"mode", "periodic"},
                           {"enabled", true},
                           {"files",
                            {{"/a\nb", file("synchronized", "standby", now - 1)},
                             {"/c\td\\e\x7f", file("failed", "backoff", now + 30)},
                             {"/\xc3\xa9t\xc3\xa9\xc2\x9b", file(nullptr, "queued", nullptr)}}}}}}}};
  // The UTF-8 name takes as many columns as it has characters.
  EXPECT_EQ(Agent::statusTable(status, now),
            "r\\x1b[2J: periodic, enabled, 3 files\n"
            "  PATH          STATUS        STATE    LAST SYNCHRONIZED    AGE\n"
            "  /a\\nb         synchronized  standby  2023-11-14 22:13:19  1s ago\n"
            "  /c\\td\\\\e\\x7f  failed        backoff  2023-11-14 22:13:50  in the future\n"
            "  /\xc3\xa9t\xc3\xa9\\u009b    -             queued   never\n");
}

TEST_F(StatusViewTest, ListsEachHostUnderItsRequester) {
  json const status = {
      {"requesters",
       {{"web",
         {{"mode", "inotify"},
          {"enabled", true},
          {"unwatched", {{"/srv/gone", "missing; watching /srv for it to appear"}}},
          {"hosts",
           {{"backup1",
             {{"state", "down"}, {"since", now - 600}, {"lastSuccess", now - 700}, {"lastError", "no route\x1b"}}},
            {"backup2", {{"state", "up"}, {"since", now - 86400}, {"lastSuccess", now - 10}}},
            {"backup3", {{"state", "up"}, {"since", now - 2 * 86400}, {"lastSuccess", now - 86400}}},
            {"backup4", {{"state", "unknown"}, {"since", nullptr}, {"lastSuccess", nullptr}}}}},
          {"files", {{"/srv/a", file("synchronized", "standby", now - 12)}}}}}}}};
  // The time of day alone for a success of today.
  EXPECT_EQ(Agent::statusTable(status, now),
            "web: inotify, enabled, 1 file\n"
            "  not watched: /srv/gone: missing; watching /srv for it to appear\n"
            "  host backup1: down since 2023-11-14 22:03:20 — no route\\x1b\n"
            "  host backup2: up, last success 22:13:10\n"
            "  host backup3: up, last success 2023-11-13 22:13:20\n"
            "  host backup4: unknown\n"
            "  PATH    STATUS        STATE    LAST SYNCHRONIZED    AGE\n"
            "  /srv/a  synchronized  standby  2023-11-14 22:13:08  12s ago\n");
}

TEST_F(StatusViewTest, RejectsWhatIsNotAStatus) {
  auto const problem = [](json const& status) {
    return whatOf<std::runtime_error>([&] { Agent::statusTable(status, now); });
  };
  EXPECT_EQ(problem(json{{"ok", true}}), "malformed status: the reply needs \"requesters\" as an object");
  EXPECT_EQ(problem(json::array()), "malformed status: the reply needs \"requesters\" as an object");
  EXPECT_EQ(problem(json{{"requesters", {{"r", {{"mode", "periodic"}, {"enabled", 1}, {"files", json::object()}}}}}}),
            "malformed status: requester \"r\" needs \"enabled\" as a boolean");
  EXPECT_EQ(problem(json{{"requesters",
                          {{"r",
                            {{"mode", "periodic"},
                             {"enabled", true},
                             {"files", {{"/x", {{"status", nullptr}, {"lastSynchronized", "yesterday"}}}}}}}}}}),
            "malformed status: requester \"r\" file \"/x\" needs \"state\" as a string");
  auto const withHosts = [](json hosts) {
    return json{{"requesters",
                 {{"r", {{"mode", "periodic"}, {"enabled", true}, {"files", json::object()}, {"hosts", hosts}}}}}};
  };
  EXPECT_EQ(problem(withHosts(json::array())), "malformed status: requester \"r\" needs \"hosts\" as an object");
  EXPECT_EQ(problem(withHosts({{"h", {{"state", "down"}, {"since", "today"}}}})),
            "malformed status: requester \"r\" host \"h\" needs \"since\" as a number or null");
  EXPECT_EQ(problem(withHosts({{"h", {{"state", "up"}, {"lastError", 3}}}})),
            "malformed status: requester \"r\" host \"h\" needs \"lastError\" as a string");
}

}  // namespace
