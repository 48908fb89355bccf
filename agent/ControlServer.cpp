#include "agent/ControlServer.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "agent/ControlOperations.h"
#include "runtime/ActivityManager.h"
#include "runtime/Clock.h"
#include "runtime/FileDescriptor.h"
#include "runtime/Trace.h"

KEL_TRACE_FACILITY("AgentControl")

namespace Agent {

namespace {

constexpr int listenBacklog = 64;
constexpr std::size_t readChunk = 16 * 1024;
// Bounds the work one readiness of the listening socket does, so that a
// burst of clients does not starve the rest of the loop.
constexpr int acceptsPerTurn = 16;
// Out of descriptors or memory, accept() fails for as long as the backlog
// holds clients; accepting pauses this long instead of spinning.
constexpr double acceptPause = 1;

[[noreturn]] void fail(std::string const& message) { throw std::runtime_error(message); }

std::string errnoText(int error) { return std::strerror(error); }

nlohmann::json errorReply(std::string message) { return {{"ok", false}, {"error", std::move(message)}}; }

std::string secondsText(double seconds) {
  std::ostringstream text;
  text << seconds;
  return text.str();
}

sockaddr_un socketAddress(std::string const& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    fail("control socket path too long (" + std::to_string(path.size()) + " bytes, at most " +
         std::to_string(sizeof address.sun_path - 1) + "): " + path);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

sockaddr const* asSockaddr(sockaddr_un const& address) { return reinterpret_cast<sockaddr const*>(&address); }

// The directory is where the socket's protection lies: a socket file's own
// mode is not honoured everywhere, and whoever can write the directory can
// put another socket in its place.
void prepareDirectory(std::string const& directory) {
  struct stat st {};
  if (stat(directory.c_str(), &st) != 0) {
    if (errno != ENOENT) fail("cannot use socket directory " + directory + ": " + errnoText(errno));
    if (mkdir(directory.c_str(), 0700) == 0) {
      // The umask may have taken bits the owner needs.
      if (chmod(directory.c_str(), 0700) != 0) {
        fail("cannot set mode 0700 on socket directory " + directory + ": " + errnoText(errno));
      }
    } else if (errno != EEXIST) {
      fail("cannot create socket directory " + directory + ": " + errnoText(errno));
    }
    if (stat(directory.c_str(), &st) != 0) fail("cannot use socket directory " + directory + ": " + errnoText(errno));
  }
  if (!S_ISDIR(st.st_mode)) fail("socket directory " + directory + " is not a directory");
  if (st.st_uid != geteuid()) {
    fail("socket directory " + directory + " belongs to uid " + std::to_string(st.st_uid) + ", not to this user (uid " +
         std::to_string(geteuid()) + ")");
  }
  if (st.st_mode & (S_IWGRP | S_IWOTH)) {
    std::ostringstream mode;
    mode << std::oct << (st.st_mode & 07777);
    fail("socket directory " + directory + " is writable by group or others (mode 0" + mode.str() +
         "); make it 0700");
  }
}

// A socket file nobody listens on is what a crashed agent leaves behind; one
// somebody listens on belongs to a running agent.
void removeStaleSocket(std::string const& path, sockaddr_un const& address) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return;
    fail("cannot use control socket path " + path + ": " + errnoText(errno));
  }
  if (!S_ISSOCK(st.st_mode)) fail(path + " exists and is not a socket; not removing it");
  int const probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (probe < 0) fail("cannot create a socket: " + errnoText(errno));
  // Non-blocking, so a listener with a full backlog answers EAGAIN at once.
  int const rc = connect(probe, asSockaddr(address), sizeof address);
  int const error = errno;
  close(probe);
  if (rc == 0 || error == EAGAIN) fail("another agent is already listening on " + path);
  if (error != ECONNREFUSED) {
    fail("cannot tell whether an agent is listening on " + path + ": " + errnoText(error));
  }
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    fail("cannot remove stale control socket " + path + ": " + errnoText(errno));
  }
  KEL_TRACE(4, "replaced stale control socket " << path);
}

