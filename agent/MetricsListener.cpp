#include "agent/MetricsListener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>

namespace Agent {

namespace {

constexpr std::size_t maxRequestBytes = 8 * 1024;
constexpr double requestTimeout = 10;

std::string response(char const* status, char const* type, std::string const& body) {
  return std::string("HTTP/1.1 ") + status + "\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

}  // namespace

std::optional<ListenAddress> parseListenAddress(std::string_view text, std::string& problem) {
  std::size_t const colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    problem = "no port";
    return std::nullopt;
  }
  std::string_view host = text.substr(0, colon);
  std::string_view const portText = text.substr(colon + 1);
  unsigned port = 0;
  auto const [end, failure] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
  if (failure != std::errc() || end != portText.data() + portText.size() || port == 0 || port > 65535) {
    problem = "the port is not a number from 1 to 65535";
    return std::nullopt;
  }
  ListenAddress listen;
  bool const v6 = host.size() >= 2 && host.front() == '[' && host.back() == ']';
  if (v6) {
    auto& a = reinterpret_cast<sockaddr_in6&>(listen.address);
    a.sin6_family = AF_INET6;
    a.sin6_port = htons(std::uint16_t(port));
    std::string const inner(host.substr(1, host.size() - 2));
    if (inet_pton(AF_INET6, inner.c_str(), &a.sin6_addr) != 1) {
      problem = "\"" + inner + "\" is not an IPv6 address";
      return std::nullopt;
    }
    listen.length = sizeof a;
    return listen;
  }
  auto& a = reinterpret_cast<sockaddr_in&>(listen.address);
  a.sin_family = AF_INET;
  a.sin_port = htons(std::uint16_t(port));
  std::string const address = host.empty() ? "0.0.0.0" : std::string(host);
  if (inet_pton(AF_INET, address.c_str(), &a.sin_addr) != 1) {
    problem = "\"" + address + "\" is not an IPv4 address (an IPv6 one goes in brackets)";
    return std::nullopt;
  }
  listen.length = sizeof a;
  return listen;
}

MetricsListener::MetricsListener(std::string address, Text text)
    : address_(std::move(address)), text_(std::move(text)) {
  std::string problem;
  auto const where = parseListenAddress(address_, problem);
  if (!where) throw std::runtime_error("metrics listen address " + address_ + ": " + problem);
  int const fd = socket(where->address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) throw std::runtime_error(std::string("metrics: socket: ") + std::strerror(errno));
  int const on = 1;
  // A restarted agent must not wait for the old connections' TIME_WAIT.
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(fd, reinterpret_cast<sockaddr const*>(&where->address), where->length) != 0 || listen(fd, 64) != 0) {
    int const error = errno;
    close(fd);
    throw std::runtime_error("metrics: cannot listen on " + address_ + ": " + std::strerror(error));
  }
  StreamServer::Protocol protocol;
  protocol.reply = [this](std::string_view received, bool ended) { return replyTo(received, ended); };
  protocol.timedOut = []() -> std::optional<std::string> { return std::nullopt; };
  protocol.admit = [](int) { return true; };
  stream_.emplace(fd, "metrics listener", std::move(protocol), requestTimeout, maxRequestBytes);
}

std::optional<std::string> MetricsListener::replyTo(std::string_view received, bool ended) const {
  if (received.find("\r\n\r\n") == std::string_view::npos && received.find("\n\n") == std::string_view::npos) {
    if (!ended || received.empty()) return std::nullopt;
    return response("400 Bad Request", "text/plain", "the request has no end of its header\n");
  }
  std::string_view const line = received.substr(0, received.find_first_of("\r\n"));
  bool const get = line.starts_with("GET ");
  bool const head = line.starts_with("HEAD ");
  if (!get && !head) return response("405 Method Not Allowed", "text/plain", "only GET\n");
  std::string_view target = line.substr(line.find(' ') + 1);
  target = target.substr(0, target.find(' '));
  target = target.substr(0, target.find('?'));
  if (target != "/metrics" && target != "/") return response("404 Not Found", "text/plain", "try /metrics\n");
  std::string reply = response("200 OK", "text/plain; version=0.0.4; charset=utf-8", text_());
  if (head) reply.erase(reply.find("\r\n\r\n") + 4);
  return reply;
}

}  // namespace Agent
