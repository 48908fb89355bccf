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
    fail("socket directory " + directory + " is writable by group or others (mode 0" + mode.str() + "); make it 0700");
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

// One line on the wire. Paths need not be UTF-8; a reply must still go out.
std::string line(nlohmann::json const& reply) {
  std::string text = reply.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
  if (text.size() <= ControlServer::maxReplyBytes) return text;
  return errorReply("the reply has " + std::to_string(text.size()) + " bytes, more than the " +
                    std::to_string(ControlServer::maxReplyBytes) + " the control socket sends")
             .dump() +
         '\n';
}

// The socket's mode already keeps others out where it is honoured; the
// peer's uid keeps them out everywhere.
bool peerAllowed(int descriptor) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
      (peer.uid == geteuid() || peer.uid == 0)) {
    return true;
  }
  KEL_TRACE(2, "control socket: refused a client of uid " << peer.uid);
  return false;
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

  int const listenDescriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listenDescriptor < 0) fail("cannot create the control socket: " + errnoText(errno));
  bool bound = false;
  try {
    // Connecting needs write permission on the socket file, so it is created
    // 0600: umask is the only control over the mode bind gives it.
    mode_t const oldMask = umask(0177);
    int const rc = bind(listenDescriptor, asSockaddr(address), sizeof address);
    int const error = errno;
    umask(oldMask);
    if (rc != 0) fail("cannot bind the control socket " + socketPath_ + ": " + errnoText(error));
    bound = true;
    struct stat st {};
    if (stat(socketPath_.c_str(), &st) != 0) fail("cannot stat " + socketPath_ + ": " + errnoText(errno));
    socketDevice_ = st.st_dev;
    socketInode_ = st.st_ino;
    if (listen(listenDescriptor, listenBacklog) != 0) {
      fail("cannot listen on " + socketPath_ + ": " + errnoText(errno));
    }
  } catch (...) {
    close(listenDescriptor);
    if (bound) unlink(socketPath_.c_str());
    throw;
  }
  StreamServer::Protocol protocol;
  protocol.reply = [this](std::string_view received, bool ended) { return replyText(received, ended); };
  protocol.timedOut = [this]() -> std::optional<std::string> {
    return line(errorReply("no request within " + secondsText(requestTimeout_) + " s"));
  };
  protocol.admit = peerAllowed;
  try {
    stream_.emplace(listenDescriptor, "control socket", std::move(protocol), requestTimeout_, maxRequestBytes);
  } catch (...) {
    unlink(socketPath_.c_str());
    throw;
  }
}

ControlServer::~ControlServer() {
  stream_.reset();
  struct stat st {};
  if (stat(socketPath_.c_str(), &st) == 0 && st.st_dev == socketDevice_ && st.st_ino == socketInode_) {
    unlink(socketPath_.c_str());
  }
}

std::optional<std::string> ControlServer::replyText(std::string_view received, bool ended) const {
  std::size_t const newline = received.find('\n');
  if (newline != std::string_view::npos && newline <= maxRequestBytes)
    return line(replyTo(received.substr(0, newline)));
  if (!ended) return std::nullopt;
  // A client that connects and goes, as an agent checking for another does,
  // gets no reply.
  if (received.empty()) return std::nullopt;
  if (received.size() > maxRequestBytes) {
    return line(errorReply("request longer than " + std::to_string(maxRequestBytes) + " bytes"));
  }
  return line(errorReply("request ended without a newline"));
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

}  // namespace Agent
