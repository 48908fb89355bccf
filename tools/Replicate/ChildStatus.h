#pragma once

#include <string>

namespace Replicate {

bool succeeded(int waitStatus);

// Why a run of rsync failed, as the end of a message:
// "rsync failed with exit code 23 (partial transfer due to error)".
std::string describeRsyncFailure(int waitStatus);

// Why a remote "rm" started through the remote shell failed.
std::string describeRemoteDeleteFailure(int waitStatus);

}  // namespace Replicate
