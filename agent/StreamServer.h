#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "runtime/NestedReactor.h"
#include "runtime/Ptr.h"

namespace Kel {
class FileDescriptor;
}

namespace Agent {

// Serves one request per connection on a listening stream socket, on the Kel
// loop, and never waits there for a client: a request is read as it comes,
// and the reply is queued and written as the client reads it, after which
// the connection is closed. What a request and its reply look like is the
// protocol's; the time-outs, the bounds and the accepting are this.
class StreamServer {
 public:
  struct Protocol {
    // The reply to what the client sent so far, or nothing while the
    // request is not whole. Once ended (the client closed its side, or sent
    // more than maxRequestBytes), nothing drops the client.
    std::function<std::optional<std::string>(std::string_view received, bool ended)> reply;
    // For a client with no whole request after the time-out; nothing: drop.
    std::function<std::optional<std::string>()> timedOut;
    // Whether to serve a client just accepted, by its descriptor.
    std::function<bool(int descriptor)> admit;
  };

  // Beyond it accepting pauses and further clients wait in the listen
  // backlog: each open connection ends within its time-outs, so a waiting
  // client is served late rather than refused, and a flood of clients costs
  // the loop nothing.
  static constexpr std::size_t maxConnections = 64;

  // Takes listenDescriptor, bound, listening and non-blocking, and closes it
  // when it goes. A client that has not sent a whole request requestTimeout
  // seconds after it was accepted is given protocol.timedOut(); one that
  // reads nothing of its reply for as long is dropped.
  StreamServer(int listenDescriptor, std::string name, Protocol protocol, double requestTimeout,
               std::size_t maxRequestBytes);
  ~StreamServer();
  StreamServer(StreamServer const&) = delete;
  StreamServer& operator=(StreamServer const&) = delete;

  double requestTimeout() const { return requestTimeout_; }
  // Connections accepted and not closed yet.
  std::size_t connections() const { return connections_.size(); }
  // Every connection accepted so far, refused peers left out.
  std::size_t connectionsAccepted() const { return connectionsAccepted_; }

 private:
  class Listener;
  class AcceptResumer;
  class Connection;

  void acceptSome();
  void acceptingIs(bool v);
  // Listens exactly while accepting and below maxConnections.
  void acceptUpdate();
  void connectionDel(Connection* connection);

  int listenDescriptor_;
  std::string name_;
  Protocol protocol_;
  double requestTimeout_;
  std::size_t maxRequestBytes_;
  Kel::Ptr<Kel::FileDescriptor> listenFileDescriptor_;
  Kel::Nested<Listener> listener_;
  Kel::Nested<AcceptResumer> acceptResumer_;
  // False while accept() is out of descriptors or memory.
  bool accepting_ = false;
  std::unordered_map<Connection*, Kel::Ptr<Connection>> connections_;
  std::size_t connectionsAccepted_ = 0;
};

}  // namespace Agent
