#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent/Agent.h"
#include "agent/ControlClient.h"
#include "agent/ControlOperations.h"
#include "agent/ControlServer.h"
#include "agent/SocketPath.h"
#include "runtime/ActivityManager.h"
#include "runtime/FileDescriptor.h"
#include "tests/agent/AgentProcess.h"
#include "tests/support/TestFiles.h"
#include "tests/support/WhatOf.h"

namespace {

using nlohmann::json;

sockaddr_un addressOf(std::string const& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  return address;
}

int connectedSocket(std::string const& path) {
  int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un const address = addressOf(path);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address), 0) << std::strerror(errno);
  return fd;
}

// Everything the peer sends until it closes.
std::string readAll(int fd) {
  std::string out;
  char buffer[4096];
  for (;;) {
    ssize_t const n = recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) return out;
    out.append(buffer, static_cast<std::size_t>(n));
  }
}

int bytesWaiting(int fd) {
  int n = 0;
  EXPECT_EQ(ioctl(fd, FIONREAD, &n), 0);
  return n;
}

bool peerGone(int fd) {
  pollfd p{fd, POLLRDHUP, 0};
  return poll(&p, 1, 0) == 1 && (p.revents & (POLLHUP | POLLRDHUP));
}

void sendAll(int fd, std::string const& bytes) {
  ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

// A socket file nobody listens on, as a crashed agent leaves it.
void makeStaleSocket(std::string const& path) {
  int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un const address = addressOf(path);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address), 0);
  close(fd);
}

// The client blocks, so it runs on a thread of its own while this one turns
// the loop for the server. The client's end wakes the loop through an
// eventfd.
void whileServing(std::function<void()> const& client) {
  int const wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  ASSERT_GE(wake, 0);
  Kel::Ptr<Kel::FileDescriptor> const woken = Kel::FileDescriptor::FileDescriptorIs("ClientDone");
  woken->descriptorIs(wake);
  woken->notifyOnReadableIs(true);
  std::atomic<bool> done{false};
  std::thread thread([&] {
    client();
    done = true;
    std::uint64_t const one = 1;
    EXPECT_EQ(write(wake, &one, sizeof one), static_cast<ssize_t>(sizeof one));
  });
  bool const finished = Kel::activityManager()->loop().runUntil([&] { return done.load(); }, 30);
  thread.join();
  woken->descriptorIs(-1);
  close(wake);
  EXPECT_TRUE(finished);
}

struct Outcome {
  json reply;
  std::string error;
};

Outcome exchange(std::string const& path, json const& request) {
  Outcome outcome;
  whileServing([&] { outcome.error = whatOf([&] { outcome.reply = Agent::request(path, request); }); });
  return outcome;
}

// Sends bytes as they are, then the end of the stream, and returns everything
// the server answers.
std::string rawExchange(std::string const& path, std::string const& bytes) {
  std::string answer;
  whileServing([&] {
    int const fd = connectedSocket(path);
    // The server may stop reading, reply and close before all is sent.
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      ssize_t const n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<std::size_t>(n);
    }
    shutdown(fd, SHUT_WR);
    answer = readAll(fd);
    close(fd);
  });
  return answer;
}

class ControlIntegration : public ::testing::Test {
 protected:
  // Records each request the handler gets; answers a status with a payload.
  Agent::ControlServer::Handler recorder() {
    return [this](json const& request) -> json {
      handled_.push_back(request);
      if (request.at("command") == "replicate" && request.contains("path")) throw std::runtime_error("no such file");
      if (request.at("command") == "status") return {{"requesters", json::object()}};
      return nullptr;
    };
  }

  TempDir dir_;
  std::string const root_ = dir_.path();
  // The server is to create the socket's directory.
  std::string const path_ = root_ + "/run/filerep.sock";
  std::vector<json> handled_;
};

