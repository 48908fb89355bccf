#pragma once

#include <string>
#include <string_view>

namespace Replicate {

// What ran on a remote host: rsync through the remote shell, or a command
// of the remote shell itself.
enum class RemoteCommand { rsync, remove, probe };

// The reason a remote run failed, as one line that says what to do.
struct RemoteFailure {
  // ssh could not connect or log in: the host is down as far as we can
  // tell, as opposed to reached and failing.
  bool unreachable = false;
  // The line says all that the child's stderr says, which may be left out.
  bool known = false;
  std::string message;
};

// What the wait status and the stderr of a failed run say. host is the host
// as given; user is who we log in as when none is given, for advice.
// connectTimeout is ssh's, in seconds.
RemoteFailure diagnoseRemoteFailure(RemoteCommand command, int waitStatus, std::string_view errors,
                                    const std::string& host, const std::string& user, int connectTimeout);

// The name of the user we run as, for messages.
std::string effectiveUserName();

}  // namespace Replicate
