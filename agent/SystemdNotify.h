#pragma once

#include <string>

namespace Agent {

// Tells the service manager what the agent is doing, through the datagram
// socket it names in $NOTIFY_SOCKET: "READY=1", "RELOADING=1", "STATUS=…",
// "WATCHDOG=1". Without that variable (not started by systemd, or a unit of
// another type) every call does nothing. Errors are ignored: the agent's
// work does not depend on being heard.
class SystemdNotify {
 public:
  SystemdNotify();
  ~SystemdNotify();
  SystemdNotify(SystemdNotify const&) = delete;
  SystemdNotify& operator=(SystemdNotify const&) = delete;

  bool enabled() const { return fd_ >= 0; }
  // Half the watchdog interval the manager asks for, in seconds; 0 without.
  double watchdogPeriod() const { return watchdogPeriod_; }
  void send(std::string const& state) const;

 private:
  int fd_ = -1;
  std::string address_;
  double watchdogPeriod_ = 0;
};

}  // namespace Agent
