#include "agent/ControlClient.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "runtime/OwnedDescriptor.h"

namespace Agent {

namespace {

constexpr std::size_t readChunk = 64 * 1024;

[[noreturn]] void fail(std::string const& message) { throw std::runtime_error(message); }

std::string secondsText(double seconds) {
  std::ostringstream text;
  text << seconds;
  return text.str();
}

void timeoutIs(int descriptor, int option, double seconds) {
  double const whole = std::floor(seconds);
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(whole);
  tv.tv_usec = static_cast<suseconds_t>((seconds - whole) * 1e6);
  // Zero would mean no timeout at all.
  if (tv.tv_sec == 0 && tv.tv_usec == 0) tv.tv_usec = 1;
  if (setsockopt(descriptor, SOL_SOCKET, option, &tv, sizeof tv) != 0) {
    fail(std::string("cannot set a socket timeout: ") + std::strerror(errno));
  }
}

}  // namespace

nlohmann::json request(std::string const& socketPath, nlohmann::json const& message, double timeoutSeconds) {
  if (!(timeoutSeconds > 0) || timeoutSeconds > 1e6) fail("the control timeout must be between 0 and 1e6 seconds");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.empty() || socketPath.size() >= sizeof address.sun_path) {
    fail("not a usable control socket path: \"" + socketPath + "\"");
  }
  std::memcpy(address.sun_path, socketPath.data(), socketPath.size());

  Kel::OwnedDescriptor const connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  int const fd = connection.get();
  if (fd < 0) fail(std::string("cannot create a socket: ") + std::strerror(errno));
  timeoutIs(fd, SO_RCVTIMEO, timeoutSeconds);
  timeoutIs(fd, SO_SNDTIMEO, timeoutSeconds);
  if (connect(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
    int const error = errno;
    std::string const why = std::string(" (connect: ") + std::strerror(error) + ")";
    if (error == ENOENT || error == ECONNREFUSED) fail("no agent is running on " + socketPath + why);
    fail("cannot reach the agent on " + socketPath + why);
  }

  std::string const line = message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  std::size_t sent = 0;
  while (sent < line.size()) {
    ssize_t const n = send(fd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (n >= 0) {
      sent += static_cast<std::size_t>(n);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      fail("the agent on " + socketPath + " did not take the request within " + secondsText(timeoutSeconds) + " s");
    } else if (errno == EPIPE || errno == ECONNRESET) {
      // The agent refused the request early; its reply says why.
      break;
    } else if (errno != EINTR) {
      fail("cannot send to the agent on " + socketPath + ": " + std::strerror(errno));
    }
  }

  std::string reply;
  std::size_t newline = std::string::npos;
  while (newline == std::string::npos) {
    std::size_t const old = reply.size();
    reply.resize(old + readChunk);
    ssize_t const n = recv(fd, reply.data() + old, readChunk, 0);
    int const error = errno;
    reply.resize(old + static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    if (n > 0) {
      newline = reply.find('\n', old);
      continue;
    }
    if (n < 0 && error == EINTR) continue;
    if (n < 0 && (error == EAGAIN || error == EWOULDBLOCK)) {
      fail("no reply from the agent on " + socketPath + " within " + secondsText(timeoutSeconds) + " s");
    }
    if (n < 0 && error != ECONNRESET) fail("cannot read from the agent on " + socketPath + ": " + std::strerror(error));
    if (reply.empty()) fail("the agent on " + socketPath + " closed the connection without replying");
    fail("malformed reply from the agent on " + socketPath + ": it ends without a newline");
  }
  reply.resize(newline);

  nlohmann::json parsed = nlohmann::json::parse(reply, nullptr, false);
  std::string const malformed = "malformed reply from the agent on " + socketPath + ": ";
  if (parsed.is_discarded()) fail(malformed + "not JSON");
  if (!parsed.is_object()) fail(malformed + "not a JSON object");
  auto const ok = parsed.find("ok");
  if (ok == parsed.end() || !ok->is_boolean()) fail(malformed + "no boolean \"ok\"");
  if (!ok->get<bool>()) {
    auto const error = parsed.find("error");
    if (error == parsed.end() || !error->is_string()) fail(malformed + "an error without a message");
  }
  return parsed;
}

}  // namespace Agent
