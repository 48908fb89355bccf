#include "agent/StreamServer.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "runtime/ActivityManager.h"
#include "runtime/ClockReactor.h"
#include "runtime/FileDescriptor.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("AgentStream")

namespace Agent {

namespace {

constexpr std::size_t readChunk = 16 * 1024;
// Bounds the work one readiness of the listening socket does, so that a
// burst of clients does not starve the rest of the loop.
constexpr int acceptsPerTurn = 16;
// Out of descriptors or memory, accept() fails for as long as the backlog
// holds clients; accepting pauses this long instead of spinning.
constexpr double acceptPause = 1;

std::string errnoText(int error) { return std::strerror(error); }

}  // namespace

class StreamServer::Listener : public Kel::NestedReactor<StreamServer, Kel::FileDescriptor::Notifiee> {
 public:
  using NestedReactor::NestedReactor;
  void onReadableCount() override {
    // Nothing may escape into the loop: the agent serves on.
    try {
      owner()->acceptSome();
    } catch (std::exception const& e) {
      KEL_TRACE(2, owner()->name_ << ": " << e.what());
    }
  }
};

class StreamServer::AcceptResumer : public Kel::NestedReactor<StreamServer, Kel::Clock::Notifiee> {
 public:
  using NestedReactor::NestedReactor;
  void onTime() override {
    try {
      owner()->acceptingIs(true);
    } catch (std::exception const& e) {
      KEL_TRACE(2, owner()->name_ << ": cannot accept again: " << e.what());
    }
  }
};

// One client: reads until the protocol has a reply, queues it, writes it as
// the socket takes it and closes. Lives in the server's table until then;
// callbacks hold a reference to it because closing takes it out of the
// table.
class StreamServer::Connection : public Kel::FileDescriptor::Notifiee {
 public:
  Connection(StreamServer* server, int descriptor);
  ~Connection() override { closeDescriptor(); }

  void onReadableCount() override { serve(&Connection::readSome); }
  void onWritableCount() override { serve(&Connection::writeSome); }
  void onDeadline() { serve(&Connection::deadlinePassed); }
  // Closes and leaves the server, whatever is left unsent.
  void drop();
  void closeDescriptor();

 private:
  using Deadline = Kel::ClockReactor<Connection, &Connection::onDeadline>;

  // Nothing may escape into the loop: the agent serves on.
  void serve(void (Connection::*step)());
  void readSome();
  void writeSome();
  void deadlinePassed();
  // Stops reading and starts writing; closes once all is written; drops
  // the client for nothing.
  void replyIs(std::optional<std::string> reply);
  bool replying() const { return !output_.empty(); }

