#include "agent/SystemdNotify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace Agent {

SystemdNotify::SystemdNotify() {
  char const* const socketPath = std::getenv("NOTIFY_SOCKET");
  if (!socketPath || (socketPath[0] != '/' && socketPath[0] != '@')) return;
  if (std::strlen(socketPath) >= sizeof(sockaddr_un::sun_path)) return;
  address_ = socketPath;
  // An abstract name is spelled with a leading '@' and starts with a NUL.
  if (address_[0] == '@') address_[0] = '\0';
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  // Only the agent itself is the service; what it starts must not speak for it.
  unsetenv("NOTIFY_SOCKET");
  char const* const usec = std::getenv("WATCHDOG_USEC");
  char const* const pid = std::getenv("WATCHDOG_PID");
  bool const forUs = !pid || std::strtol(pid, nullptr, 10) == getpid();
  if (usec && forUs) watchdogPeriod_ = std::strtod(usec, nullptr) / 1e6 / 2;
  unsetenv("WATCHDOG_USEC");
  unsetenv("WATCHDOG_PID");
}

SystemdNotify::~SystemdNotify() {
  if (fd_ >= 0) close(fd_);
}

void SystemdNotify::send(std::string const& state) const {
  if (fd_ < 0) return;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, address_.data(), address_.size());
  auto const length = socklen_t(offsetof(sockaddr_un, sun_path) + address_.size());
  // Non-blocking in effect: a datagram to a full queue is dropped, not waited for.
  sendto(fd_, state.data(), state.size(), MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address), length);
}

}  // namespace Agent