TEST_F(ControlIntegration, RoundTripsRequestsOnAPrivateSocket) {
  std::optional<Agent::ControlServer> server;
  server.emplace(path_, recorder());

  struct stat st {};
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  ASSERT_EQ(stat((root_ + "/run").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);

  Outcome status = exchange(path_, {{"command", "status"}});
  EXPECT_EQ(status.error, "no exception");
  EXPECT_EQ(status.reply, (json{{"ok", true}, {"requesters", json::object()}}));

  Outcome replicate = exchange(path_, {{"command", "replicate"}, {"requester", "r1"}});
  EXPECT_EQ(replicate.reply, (json{{"ok", true}}));
  Outcome failing = exchange(path_, {{"command", "replicate"}, {"requester", "r1"}, {"path", "/x"}});
  EXPECT_EQ(failing.reply, (json{{"ok", false}, {"error", "no such file"}}));
  Outcome deleting = exchange(path_, {{"command", "deleteIfNotExist"}, {"requester", "r2"}});
  EXPECT_EQ(deleting.reply, (json{{"ok", true}}));
  ASSERT_EQ(handled_.size(), 4u);
  EXPECT_EQ(handled_[2], (json{{"command", "replicate"}, {"requester", "r1"}, {"path", "/x"}}));
  EXPECT_EQ(handled_[3], (json{{"command", "deleteIfNotExist"}, {"requester", "r2"}}));

  // A reply many times the socket buffer arrives whole.
  json files = json::object();
  for (int i = 0; i < 10000; ++i) {
    files["/srv/data/file-" + std::to_string(i)] = {{"status", "synchronized"}, {"state", "standby"}};
  }
  Agent::ControlServer big(root_ + "/big.sock", [&](json const&) -> json { return {{"files", files}}; });
  Outcome large = exchange(big.socketPath(), {{"command", "status"}});
  EXPECT_EQ(large.error, "no exception");
  EXPECT_EQ(large.reply["files"], files);

  EXPECT_EQ(server->connectionsAccepted(), 4u);
  EXPECT_EQ(server->connections(), 0u);
  server.reset();
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(path_)));
}

TEST_F(ControlIntegration, BadRequestsGetErrorsAndTheServerServesOn) {
  Agent::ControlServer server(path_, recorder());
  auto const errorFor = [&](std::string const& bytes) {
    std::string const answer = rawExchange(path_, bytes);
    EXPECT_FALSE(answer.empty()) << bytes.substr(0, 80);
    EXPECT_EQ(answer.find('\n'), answer.size() - 1) << answer;
    json const reply = json::parse(answer, nullptr, false);
    EXPECT_EQ(reply.value("ok", true), false) << answer;
    return reply.value("error", std::string());
  };
  EXPECT_EQ(errorFor("{\"command\": \"status\"\n"), "request is not valid JSON");
  EXPECT_EQ(errorFor("[\"status\"]\n"), "request must be a JSON object");
  EXPECT_EQ(errorFor("{}\n"), "request has no \"command\"");
  EXPECT_EQ(errorFor("{\"command\": 7}\n"), "\"command\" must be a string");
  EXPECT_EQ(errorFor("{\"command\": \"stop\"}\n"),
            "unknown command \"stop\" (known: status, metrics, replicate, deleteIfNotExist)");
  EXPECT_EQ(errorFor("{\"command\": \"replicate\"}\n"), "replicate request has no \"requester\"");
  EXPECT_EQ(errorFor("{\"command\": \"deleteIfNotExist\", \"requester\": 3}\n"), "\"requester\" must be a string");
  EXPECT_EQ(errorFor("{\"command\": \"replicate\", \"requester\": \"r\", \"path\": [\"/a\"]}\n"),
            "\"path\" must be a string");
  EXPECT_EQ(errorFor("{\"command\": \"deleteIfNotExist\", \"requester\": \"r\", \"path\": \"/a\"}\n"),
            "unknown field \"path\" in a deleteIfNotExist request");
  EXPECT_EQ(errorFor("{\"command\": \"status\", \"x\": " + std::string(30000, '[') + "\n"),
            "request is not valid JSON");
  EXPECT_EQ(errorFor("{\"command\": \"status\""), "request ended without a newline");
  EXPECT_EQ(errorFor(std::string(70 * 1024, 'x')), "request longer than 65536 bytes");
  EXPECT_TRUE(handled_.empty());

  // The longest request allowed still gets through.
  std::string longest = "{\"command\": \"status\"}";
  longest.append(Agent::ControlServer::maxRequestBytes - longest.size(), ' ');
  json const reply = json::parse(rawExchange(path_, longest + "\n"));
  EXPECT_EQ(reply, (json{{"ok", true}, {"requesters", json::object()}}));
  EXPECT_EQ(handled_.size(), 1u);
  EXPECT_EQ(server.connections(), 0u);
}

TEST_F(ControlIntegration, OneAgentPerSocket) {
  std::filesystem::create_directory(root_ + "/run");
  chmod((root_ + "/run").c_str(), 0700);
  makeStaleSocket(path_);
  {
    Agent::ControlServer first(path_, recorder());
    EXPECT_EQ(exchange(path_, {{"command", "status"}}).reply.value("ok", false), true);
    EXPECT_EQ(whatOf([&] { Agent::ControlServer second(path_, recorder()); }),
              "another agent is already listening on " + path_);
    // The refused agent leaves the socket alone, and the probe does the
    // first no harm.
    EXPECT_EQ(exchange(path_, {{"command", "status"}}).reply.value("ok", false), true);
    EXPECT_EQ(first.connections(), 0u);

    // A file that took the socket's place is not the server's to remove.
    std::filesystem::remove(path_);
    std::ofstream(path_) << "not a socket\n";
  }
  EXPECT_TRUE(std::filesystem::is_regular_file(path_));
  EXPECT_EQ(whatOf([&] { Agent::ControlServer server(path_, recorder()); }),
            path_ + " exists and is not a socket; not removing it");
  EXPECT_TRUE(std::filesystem::is_regular_file(path_));

  std::string const shared = root_ + "/shared";
  std::filesystem::create_directory(shared);
  chmod(shared.c_str(), 0770);
  EXPECT_EQ(whatOf([&] { Agent::ControlServer server(shared + "/filerep.sock", recorder()); }),
            "socket directory " + shared + " is writable by group or others (mode 0770); make it 0700");
}