  StreamServer* server_;
  int descriptor_;
  Kel::Ptr<Kel::FileDescriptor> fileDescriptor_;
  std::string request_;
  std::string output_;
  std::size_t sent_ = 0;
  // For the request while reading, then for progress of the reply.
  Kel::Nested<Deadline> deadline_{this};
};

StreamServer::Connection::Connection(StreamServer* server, int descriptor) : server_(server), descriptor_(descriptor) {
  fileDescriptor_ = Kel::FileDescriptor::FileDescriptorIs("AgentStreamConnection");
  fileDescriptor_->descriptorIs(descriptor);
  fileDescriptor_->nonBlockingIs(true);
  fileDescriptor_->notifyOnReadableIs(true);
  notifierIs(fileDescriptor_);
  deadline_->notifierIs(Kel::activityManager()->clock());
  deadline_->timeMinIs(Kel::now() + server->requestTimeout());
}

void StreamServer::Connection::serve(void (Connection::*step)()) {
  Kel::Ptr<Connection> const keep(this);
  try {
    (this->*step)();
  } catch (std::exception const& e) {
    KEL_TRACE(2, server_->name_ << ": connection failed: " << e.what());
    drop();
  } catch (...) {
    drop();
  }
}

void StreamServer::Connection::readSome() {
  std::size_t const old = request_.size();
  // Never more than one byte past the limit, which tells an oversized request.
  std::size_t const room = std::min(readChunk, server_->maxRequestBytes_ + 1 - old);
  request_.resize(old + room);
  ssize_t const n = recv(descriptor_, request_.data() + old, room, 0);
  if (n < 0) {
    request_.resize(old);
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
    KEL_TRACE(4, server_->name_ << ": read failed: " << errnoText(errno));
    drop();
    return;
  }
  request_.resize(old + static_cast<std::size_t>(n));
  bool const ended = n == 0 || request_.size() > server_->maxRequestBytes_;
  std::optional<std::string> reply = server_->protocol_.reply(request_, ended);
  if (reply || ended) replyIs(std::move(reply));
}

void StreamServer::Connection::deadlinePassed() {
  if (replying()) {
    KEL_TRACE(4, server_->name_ << ": client dropped: it read nothing of its reply for " << server_->requestTimeout()
                                << " s");
    drop();
  } else {
    replyIs(server_->protocol_.timedOut());
  }
}

void StreamServer::Connection::replyIs(std::optional<std::string> reply) {
  if (!reply || reply->empty()) {
    drop();
    return;
  }
  output_ = std::move(*reply);
  request_.clear();
  request_.shrink_to_fit();
  // Whatever else the client sends is left unread, so the descriptor is not
  // reported readable on every turn.
  fileDescriptor_->notifyOnReadableIs(false);
  deadline_->timeMinIs(Kel::now() + server_->requestTimeout());
  writeSome();
}

void StreamServer::Connection::writeSome() {
  std::size_t const before = sent_;
  while (sent_ < output_.size()) {
    ssize_t const n = send(descriptor_, output_.data() + sent_, output_.size() - sent_, MSG_NOSIGNAL);
    if (n >= 0) {
      sent_ += static_cast<std::size_t>(n);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      break;
    } else if (errno != EINTR) {
      KEL_TRACE(4, server_->name_ << ": reply not sent: " << errnoText(errno));
      drop();
      return;
    }
  }
  if (sent_ == output_.size()) {
    drop();
    return;
  }
  if (sent_ > before) deadline_->timeMinIs(Kel::now() + server_->requestTimeout());
  fileDescriptor_->notifyOnWritableIs(true);
}

void StreamServer::Connection::drop() {
  closeDescriptor();
  server_->connectionDel(this);
}

void StreamServer::Connection::closeDescriptor() {
  if (descriptor_ < 0) return;
  deadline_->notifierIs(nullptr);
  notifierIs(nullptr);
  // The loop must forget the number before the kernel can hand it out again.
  fileDescriptor_->descriptorIs(-1);
  close(descriptor_);
  descriptor_ = -1;
}

StreamServer::StreamServer(int listenDescriptor, std::string name, Protocol protocol, double requestTimeout,
                           std::size_t maxRequestBytes)
    : listenDescriptor_(listenDescriptor),
      name_(std::move(name)),
      protocol_(std::move(protocol)),
      requestTimeout_(requestTimeout),
      maxRequestBytes_(maxRequestBytes) {
  try {
    if (!protocol_.reply || !protocol_.timedOut || !protocol_.admit)
      throw std::invalid_argument(name_ + ": no protocol");
    if (!(requestTimeout_ > 0)) throw std::invalid_argument(name_ + ": the request timeout must be positive");
    listenFileDescriptor_ = Kel::FileDescriptor::FileDescriptorIs("AgentStreamListener");
    listenFileDescriptor_->descriptorIs(listenDescriptor_);
    listenFileDescriptor_->nonBlockingIs(true);
    listener_ = Kel::Nested<Listener>(this);
    listener_->notifierIs(listenFileDescriptor_);
    acceptResumer_ = Kel::Nested<AcceptResumer>(this);
    acceptResumer_->notifierIs(Kel::activityManager()->clock());
    acceptingIs(true);
  } catch (...) {
    if (listenFileDescriptor_) listenFileDescriptor_->descriptorIs(-1);
    close(listenDescriptor_);
    throw;
  }
}

StreamServer::~StreamServer() {
  for (auto& entry : connections_) entry.second->closeDescriptor();
  connections_.clear();
  listenFileDescriptor_->descriptorIs(-1);
  close(listenDescriptor_);
}

void StreamServer::acceptingIs(bool v) {
  accepting_ = v;
  acceptResumer_->timeMinIs(v ? Kel::Clock::never : Kel::now() + acceptPause);
  acceptUpdate();
}

void StreamServer::acceptUpdate() {
  listenFileDescriptor_->notifyOnReadableIs(accepting_ && connections_.size() < maxConnections);
}

void StreamServer::acceptSome() {
  for (int i = 0; i < acceptsPerTurn && connections_.size() < maxConnections; ++i) {
    int const descriptor = accept4(listenDescriptor_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor < 0) {
      int const error = errno;
      if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
        KEL_TRACE(2, name_ << ": accept: " << errnoText(error) << "; pausing");
        acceptingIs(false);
      }
      // EAGAIN and a client gone before accept: the next readiness brings
      // the next client.
      return;
    }
    if (!protocol_.admit(descriptor)) {
      close(descriptor);
      continue;
    }
    Kel::Ptr<Connection> connection;
    try {
      connection = new Connection(this, descriptor);
    } catch (std::exception const& e) {
      // The half-made connection let go of the descriptor on its way out.
      KEL_TRACE(2, name_ << ": cannot serve a client: " << e.what());
      close(descriptor);
      continue;
    }
    connections_.emplace(connection.ptr(), connection);
    ++connectionsAccepted_;
  }
  acceptUpdate();
}

void StreamServer::connectionDel(Connection* connection) {
  connections_.erase(connection);
  acceptUpdate();
}

}  // namespace Agent
