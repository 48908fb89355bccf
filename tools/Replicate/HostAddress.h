#pragma once

#include <string>
#include <string_view>

namespace Replicate {

// One remote host as given on the command line: "host", "user@host", an IPv6
// literal with or without brackets ("::1", "[::1]", "user@[::1]").
class HostAddress {
 public:
  // Refuses anything that rsync or ssh could read as an option, a local path
  // or a daemon address. Throws std::invalid_argument naming the problem.
  static HostAddress parse(std::string_view text);

  // As given, for messages.
  const std::string& text() const { return text_; }
  // Empty when none was given.
  const std::string& user() const { return user_; }
  // The host name or address, without brackets: what ssh connects to.
  const std::string& machine() const { return machine_; }
  // The remote file in rsync's "host:path" form, with brackets for IPv6.
  std::string rsyncDestination(std::string_view path) const;

 private:
  std::string text_;
  std::string user_;
  std::string machine_;
};

}  // namespace Replicate
