#pragma once

#include <sys/types.h>

#include <string>

#include "tests/support/TestFiles.h"

// An sshd of the test's own on 127.0.0.1, on a free high port, with host and
// client keys made for it in a temporary directory. It reads nothing of the
// machine's ssh setup and changes nothing outside that directory but
// /run/sshd, which sshd needs. It lets in every user, root included, who
// offers the client key.
class TestSshd {
 public:
  // Makes the keys and starts the server; throws std::runtime_error with
  // what sshd said when it does not come up.
  TestSshd();
  // Stops the server and removes the directory.
  ~TestSshd();
  TestSshd(TestSshd const&) = delete;
  TestSshd& operator=(TestSshd const&) = delete;

  // Starts the server again, on the same port. Returns once it accepts
  // connections.
  void start();
  // Stops listening. Sessions already open are left to end with their
  // clients, as with a real sshd.
  void stop();
  bool running() const { return pid_ > 0; }

  int port() const { return port_; }
  // The ssh command that reaches this server, for $RSYNC_RSH.
  std::string rsyncRsh() const;
  // The temporary directory; tests may keep their own files in it.
  std::string const& directory() const { return directory_.path(); }
  // What sshd logged so far, for failure messages.
  std::string log() const;

 private:
  std::string path(char const* name) const { return directory_ / name; }
  void awaitListening();

  TempDir directory_;
  int port_ = 0;
  pid_t pid_ = -1;
  int pidFd_ = -1;
};

// A free TCP port on 127.0.0.1, for a server a test starts.
int freePort();

// Closes every shared ssh connection whose control socket is in directory,
// as a network that drops them would.
void closeSshConnections(std::string const& directory);
