#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "runtime/Ptr.h"

namespace Kel {
class FileDescriptor;
}

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
  // Beyond it accepting pauses and further clients wait in the listen
  // backlog: each open connection ends within its time-outs, so a waiting
  // client is served late rather than refused, and a flood of clients costs
  // the loop nothing.
  static constexpr std::size_t maxConnections = 64;
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
  std::size_t connections() const { return connections_.size(); }
  // Every connection accepted so far, refused peers left out.
  std::size_t connectionsAccepted() const { return connectionsAccepted_; }

 private:
  class Listener;
  class AcceptResumer;
  class Connection;

  void bindAndListen();
  void acceptSome();
  void acceptingIs(bool v);
  // Listens exactly while accepting and below maxConnections.
  void acceptUpdate();
  nlohmann::json replyTo(std::string_view line) const;
  void connectionDel(Connection* connection);

  std::string socketPath_;
  Handler handler_;
  double requestTimeout_;
  int listenDescriptor_ = -1;
  // Identifies the socket file this server bound, so that the destructor
  // removes nothing else.
  dev_t socketDevice_ = 0;
  ino_t socketInode_ = 0;
  Kel::Ptr<Kel::FileDescriptor> listenFileDescriptor_;
  Kel::Ptr<Listener> listener_;
  Kel::Ptr<AcceptResumer> acceptResumer_;
  // False while accept() is out of descriptors or memory.
  bool accepting_ = false;
  std::unordered_map<Connection*, Kel::Ptr<Connection>> connections_;
  std::size_t connectionsAccepted_ = 0;
};

}  // namespace Agent