TEST_F(ControlIntegration, SilentAndStuckClientsAreDroppedAndWaitingOnesServedThen) {
  Kel::Ptr<Kel::Clock> const clock = Kel::activityManager()->clock();
  clock->manualTimeIs(true);
  struct RealTimeAgain {
    Kel::Ptr<Kel::Clock> clock;
    ~RealTimeAgain() { clock->manualTimeIs(false); }
  } const realTimeAgain{clock};
  Kel::EventLoop& loop = Kel::activityManager()->loop();
  std::size_t const most = Agent::ControlServer::maxConnections;

  std::string const filler(4 << 20, 'x');
  Agent::ControlServer server(
      path_,
      [&](json const&) -> json {
        return {{"filler", filler}};
      },
      5);
  int const silent = connectedSocket(path_);
  int const partial = connectedSocket(path_);
  sendAll(partial, "{\"comm");
  int const stuck = connectedSocket(path_);
  sendAll(stuck, "{\"command\": \"status\"}\n");
  // One more than the server takes: the last waits in the backlog.
  std::vector<int> others;
  while (others.size() + 3 <= most) others.push_back(connectedSocket(path_));
  EXPECT_TRUE(loop.runUntil([&] { return server.connections() == most && bytesWaiting(stuck) > 0; }, 10));
  loop.turn(0);
  EXPECT_EQ(server.connectionsAccepted(), most);

  clock->advance(4.9);
  EXPECT_EQ(server.connections(), most);
  clock->advance(0.2);
  bool const waitingServed = loop.runUntil([&] { return server.connectionsAccepted() == most + 1; }, 10);
  EXPECT_TRUE(waitingServed);
  EXPECT_EQ(server.connections(), waitingServed ? 1u : 0u);
  std::string const noRequest = "{\"error\":\"no request within 5 s\",\"ok\":false}\n";
  EXPECT_EQ(readAll(silent), noRequest);
  EXPECT_EQ(readAll(partial), noRequest);
  std::string const cut = readAll(stuck);
  EXPECT_GT(cut.size(), 0u);
  EXPECT_LT(cut.size(), filler.size());
  EXPECT_EQ(cut.find('\n'), std::string::npos);

  clock->advance(5.1);
  EXPECT_EQ(server.connections(), 0u);
  if (waitingServed) {
    EXPECT_EQ(readAll(others.back()), noRequest);
  }
  for (int fd : others) close(fd);
  close(silent);
  close(partial);
  close(stuck);
}

TEST_F(ControlIntegration, ClientSaysWhatWentWrong) {
  std::filesystem::create_directory(root_ + "/run");
  EXPECT_EQ(whatOf([&] {
              Agent::request(path_, {{"command", "status"}});
            }),
            "no agent is running on " + path_ + " (connect: No such file or directory)");
  makeStaleSocket(path_);
  EXPECT_EQ(whatOf([&] {
              Agent::request(path_, {{"command", "status"}});
            }),
            "no agent is running on " + path_ + " (connect: Connection refused)");
  std::filesystem::remove(path_);

  // A stand-in agent that answers each client with the next canned reply,
  // or with nothing.
  int const listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un const address = addressOf(path_);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr const*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 4), 0);
  auto const against = [&](std::optional<std::string> const& reply, double timeout) {
    std::string error;
    std::thread client([&] { error = whatOf([&] { Agent::request(path_, {{"command", "status"}}, timeout); }); });
    int const fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    char line[256];
    EXPECT_GT(recv(fd, line, sizeof line, 0), 0);
    if (reply) {
      EXPECT_EQ(send(fd, reply->data(), reply->size(), MSG_NOSIGNAL), static_cast<ssize_t>(reply->size()));
      close(fd);
      client.join();
    } else {
      client.join();
      close(fd);
    }
    return error;
  };
  std::string const malformed = "malformed reply from the agent on " + path_ + ": ";
  EXPECT_EQ(against("Traceback (most recent call last)\n", 10), malformed + "not JSON");
  EXPECT_EQ(against("{\"ok\": \"yes\"}\n", 10), malformed + "no boolean \"ok\"");
  EXPECT_EQ(against("{\"ok\": false}\n", 10), malformed + "an error without a message");
  EXPECT_EQ(against("{\"ok\": true", 10), malformed + "it ends without a newline");
  EXPECT_EQ(against("", 10), "the agent on " + path_ + " closed the connection without replying");
  EXPECT_EQ(against(std::nullopt, 0.05), "no reply from the agent on " + path_ + " within 0.05 s");
  close(listener);
}