std::string requestProblem(nlohmann::json const& request) {
  if (!request.is_object()) return "request must be a JSON object";
  auto const command = request.find("command");
  if (command == request.end()) return "request has no \"command\"";
  if (!command->is_string()) return "\"command\" must be a string";
  std::string const& name = command->get_ref<std::string const&>();
  ControlOperation const* const operation = controlOperation(name);
  if (!operation) return "unknown command \"" + name + "\" (known: " + controlOperationNames() + ")";
  for (auto const& [key, value] : request.items()) {
    if (key == "command") continue;
    if (!controlField(*operation, key)) return "unknown field \"" + key + "\" in a " + name + " request";
    if (!value.is_string()) return "\"" + key + "\" must be a string";
    if (value.get_ref<std::string const&>().empty()) return "\"" + key + "\" must not be empty";
  }
  for (auto const& field : operation->fields) {
    std::string const key(field.name);
    if (field.required && !request.contains(key)) return name + " request has no \"" + key + "\"";
  }
  return {};
}

}  // namespace

// Reactors.

class ControlServer::Listener : public Kel::FileDescriptor::Notifiee {
 public:
  explicit Listener(ControlServer* server) : server_(server) {}
  void onReadableCount() override {
    // Nothing may escape into the loop: the agent serves on.
    try {
      server_->acceptSome();
    } catch (std::exception const& e) {
      KEL_TRACE(2, "control socket: " << e.what());
    }
  }

 private:
  ControlServer* server_;
};

class ControlServer::AcceptResumer : public Kel::Clock::Notifiee {
 public:
  explicit AcceptResumer(ControlServer* server) : server_(server) {}
  void onTime() override {
    try {
      server_->acceptingIs(true);
    } catch (std::exception const& e) {
      KEL_TRACE(2, "control socket: cannot accept again: " << e.what());
    }
  }

 private:
  ControlServer* server_;
};

// One client: reads until the newline, queues the reply, writes it as the
// socket takes it and closes. Lives in the server's table until then;
// callbacks hold a reference to it because closing takes it out of the
// table.
class ControlServer::Connection : public Kel::FileDescriptor::Notifiee {
 public:
  Connection(ControlServer* server, int descriptor);
  ~Connection() override { closeDescriptor(); }

  void onReadableCount() override { serve(&Connection::readSome); }
  void onWritableCount() override { serve(&Connection::writeSome); }
  void onDeadline() { serve(&Connection::deadlinePassed); }
  // Closes and leaves the server, whatever is left unsent.
  void drop();
  void closeDescriptor();

 private:
  class Deadline : public Kel::Clock::Notifiee {
   public:
    explicit Deadline(Connection* connection) : connection_(connection) {}
    void onTime() override { connection_->onDeadline(); }

   private:
    Connection* connection_;
  };

  // Nothing may escape into the loop: the agent serves on.
  void serve(void (Connection::*step)());
  void readSome();
  void writeSome();
  void deadlinePassed();
  // Stops reading and starts writing; closes once all is written.
  void replyIs(nlohmann::json const& reply);
  bool replying() const { return !output_.empty(); }

  ControlServer* server_;
  int descriptor_;
  Kel::Ptr<Kel::FileDescriptor> fileDescriptor_;
  std::string request_;
  std::string output_;
  std::size_t sent_ = 0;
  // For the request while reading, then for progress of the reply.
  Deadline deadline_{this};
};

ControlServer::Connection::Connection(ControlServer* server, int descriptor)
    : server_(server), descriptor_(descriptor) {
  fileDescriptor_ = Kel::FileDescriptor::FileDescriptorIs("AgentControlConnection");
  fileDescriptor_->descriptorIs(descriptor);
  fileDescriptor_->nonBlockingIs(true);
  fileDescriptor_->notifyOnReadableIs(true);
  notifierIs(fileDescriptor_);
  deadline_.notifierIs(Kel::activityManager()->clock());
  deadline_.timeMinIs(Kel::now() + server->requestTimeout());
}

void ControlServer::Connection::serve(void (Connection::*step)()) {
  Kel::Ptr<Connection> const keep(this);
  try {
    (this->*step)();
  } catch (std::exception const& e) {
    KEL_TRACE(2, "control connection failed: " << e.what());
    drop();
  } catch (...) {
    drop();
  }
}

