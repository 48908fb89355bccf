#include "tests/support/TestSshd.h"

#include "runtime/OwnedDescriptor.h"
#include "tests/support/TestProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace {

constexpr char const* sshdProgram = "/usr/sbin/sshd";
// Only a guard against a server that never comes up or never goes.
constexpr std::chrono::seconds guard{10};

std::runtime_error systemError(std::string const& what, int error = errno) {
  return std::runtime_error(what + ": " + std::strerror(error));
}

void makeKey(std::string const& file) {
  std::vector<std::string> const argv = {"/usr/bin/ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", file};
  if (exitCode(spawnProcess(argv, {}, "", -1, -1)) != 0) {
    throw std::runtime_error("ssh-keygen failed for " + file);
  }
}

bool acceptsConnections(int port) {
  Kel::OwnedDescriptor socketFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (socketFd.get() < 0) throw systemError("socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return connect(socketFd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

int milliSecondsUntil(std::chrono::steady_clock::time_point deadline) {
  auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

// Binding port 0 lets the kernel pick a port nobody uses; it stays free
// for sshd unless another process grabs it in between, which the
// ephemeral range makes unlikely.
int freePort() {
  Kel::OwnedDescriptor socketFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (socketFd.get() < 0) throw systemError("socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(socketFd.get(), reinterpret_cast<sockaddr*>(&address), length) != 0) throw systemError("bind");
  if (getsockname(socketFd.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw systemError("getsockname");
  }
  return ntohs(address.sin_port);
}

TestSshd::TestSshd() {
  makeKey(path("host_key"));
  makeKey(path("client_key"));
  std::filesystem::copy_file(path("client_key.pub"), path("authorized_keys"));
  port_ = freePort();
  writeFile(path("sshd_config"),
            "ListenAddress 127.0.0.1\n"
            "Port " +
                std::to_string(port_) +
                "\n"
                "HostKey " +
                path("host_key") +
                "\n"
                "AuthorizedKeysFile " +
                path("authorized_keys") +
                "\n"
                "PidFile " +
                path("sshd.pid") +
                "\n"
                "UsePAM no\n"
                "StrictModes no\n"
                "PasswordAuthentication no\n"
                "KbdInteractiveAuthentication no\n"
                "PermitRootLogin yes\n"
                // bash reads the user's ~/.bashrc when sshd starts it, unless
                // a shell started it: on a development machine that file may
                // start many programs (a version manager's set-up: 200 ms a
                // login here, and noise on stderr when logins overlap), a
                // cost of that machine and not of copying.
                "SetEnv SHLVL=1\n");
  start();
}

TestSshd::~TestSshd() {
  try {
    stop();
  } catch (std::exception const&) {
    // Nothing more to do for a server that will not go; the directory goes
    // anyway.
  }
}

std::string TestSshd::rsyncRsh() const {
  // No configuration file of the machine or the user, no known hosts and no
  // agent keys: only what this server needs.
  return "ssh -F /dev/null -p " + std::to_string(port_) + " -i " + path("client_key") +
         " -o IdentitiesOnly=yes -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o BatchMode=yes"
         " -o LogLevel=ERROR";
}

std::string TestSshd::log() const { return readFile(path("sshd.log")); }

void TestSshd::start() {
  if (running()) return;
  // The privilege separation directory; a package install makes it, a
  // fresh container may not have it.
  if (mkdir("/run/sshd", 0755) != 0 && errno != EEXIST) throw systemError("mkdir /run/sshd");
  unlink(path("sshd.pid").c_str());
  Kel::OwnedDescriptor logFd(open(path("sshd.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  if (logFd.get() < 0) throw systemError("open " + path("sshd.log"));
  pid_ = spawnProcess({sshdProgram, "-D", "-e", "-f", path("sshd_config")}, {}, "", -1, logFd.get());
  pidFd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
  if (pidFd_ < 0) {
    int const error = errno;
    kill(pid_, SIGKILL);
    exitCode(pid_);
    pid_ = -1;
    throw systemError("pidfd_open", error);
  }
  try {
    awaitListening();
  } catch (...) {
    stop();
    throw;
  }
}

// sshd writes its pid file once its socket listens, so the file appearing
// is the moment to look; sshd ending first is a failure to start.
void TestSshd::awaitListening() {
  Kel::OwnedDescriptor inotifyFd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (inotifyFd.get() < 0) throw systemError("inotify_init1");
  if (inotify_add_watch(inotifyFd.get(), directory_.path().c_str(), IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
    throw systemError("inotify_add_watch");
  }
  auto const deadline = std::chrono::steady_clock::now() + guard;
  struct stat status {};
  while (stat(path("sshd.pid").c_str(), &status) != 0 || status.st_size == 0) {
    pollfd fds[2] = {{inotifyFd.get(), POLLIN, 0}, {pidFd_, POLLIN, 0}};
    int const ready = poll(fds, 2, milliSecondsUntil(deadline));
    if (ready < 0 && errno != EINTR) throw systemError("poll");
    if (ready == 0) throw std::runtime_error("sshd did not start listening in time:\n" + log());
    if (fds[1].revents != 0) throw std::runtime_error("sshd ended at start:\n" + log());
    alignas(inotify_event) char events[4096];
    while (read(inotifyFd.get(), events, sizeof events) > 0) {
    }
  }
  if (!acceptsConnections(port_)) {
    int const error = errno;
    throw systemError("sshd does not accept connections on port " + std::to_string(port_) + ":\n" + log(), error);
  }
}

void TestSshd::stop() {
  if (!running()) return;
  kill(pid_, SIGTERM);
  pollfd ended = {pidFd_, POLLIN, 0};
  while (poll(&ended, 1, milliSecondsUntil(std::chrono::steady_clock::now() + guard)) < 0 && errno == EINTR) {
  }
  if (ended.revents == 0) kill(pid_, SIGKILL);
  exitCode(pid_);
  close(pidFd_);
  pid_ = -1;
  pidFd_ = -1;
}

void closeSshConnections(std::string const& directory) {
  std::error_code ignored;
  for (auto const& entry : std::filesystem::directory_iterator(directory, ignored)) {
    if (entry.is_socket()) runProcess({"ssh", "-o", "ControlPath=" + entry.path().string(), "-O", "exit", "localhost"});
  }
}
