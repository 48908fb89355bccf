#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "agent/StreamServer.h"

namespace Agent {

// The agent's control socket. Each connection carries one request, a JSON
// object on one line, and gets one JSON object on one line back, after which
// the server closes it. Serves on the Kel loop and never waits there for a
// client: a reply is queued and written as the client reads it.
class ControlServer {
 public:
  // Called with a request whose command and fields were checked against
  // controlOperations. Returns the reply's payload (an object, or null for
  // none); "ok": true is added unless the handler set "ok" itself. An
  // exception becomes an error reply carrying its message.
  using Handler = std::function<nlohmann::json(nlohmann::json const& request)>;

  static constexpr std::size_t maxRequestBytes = 64 * 1024;
  // A status of 10,000 files is a few MB; a longer reply is replaced by an
  // error saying so, which bounds what one client can hold.
  static constexpr std::size_t maxReplyBytes = 16 * 1024 * 1024;
  static constexpr std::size_t maxConnections = StreamServer::maxConnections;
  static constexpr double defaultRequestTimeout = 5;

  // Creates the socket's directory when missing (mode 0700), replaces a stale
  // socket and listens, the socket with mode 0600. Throws std::runtime_error
  // saying what is wrong: another agent listening on the path, a file there
  // that is not a socket, a directory that others could write to. A client
  // that has not sent a whole request requestTimeout seconds after it was
  // accepted is told so; one that reads nothing of its reply for as long is
  // dropped.
  ControlServer(std::string socketPath, Handler handler, double requestTimeout = defaultRequestTimeout);
  // Closes every connection and removes the socket, unless another one has
  // taken its path meanwhile.
  ~ControlServer();
  ControlServer(ControlServer const&) = delete;
  ControlServer& operator=(ControlServer const&) = delete;

  std::string const& socketPath() const { return socketPath_; }
  double requestTimeout() const { return requestTimeout_; }
  // Connections accepted and not closed yet.
  std::size_t connections() const { return stream_->connections(); }
  // Every connection accepted so far, refused peers left out.
  std::size_t connectionsAccepted() const { return stream_->connectionsAccepted(); }

 private:
  nlohmann::json replyTo(std::string_view line) const;
  std::optional<std::string> replyText(std::string_view received, bool ended) const;

  std::string socketPath_;
  Handler handler_;
  double requestTimeout_;
  // Identifies the socket file this server bound, so that the destructor
  // removes nothing else.
  dev_t socketDevice_ = 0;
  ino_t socketInode_ = 0;
  std::optional<StreamServer> stream_;
};

}  // namespace Agent
