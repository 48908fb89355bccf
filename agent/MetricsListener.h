#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <sys/socket.h>

#include "agent/StreamServer.h"

namespace Agent {

// An address to listen on, as the configuration gives it: "127.0.0.1:9464",
// "[::1]:9464" or ":9464" (every address). Numbers only: a name would make
// the agent's start depend on a resolver.
struct ListenAddress {
  sockaddr_storage address{};
  socklen_t length = 0;
};
// Nothing, with why in problem, for a text that is not such an address.
std::optional<ListenAddress> parseListenAddress(std::string_view text, std::string& problem);

// Serves the metrics over HTTP for a scraper: GET /metrics (or /) gets the
// text, anything else a short error; one request per connection, served on
// the loop like the control socket, so a slow scraper holds up nothing.
class MetricsListener {
 public:
  using Text = std::function<std::string()>;
  // Throws std::runtime_error when the address cannot be listened on.
  MetricsListener(std::string address, Text text);
  MetricsListener(MetricsListener const&) = delete;
  MetricsListener& operator=(MetricsListener const&) = delete;

  std::string const& address() const { return address_; }

 private:
  std::optional<std::string> replyTo(std::string_view received, bool ended) const;

  std::string address_;
  Text text_;
  std::optional<StreamServer> stream_;
};

}  // namespace Agent
