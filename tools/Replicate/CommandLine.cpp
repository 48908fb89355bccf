#include "tools/Replicate/CommandLine.h"

#include <array>
#include <map>
#include <stdexcept>
#include <string_view>

#include "tools/Replicate/Printable.h"
#include "tools/Replicate/ShellWords.h"
#include "tools/Replicate/UsageError.h"

namespace Replicate {

namespace {

constexpr std::array<std::string_view, 6> optionNames = {"--cmd",    "--remoteHosts",  "--source",
                                                         "--target", "--rsyncOptions", "--sshOptions"};

std::vector<HostAddress> parseHosts(const std::string& list) {
  std::vector<HostAddress> hosts;
  size_t start = 0;
  while (start <= list.size()) {
    size_t end = list.find(',', start);
    if (end == std::string::npos) end = list.size();
    std::string_view item = std::string_view(list).substr(start, end - start);
    const size_t first = item.find_first_not_of(" \t");
    if (first != std::string_view::npos) {
      item = item.substr(first, item.find_last_not_of(" \t") - first + 1);
      try {
        hosts.push_back(HostAddress::parse(item));
      } catch (const std::invalid_argument& error) {
        throw UsageError(error.what());
      }
    }
    start = end + 1;
  }
  if (hosts.empty()) throw UsageError("--remoteHosts names no host");
  return hosts;
}

void require(const std::map<std::string_view, std::string>& values, std::string_view name, std::string_view command) {
  if (!values.contains(name)) {
    throw UsageError("missing " + std::string(name) + " for --cmd " + std::string(command));
  }
}

void refuse(const std::map<std::string_view, std::string>& values, std::string_view name, std::string_view command) {
  if (values.contains(name)) {
    throw UsageError(std::string(name) + " does not apply to --cmd " + std::string(command));
  }
}

std::vector<std::string> words(const std::string& text, std::string_view option) {
  try {
    return splitShellWords(text);
  } catch (const std::invalid_argument& error) {
    throw UsageError(std::string(option) + ": " + error.what());
  }
}

}  // namespace

CommandLine parseCommandLine(std::span<const char* const> arguments) {
  CommandLine line;
  std::map<std::string_view, std::string> values;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--help") {
      line.help = true;
      return line;
    }
    bool known = false;
    for (const std::string_view name : optionNames) known = known || argument == name;
    if (!known) throw UsageError("unknown option " + printable(argument));
    if (i + 1 == arguments.size()) throw UsageError("missing value for " + std::string(argument));
    if (!values.emplace(argument, arguments[++i]).second) {
      throw UsageError("duplicate option " + std::string(argument));
    }
  }

  if (!values.contains("--cmd")) throw UsageError("missing --cmd");
  const std::string& command = values["--cmd"];
  if (command == "rsyncFile" || command == "rsyncFiles") {
    line.command = command == "rsyncFile" ? Command::rsyncFile : Command::rsyncFiles;
    require(values, "--source", command);
    require(values, "--target", command);
    require(values, "--rsyncOptions", command);
  } else if (command == "deleteFile") {
    line.command = Command::deleteFile;
    require(values, "--target", command);
    refuse(values, "--source", command);
    refuse(values, "--rsyncOptions", command);
  } else if (command == "probe") {
    line.command = Command::probe;
    require(values, "--remoteHosts", command);
    refuse(values, "--source", command);
    refuse(values, "--target", command);
    refuse(values, "--rsyncOptions", command);
  } else {
    throw UsageError("unknown --cmd " + printable(command) + " (expected rsyncFile, rsyncFiles, deleteFile or probe)");
  }

  if (const auto hosts = values.find("--remoteHosts"); hosts != values.end()) {
    line.remoteHosts = parseHosts(hosts->second);
  }
  if (const auto ssh = values.find("--sshOptions"); ssh != values.end()) {
    if (line.remoteHosts.empty()) throw UsageError("--sshOptions needs --remoteHosts");
    line.sshOptions = words(ssh->second, "--sshOptions");
  }
  if (line.command == Command::probe) return line;
  line.target = values["--target"];
  if (line.target.empty()) throw UsageError("--target is empty");
  if (line.command != Command::deleteFile) {
    line.source = values["--source"];
    if (line.source.empty()) throw UsageError("--source is empty");
    line.rsyncOptions = words(values["--rsyncOptions"], "--rsyncOptions");
  }
  return line;
}

}  // namespace Replicate
