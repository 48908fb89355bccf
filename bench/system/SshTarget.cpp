#include "bench/system/SshTarget.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "bench/system/Measure.h"
#include "bench/system/Processes.h"
#include "bench/system/Replicas.h"
#include "tests/support/TestSshd.h"

namespace SystemBench {

namespace {

void restart(TestSshd& sshd, std::string const& configLines) {
  std::ofstream(sshd.directory() + "/sshd_config", std::ios::app) << configLines;
  sshd.stop();
  sshd.start();
}

}  // namespace

SshTarget::SshTarget(Options const& options, PortAndKey portAndKey)
    : options_(options),
      sshds_(1),
      // The control sockets Replicate makes under XDG_RUNTIME_DIR must fit
      // in a socket address: a short directory.
      directory_("ssh", "/tmp"),
      program_(programOnPath("ssh", options.path)),
      config_(directory_ / "ssh_config") {
  sshds_.front() = std::make_unique<TestSshd>();
  if (program_.empty()) throw std::runtime_error("no ssh on PATH");
  std::string text = "Host *\n";
  if (portAndKey == inConfigFile) text += "  Port " + std::to_string(port()) + "\n  IdentityFile " + key() + "\n";
  writeFile(config_, text +
                         "  IdentitiesOnly yes\n  StrictHostKeyChecking no\n  UserKnownHostsFile /dev/null\n"
                         "  LogLevel ERROR\n  BatchMode yes\n");
}

SshTarget::~SshTarget() {
  std::error_code ignored;
  std::string const controls = directory_ / ("replicate-" + std::to_string(geteuid()));
  for (auto const& entry : std::filesystem::directory_iterator(controls, ignored)) {
    if (entry.is_socket(ignored)) {
      run(command({"-o", "ControlPath=" + entry.path().string(), "-O", "exit", "127.0.0.1"}), environment());
    }
  }
}

int SshTarget::port() const { return sshds_.front()->port(); }

// The key the test sshd lets in.
std::string SshTarget::key() const { return sshds_.front()->directory() + "/client_key"; }

std::vector<std::string> SshTarget::hostsIs(int count, std::string const& sshdLines) {
  // An sshd listens on 16 addresses at most: the first serves 127.0.0.1 to
  // .16, each further one 15 more (and 127.0.0.1, at its own port, unused).
  // ssh takes the first value it finds, so the hosts of those go before the
  // rest in the configuration.
  std::vector<std::string> hosts;
  std::string clientConfig;
  for (int first = 1; first <= count; first = first == 1 ? 17 : first + 15) {
    if (first > 1) sshds_.push_back(std::make_unique<TestSshd>());
    TestSshd& sshd = *sshds_.back();
    std::string listen;
    std::string names;
    for (int i = first; i <= std::min(count, first == 1 ? 16 : first + 14); ++i) {
      hosts.push_back("127.0.0." + std::to_string(i));
      if (i > 1) listen += "ListenAddress " + hosts.back() + "\n";
      names += " " + hosts.back();
    }
    restart(sshd, listen + sshdLines);
    if (first > 1) {
      clientConfig += "Host" + names + "\n  Port " + std::to_string(sshd.port()) + "\n  IdentityFile " +
                      sshd.directory() + "/client_key\n";
    }
  }
  writeFile(config_, clientConfig + readText(config_));
  return hosts;
}

std::vector<std::string> SshTarget::environment(std::vector<std::string> const& extra) const {
  std::vector<std::string> entries = {"FILEREP_BENCH_SSH_PROGRAM=" + program_, "FILEREP_BENCH_SSH_CONFIG=" + config_,
                                      "XDG_RUNTIME_DIR=" + directory_.path()};
  entries.insert(entries.end(), extra.begin(), extra.end());
  return realEnvironment(options_, entries, options_.sshWrapperDir);
}

std::vector<std::string> SshTarget::command(std::vector<std::string> const& arguments) const {
  std::vector<std::string> argv = {program_, "-F", config_};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return argv;
}

std::unique_ptr<SshTarget> sshTarget(Options const& options, Report& report, std::string const& bench,
                                     SshTarget::PortAndKey portAndKey) {
  try {
    return std::make_unique<SshTarget>(options, portAndKey);
  } catch (std::exception const& e) {
    report.noteIs(bench, std::string("skipped: no sshd to test with: ") + e.what());
    return nullptr;
  }
}

}  // namespace SystemBench
