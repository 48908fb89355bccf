#include "tools/Replicate/RemoteShell.h"

#include <strings.h>

#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "tools/Replicate/ShellWords.h"

namespace Replicate {

namespace {

constexpr int defaultConnectTimeout = 10;
constexpr int persistSeconds = 60;

std::string_view baseName(std::string_view path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// Keep-alives and a connect time-out turn a dead host into an error instead
// of a hang; connection sharing makes the runs after the first one to a
// host cheap.
std::vector<std::string> ownOptions(const std::string& controlDirectory) {
  return {"-o", "BatchMode=yes",
          "-o", "ConnectTimeout=" + std::to_string(defaultConnectTimeout),
          "-o", "ServerAliveInterval=10",
          "-o", "ServerAliveCountMax=3",
          "-o", "ControlMaster=auto",
          "-o", "ControlPath=" + controlDirectory + "/%C",
          "-o", "ControlPersist=" + std::to_string(persistSeconds)};
}

// The first ConnectTimeout among ssh's words, as in "-o ConnectTimeout=5",
// "-oConnectTimeout 5" or "-o connecttimeout=5"; 0 when there is none.
int firstConnectTimeout(const std::vector<std::string>& words) {
  static constexpr std::string_view key = "connecttimeout";
  for (size_t i = 1; i < words.size(); ++i) {
    std::string_view setting;
    if (words[i] == "-o" && i + 1 < words.size()) {
      setting = words[++i];
    } else if (words[i].starts_with("-o")) {
      setting = std::string_view(words[i]).substr(2);
    } else {
      continue;
    }
    if (setting.size() <= key.size() || strncasecmp(setting.data(), key.data(), key.size()) != 0) continue;
    setting.remove_prefix(key.size());
    const size_t value = setting.find_first_not_of(" \t=");
    if (value == std::string_view::npos || value == 0) continue;
    const int seconds = std::atoi(std::string(setting.substr(value)).c_str());
    if (seconds > 0) return seconds;
  }
  return 0;
}

}  // namespace

std::string quotedForRsync(const std::string& word) {
  if (!word.empty() && word.find_first_of(" '\"") == std::string::npos) return word;
  std::string quoted = "'";
  for (const char c : word) {
    quoted.push_back(c);
    if (c == '\'') quoted.push_back(c);
  }
  quoted.push_back('\'');
  return quoted;
}

RemoteShell RemoteShell::fromEnvironment(const std::vector<std::string>& sshOptions,
                                         const std::string& controlDirectory) {
  RemoteShell shell;
  const char* custom = std::getenv("RSYNC_RSH");
  if (custom && *custom) {
    // rsync splits $RSYNC_RSH its own way; it gets the text as it stands.
    shell.command_ = custom;
    try {
      shell.words_ = splitShellWords(shell.command_);
    } catch (const std::invalid_argument& error) {
      throw std::runtime_error("RSYNC_RSH: " + std::string(error.what()));
    }
    if (shell.words_.empty()) throw std::runtime_error("RSYNC_RSH holds no command");
  } else {
    shell.command_ = "ssh";
    shell.words_ = {"ssh"};
  }
  if (baseName(shell.program()) == "ssh") {
    std::vector<std::string> added = sshOptions;
    const std::vector<std::string> own = ownOptions(controlDirectory);
    added.insert(added.end(), own.begin(), own.end());
    for (const std::string& word : added) shell.command_ += " " + quotedForRsync(word);
    shell.words_.insert(shell.words_.end(), added.begin(), added.end());
    shell.sharesConnections_ = true;
  }
  shell.connectTimeout_ = firstConnectTimeout(shell.words_);
  if (shell.connectTimeout_ == 0) shell.connectTimeout_ = defaultConnectTimeout;
  return shell;
}

std::vector<std::string> RemoteShell::argumentsFor(const HostAddress& host, const std::string& remoteCommand) const {
  std::vector<std::string> arguments = words_;
  // The same form rsync uses, so that $RSYNC_RSH sees one convention.
  if (!host.user().empty()) {
    arguments.push_back("-l");
    arguments.push_back(host.user());
  }
  arguments.push_back(host.machine());
  arguments.push_back(remoteCommand);
  return arguments;
}

}  // namespace Replicate