// The real agent, in this process so that its loop can be watched: clients
// that ask for a status far larger than a socket buffer and read nothing of
// it hold up neither the replication of a changed file nor other clients.
TEST(AgentControlE2e, ClientsThatDoNotReadHoldUpNothing) {
  TempDir d;
  setenv("PATH", (std::string(REPLICATE_DIR) + ":" + getenv("PATH")).c_str(), 1);
  std::filesystem::create_directories(d / "src");
  writeFile(d / "src/a.txt", "a1");
  std::string config = "requesters:\n  web:\n    mode: inotify\n    files:\n      - {path: " + (d / "src/a.txt") +
                       ", dstPath: " + (d / "dst/a.txt") + "}\n  bulk:\n    mode: periodic\n    enabled: false\n" +
                       "    period: 60\n    files:\n";
  for (int i = 0; i < 8000; ++i) {
    config += "      - {path: " + (d / "bulk/f") + std::to_string(i) + ", dstPath: " + (d / "out/f") +
              std::to_string(i) + "}\n";
  }
  writeFile(d / "filerep.yaml", config);
  Agent::Agent agent({d / "filerep.yaml", d / "run/filerep.sock", ""});
  Kel::EventLoop& loop = Kel::activityManager()->loop();
  auto const synchronizedSince = [&](double t) {
    json const file = Agent::fileStatus(agent.status(), "web", d / "src/a.txt");
    return file.is_object() && file["status"] == "synchronized" && file["lastSynchronized"].is_number() &&
           file["lastSynchronized"].get<double>() >= t;
  };
  ASSERT_TRUE(loop.runUntil([&] { return synchronizedSince(0); }, 30));
  // Building the four replies takes the loop's time, and more so under a
  // sanitizer; waiting on a client that does not read would take 10 s each.
  auto const before = std::chrono::steady_clock::now();
  agent.status();
  double const statusSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();

  std::vector<int> stuck;
  for (int i = 0; i < 4; ++i) {
    stuck.push_back(connectedSocket(d / "run/filerep.sock"));
    sendAll(stuck.back(), "{\"command\": \"status\"}\n");
  }
  double const changed = Kel::now();
  auto const start = std::chrono::steady_clock::now();
  writeFile(d / "src/a.txt", "a2");
  ASSERT_TRUE(loop.runUntil(
      [&] {
        // The status of 8,000 files last: building it is what takes time.
        return readFile(d / "dst/a.txt") == "a2" &&
               std::all_of(stuck.begin(), stuck.end(), [](int fd) { return bytesWaiting(fd) > 0; }) &&
               synchronizedSince(changed);
      },
      30));
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 3 + 6 * statusSeconds);

  // Dropped once they have read nothing for the request time-out, with
  // their replies cut short.
  EXPECT_TRUE(loop.runUntil([&] { return std::all_of(stuck.begin(), stuck.end(), peerGone); }, 30));
  for (int fd : stuck) {
    std::string const cut = readAll(fd);
    EXPECT_EQ(cut.find('\n'), std::string::npos);
    close(fd);
  }

  // Every operation the server lets through has a handler; anything else is
  // an error, not a silent success.
  for (auto const& operation : Agent::controlOperations) {
    json request = {{"command", std::string(operation.name)}};
    for (auto const& field : operation.fields) {
      if (field.required) request[std::string(field.name)] = "nobody";
    }
    EXPECT_EQ(agent.handle(request).value("error", "").find("unknown command"), std::string::npos) << request;
  }
  EXPECT_EQ(agent.handle({{"command", "bogus"}}), (json{{"ok", false}, {"error", "unknown command \"bogus\""}}));
}

TEST(SocketPathTest, FollowsTheUsersRuntimeDirectory) {
  EXPECT_EQ(Agent::defaultSocketPath(0, "/run/user/0"), "/run/filerep/filerep.sock");
  EXPECT_EQ(Agent::defaultSocketPath(4242, "/run/user/4242"), "/run/user/4242/filerep.sock");
  EXPECT_EQ(Agent::defaultSocketPath(4242, "relative/dir"), "/tmp/filerep-4242/filerep.sock");
  EXPECT_EQ(Agent::defaultSocketPath(4242, ""), "/tmp/filerep-4242/filerep.sock");
  EXPECT_EQ(Agent::defaultSocketPath(4242, nullptr), "/tmp/filerep-4242/filerep.sock");
}

}  // namespace
