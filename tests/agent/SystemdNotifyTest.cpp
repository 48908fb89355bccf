#include "agent/SystemdNotify.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tests/support/TestFiles.h"

namespace Agent {
namespace {

// What the service manager hears, and that the agent's children hear nothing
// meant for it.
TEST(SystemdNotifyTest, SpeaksOnlyWhenTheManagerListensAndOnlyForItself) {
  unsetenv("NOTIFY_SOCKET");
  EXPECT_FALSE(SystemdNotify().enabled());

  TempDir dir;
  std::string const path = dir / "notify";
  int const listener = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  setenv("WATCHDOG_USEC", "30000000", 1);
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  SystemdNotify notify;
  EXPECT_TRUE(notify.enabled());
  EXPECT_EQ(15, notify.watchdogPeriod());
  EXPECT_EQ(nullptr, std::getenv("NOTIFY_SOCKET"));
  EXPECT_EQ(nullptr, std::getenv("WATCHDOG_USEC"));
  notify.send("READY=1\nSTATUS=1 requesters, 2 files, 0 failed");
  char buffer[256];
  ssize_t const n = recv(listener, buffer, sizeof buffer, MSG_DONTWAIT);
  EXPECT_EQ("READY=1\nSTATUS=1 requesters, 2 files, 0 failed", std::string(buffer, n > 0 ? std::size_t(n) : 0));
  close(listener);
}

}  // namespace
}  // namespace Agent