void ControlServer::Connection::readSome() {
  std::size_t const old = request_.size();
  // Never more than one byte past the limit, which tells an oversized request.
  std::size_t const room = std::min(readChunk, maxRequestBytes + 1 - old);
  request_.resize(old + room);
  ssize_t const n = recv(descriptor_, request_.data() + old, room, 0);
  if (n < 0) {
    request_.resize(old);
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
    KEL_TRACE(4, "control connection read failed: " << errnoText(errno));
    drop();
    return;
  }
  request_.resize(old + static_cast<std::size_t>(n));
  if (n == 0) {
    // A client that connects and goes, as an agent checking for another does,
    // gets no reply.
    if (old == 0) {
      drop();
    } else {
      replyIs(errorReply("request ended without a newline"));
    }
    return;
  }
  std::size_t const newline = request_.find('\n', old);
  if (newline != std::string::npos && newline <= maxRequestBytes) {
    replyIs(server_->replyTo(std::string_view(request_.data(), newline)));
  } else if (request_.size() > maxRequestBytes) {
    replyIs(errorReply("request longer than " + std::to_string(maxRequestBytes) + " bytes"));
  }
}

void ControlServer::Connection::deadlinePassed() {
  if (replying()) {
    KEL_TRACE(4, "control client dropped: it read nothing of its reply for " << server_->requestTimeout() << " s");
    drop();
  } else {
    replyIs(errorReply("no request within " + secondsText(server_->requestTimeout()) + " s"));
  }
}

void ControlServer::Connection::replyIs(nlohmann::json const& reply) {
  // Paths need not be UTF-8; a reply must still go out.
  output_ = reply.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
  if (output_.size() > maxReplyBytes) {
    output_ = errorReply("the reply has " + std::to_string(output_.size()) + " bytes, more than the " +
                         std::to_string(maxReplyBytes) + " the control socket sends")
                  .dump() +
              '\n';
  }
  request_.clear();
  request_.shrink_to_fit();
  // Whatever else the client sends is left unread, so the descriptor is not
  // reported readable on every turn.
  fileDescriptor_->notifyOnReadableIs(false);
  deadline_.timeMinIs(Kel::now() + server_->requestTimeout());
  writeSome();
}

void ControlServer::Connection::writeSome() {
  std::size_t const before = sent_;
  while (sent_ < output_.size()) {
    ssize_t const n = send(descriptor_, output_.data() + sent_, output_.size() - sent_, MSG_NOSIGNAL);
    if (n >= 0) {
      sent_ += static_cast<std::size_t>(n);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      break;
    } else if (errno != EINTR) {
      KEL_TRACE(4, "control reply not sent: " << errnoText(errno));
      drop();
      return;
    }
  }
  if (sent_ == output_.size()) {
    drop();
    return;
  }
  if (sent_ > before) deadline_.timeMinIs(Kel::now() + server_->requestTimeout());
  fileDescriptor_->notifyOnWritableIs(true);
}

void ControlServer::Connection::drop() {
  closeDescriptor();
  server_->connectionDel(this);
}

void ControlServer::Connection::closeDescriptor() {
  if (descriptor_ < 0) return;
  deadline_.notifierIs(nullptr);
  notifierIs(nullptr);
  // The loop must forget the number before the kernel can hand it out again.
  fileDescriptor_->descriptorIs(-1);
  close(descriptor_);
  descriptor_ = -1;
}

// ControlServer.

