#include "tests/support/HungHost.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

HungHost::HungHost(char const* address, int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  int const on = 1;
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(static_cast<std::uint16_t>(port));
  // Connections an earlier listener on the port left lingering must not keep this one from binding.
  if (fd_.get() < 0 || setsockopt(fd_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      inet_pton(AF_INET, address, &at.sin_addr) != 1 ||
      bind(fd_.get(), reinterpret_cast<sockaddr const*>(&at), sizeof at) != 0 || listen(fd_.get(), 64) != 0) {
    throw std::runtime_error(std::string("cannot listen on ") + address + ": " + std::strerror(errno));
  }
}
