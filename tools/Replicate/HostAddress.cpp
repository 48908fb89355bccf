#include "tools/Replicate/HostAddress.h"

#include <stdexcept>

#include "tools/Replicate/Printable.h"

namespace Replicate {

namespace {

bool isNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
}

bool isUserCharacter(char c) { return isNameCharacter(c) || c == '+'; }

bool isAddressCharacter(char c) {
  return (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') || (c >= '0' && c <= '9') || c == ':' || c == '.';
}

template <typename Predicate>
bool consistsOf(std::string_view text, Predicate allowed) {
  for (const char c : text) {
    if (!allowed(c)) return false;
  }
  return true;
}

}  // namespace

HostAddress HostAddress::parse(std::string_view text) {
  const auto invalid = [&](const char* why) {
    return std::invalid_argument("invalid host " + printable(text) + ": " + why);
  };
  HostAddress host;
  host.text_ = text;
  std::string_view machine = text;
  if (const size_t at = text.find('@'); at != std::string_view::npos) {
    const std::string_view user = text.substr(0, at);
    if (user.empty() || !consistsOf(user, isUserCharacter) || user.front() == '-') {
      throw invalid("bad user name");
    }
    host.user_ = user;
    machine = text.substr(at + 1);
  }
  if (machine.size() >= 2 && machine.front() == '[' && machine.back() == ']') {
    machine = machine.substr(1, machine.size() - 2);
    if (machine.find(':') == std::string_view::npos) throw invalid("brackets hold no IPv6 address");
  }
  if (machine.empty()) throw invalid("no host name");
  if (machine.front() == '-') throw invalid("a host name cannot start with '-'");
  if (machine.find(':') == std::string_view::npos) {
    if (!consistsOf(machine, isNameCharacter)) throw invalid("unexpected character in host name");
  } else {
    // An IPv6 address, perhaps with a scope such as "%eth0".
    const size_t percent = machine.find('%');
    const bool scopeValid = percent == std::string_view::npos ||
                            (percent + 1 < machine.size() && consistsOf(machine.substr(percent + 1), isNameCharacter));
    if (!consistsOf(machine.substr(0, percent), isAddressCharacter) || !scopeValid) {
      throw invalid("not an IPv6 address");
    }
  }
  host.machine_ = machine;
  return host;
}

std::string HostAddress::rsyncDestination(std::string_view path) const {
  std::string destination;
  if (!user_.empty()) destination += user_ + "@";
  if (machine_.find(':') != std::string::npos) {
    destination += "[" + machine_ + "]";
  } else {
    destination += machine_;
  }
  destination += ":";
  destination += path;
  return destination;
}

}  // namespace Replicate
