#pragma once

#include <string>

namespace Replicate {

// The directory where ssh keeps the sockets of shared connections: private
// to this user, under $XDG_RUNTIME_DIR or /tmp. Created when missing. Throws
// std::runtime_error when it cannot be made or is not safe to use, since
// another user who controls it could take over our connections.
std::string controlDirectory();

}  // namespace Replicate