ControlServer::ControlServer(std::string socketPath, Handler handler, double requestTimeout)
    : socketPath_(std::move(socketPath)), handler_(std::move(handler)), requestTimeout_(requestTimeout) {
  if (socketPath_.empty()) fail("the control socket path is empty");
  if (!handler_) fail("the control server needs a handler");
  if (!(requestTimeout_ > 0)) fail("the control request timeout must be positive");
  sockaddr_un const address = socketAddress(socketPath_);
  std::string directory = std::filesystem::path(socketPath_).parent_path().string();
  prepareDirectory(directory.empty() ? "." : directory);
  removeStaleSocket(socketPath_, address);

  listenDescriptor_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listenDescriptor_ < 0) fail("cannot create the control socket: " + errnoText(errno));
  bool bound = false;
  try {
    // Connecting needs write permission on the socket file, so it is created
    // 0600: umask is the only control over the mode bind gives it.
    mode_t const oldMask = umask(0177);
    int const rc = bind(listenDescriptor_, asSockaddr(address), sizeof address);
    int const error = errno;
    umask(oldMask);
    if (rc != 0) fail("cannot bind the control socket " + socketPath_ + ": " + errnoText(error));
    bound = true;
    struct stat st {};
    if (stat(socketPath_.c_str(), &st) != 0) fail("cannot stat " + socketPath_ + ": " + errnoText(errno));
    socketDevice_ = st.st_dev;
    socketInode_ = st.st_ino;
    if (listen(listenDescriptor_, listenBacklog) != 0) {
      fail("cannot listen on " + socketPath_ + ": " + errnoText(errno));
    }
    listenFileDescriptor_ = Kel::FileDescriptor::FileDescriptorIs("AgentControlListener");
    listenFileDescriptor_->descriptorIs(listenDescriptor_);
    listenFileDescriptor_->nonBlockingIs(true);
    listener_ = new Listener(this);
    listener_->notifierIs(listenFileDescriptor_);
    acceptResumer_ = new AcceptResumer(this);
    acceptResumer_->notifierIs(Kel::activityManager()->clock());
    acceptingIs(true);
  } catch (...) {
    if (listenFileDescriptor_) listenFileDescriptor_->descriptorIs(-1);
    close(listenDescriptor_);
    if (bound) unlink(socketPath_.c_str());
    throw;
  }
}

ControlServer::~ControlServer() {
  for (auto& entry : connections_) entry.second->closeDescriptor();
  connections_.clear();
  acceptResumer_->notifierIs(nullptr);
  listener_->notifierIs(nullptr);
  listenFileDescriptor_->descriptorIs(-1);
  close(listenDescriptor_);
  struct stat st {};
  if (stat(socketPath_.c_str(), &st) == 0 && st.st_dev == socketDevice_ && st.st_ino == socketInode_) {
    unlink(socketPath_.c_str());
  }
}

void ControlServer::acceptingIs(bool v) {
  accepting_ = v;
  acceptResumer_->timeMinIs(v ? Kel::Clock::never : Kel::now() + acceptPause);
  acceptUpdate();
}

void ControlServer::acceptUpdate() {
  listenFileDescriptor_->notifyOnReadableIs(accepting_ && connections_.size() < maxConnections);
}

void ControlServer::acceptSome() {
  for (int i = 0; i < acceptsPerTurn && connections_.size() < maxConnections; ++i) {
    int const descriptor = accept4(listenDescriptor_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor < 0) {
      int const error = errno;
      if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
        KEL_TRACE(2, "control socket: accept: " << errnoText(error) << "; pausing");
        acceptingIs(false);
      }
      // EAGAIN and a client gone before accept: the next readiness brings
      // the next client.
      return;
    }
    // The socket's mode already keeps others out where it is honoured; the
    // peer's uid keeps them out everywhere.
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 ||
        (peer.uid != geteuid() && peer.uid != 0)) {
      KEL_TRACE(2, "control socket: refused a client of uid " << peer.uid);
      close(descriptor);
      continue;
    }
    Kel::Ptr<Connection> connection;
    try {
      connection = new Connection(this, descriptor);
    } catch (std::exception const& e) {
      // The half-made connection let go of the descriptor on its way out.
      KEL_TRACE(2, "control socket: cannot serve a client: " << e.what());
      close(descriptor);
      continue;
    }
    connections_.emplace(connection.ptr(), connection);
    ++connectionsAccepted_;
  }
  acceptUpdate();
}

nlohmann::json ControlServer::replyTo(std::string_view line) const {
  nlohmann::json const request = nlohmann::json::parse(line, nullptr, false);
  if (request.is_discarded()) return errorReply("request is not valid JSON");
  std::string const problem = requestProblem(request);
  if (!problem.empty()) return errorReply(problem);
  nlohmann::json reply;
  try {
    reply = handler_(request);
  } catch (std::exception const& e) {
    return errorReply(e.what());
  } catch (...) {
    return errorReply("internal error");
  }
  if (reply.is_null()) reply = nlohmann::json::object();
  if (!reply.is_object()) return errorReply("internal error: the reply is not an object");
  if (!reply.contains("ok")) reply["ok"] = true;
  return reply;
}

void ControlServer::connectionDel(Connection* connection) {
  connections_.erase(connection);
  acceptUpdate();
}

}  // namespace Agent
