#include "bench/system/SshMaster.h"

#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "tests/support/TestProcess.h"

namespace SystemBench {

SshMaster::SshMaster(SshTarget const& ssh, std::string socket, std::string const& host, std::string const& log,
                     bool portAndKey)
    : socket_(std::move(socket)) {
  std::vector<std::string> arguments = {"-M", "-N", "-o", "ControlPath=" + socket_};
  if (portAndKey) arguments.insert(arguments.end(), {"-p", std::to_string(ssh.port()), "-i", ssh.key()});
  arguments.push_back(host);
  pid_ = spawn(ssh.command(arguments), ssh.environment(), log);
  // ssh puts the socket in place once it has logged in.
  std::int64_t const deadline = monotonicNs() + 10'000'000'000;
  struct stat status {};
  while (stat(socket_.c_str(), &status) != 0) {
    if (monotonicNs() > deadline) {
      kill(pid_, SIGTERM);
      exitCode(pid_);
      throw std::runtime_error("ssh did not connect to " + host + ":\n" + readText(log));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

SshMaster::~SshMaster() {
  kill(pid_, SIGTERM);
  exitCode(pid_);
}

}  // namespace SystemBench
