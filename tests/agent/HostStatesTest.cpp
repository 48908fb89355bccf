#include "agent/HostStates.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tests/FileReplication/SmTest.h"
#include "tools/Replicate/ControlDirectory.h"

namespace Agent {
namespace {

using FileReplication::Config;
using FileReplication::RequesterConfig;
using Strings = std::vector<std::string>;
using State = HostStates::State;

constexpr double t0 = 1700000000;

std::string stateText(char const* state, double since, double nextTry, std::string const& error = "") {
  auto const number = [](double t) { return std::to_string(static_cast<long long>(t)); };
  return std::string("state ") + state + "\nsince " + number(since) + "\nlastSuccess " + number(t0 - 1000) +
         "\nfailures 2\nnextTry " + number(nextTry) + "\nerror " + error + "\n";
}

// Real inotify on Replicate's control directory under a temporary
// XDG_RUNTIME_DIR; manual time, and probes scripted rather than run.
class HostStatesIntegration : public FileReplication::SmTest {
 protected:
  void SetUp() override {
    if (char const* v = getenv("XDG_RUNTIME_DIR")) savedRuntimeDir_ = v;
    setenv("XDG_RUNTIME_DIR", dir_.path().c_str(), 1);
    controlDir_ = Replicate::controlDirectory();
    clock()->nowIs(t0);
    web_->remoteHostIs("h1");
    web_->remoteHostIs("user@[::1]");
    web_->sshOptionsIs("-p 2222");
    web_->enabledIs(true);
    // Disabled: its hosts are followed, not probed, and not caught up.
    off_->remoteHostIs("h1");
    off_->remoteHostIs("h3");
  }
  void dropMachines() override {
    states_.reset();
    if (savedRuntimeDir_) {
      setenv("XDG_RUNTIME_DIR", savedRuntimeDir_->c_str(), 1);
    } else {
      unsetenv("XDG_RUNTIME_DIR");
    }
  }

  HostStates& make() {
    states_ = std::make_unique<HostStates>(
        config_,
        HostStates::Hooks{[this](FileReplication::LogPriority, std::string const& line) { said_.push_back(line); },
                          [this](Kel::Name requester) { replicated_.push_back(requester.str()); }});
    return *states_;
  }
  // As Replicate does it: written beside, renamed over.
  void write(std::string const& name, std::string const& text) {
    replaceFile(controlDir_ + "/" + name, text);
    settle();
  }
  static void settle() {
    for (int i = 0; i < 3; ++i) turn();
  }
  Strings argv(std::size_t launch) const { return children_.child(launch).argv; }

  Kel::Ptr<Config> config_ = Config::ConfigIs();
  Kel::Ptr<RequesterConfig> web_ = config_->newRequester("web", RequesterConfig::periodic);
  Kel::Ptr<RequesterConfig> off_ = config_->newRequester("off", RequesterConfig::periodic);
  std::unique_ptr<HostStates> states_;
  std::string controlDir_;
  std::optional<std::string> savedRuntimeDir_;
  Strings said_;
  Strings replicated_;
};

TEST_F(HostStatesIntegration, ProbesADownHostOnItsBackOffAndCatchesItUpOnceBack) {
  write("state-h1", stateText("down", t0 - 100, t0 + 5, "connection timed out: is h1 on?"));
  write("state-h3", stateText("down", t0 - 100, t0 + 5, "refused"));
  write("state-user@%5b%3a%3a1%5d", stateText("up", t0 - 50, 0));
  auto& states = make();
  EXPECT_EQ(controlDir_, states.directory());
  HostStates::Host const& h1 = states.host("h1");
  EXPECT_EQ(State::down, h1.state);
  EXPECT_EQ(t0 - 100, h1.since);
  EXPECT_EQ(t0 - 1000, h1.lastSuccess);
  EXPECT_EQ("connection timed out: is h1 on?", h1.error);
  EXPECT_EQ(State::up, states.host("user@[::1]").state);
  EXPECT_EQ(State::unknown, states.host("h2").state);
  EXPECT_EQ(Strings({"host h1 is down: connection timed out: is h1 on?", "host h3 is down: refused"}), said_);

  clock()->advance(4.9);
  EXPECT_EQ(0u, children_.launches());
  clock()->advance(0.1);
  turn();
  ASSERT_EQ(1u, children_.launches()) << "h3 belongs to a disabled requester only";
  EXPECT_EQ(Strings({"Replicate", "--cmd", "probe", "--remoteHosts", "h1", "--sshOptions", "-p 2222"}), argv(0));

  // A probe that leaves the back-off as it was is not repeated at once.
  children_.endExited(children_.child(0).siginfo, 255);
  settle();
  EXPECT_EQ(1u, children_.launches());
  clock()->advance(HostStates::probeRetryDelay);
  turn();
  ASSERT_EQ(2u, children_.launches());

  // A run marking it down again meanwhile starts no second probe.
  write("state-h1", stateText("down", t0 - 100, clock()->now() + 1, "connection timed out: is h1 on?"));
  clock()->advance(2);
  turn();
  EXPECT_EQ(2u, children_.launches());

  said_.clear();
  write("state-h1", stateText("up", t0 + 125, 0));
  children_.endExited(children_.child(1).siginfo, 0);
  settle();
  EXPECT_EQ(State::up, states.host("h1").state);
  EXPECT_EQ(Strings({"host h1 is up again after 3m 45s down: replicating every file of its requesters"}), said_);
  EXPECT_EQ(Strings({"web"}), replicated_);
  // Down and up again between two looks still missed what changed.
  write("state-h1", stateText("up", t0 + 500, 0));
  EXPECT_EQ(Strings({"web", "web"}), replicated_);

  clock()->advance(1000);
  EXPECT_EQ(2u, children_.launches());
}

TEST_F(HostStatesIntegration, AHostNoEnabledRequesterHasIsNotProbed) {
  auto& states = make();
  EXPECT_EQ(State::unknown, states.host("h1").state);
  write("state-h1", stateText("down", t0 - 10, t0 + 5));
  EXPECT_EQ(Strings({"host h1 is down"}), said_);

  web_->remoteHostDel("h1");
  states.configChanged();
  clock()->advance(HostStates::probeRetryDelay);
  EXPECT_EQ(0u, children_.launches());
  EXPECT_EQ(State::down, states.host("h1").state) << "still followed for the disabled requester";

  off_->enabledIs(true);
  states.configChanged();
  turn();
  ASSERT_EQ(1u, children_.launches());
  EXPECT_EQ(Strings({"Replicate", "--cmd", "probe", "--remoteHosts", "h1"}), argv(0)) << "off has no ssh options";
  // Its state file gone, a host is unknown and no longer probed.
  std::filesystem::remove(controlDir_ + "/state-h1");
  children_.endExited(children_.child(0).siginfo, 0);
  settle();
  EXPECT_EQ(State::unknown, states.host("h1").state);
  clock()->advance(1000);
  EXPECT_EQ(1u, children_.launches());
}

}  // namespace
}  // namespace Agent
