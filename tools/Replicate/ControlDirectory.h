#pragma once

#include <string>
#include <string_view>

namespace Replicate {

// The directory where ssh keeps the sockets of shared connections: private
// to this user, under $XDG_RUNTIME_DIR or /tmp. Created when missing. Throws
// std::runtime_error when it cannot be made or is not safe to use, since
// another user who controls it could take over our connections.
std::string controlDirectory();

// The name of a file about host in that directory: kind, '-', and the host
// as given, with anything but letters, digits, '.', '-', '_' and '@' spelled
// in hex ("%2f"), so that no host reaches outside the directory or meets
// another's name.
std::string hostFileName(std::string_view kind, std::string_view host);

}  // namespace Replicate
