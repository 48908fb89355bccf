#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace Agent {

constexpr double defaultControlTimeout = 10;

// The CLI's side of the control socket. Sends one request to the agent on
// socketPath and returns its reply, an object with a boolean "ok" (and an
// "error" when it is false). Blocks, each step at most timeoutSeconds. Throws
// std::runtime_error when no agent listens there, when it does not answer in
// time and when the reply is malformed.
nlohmann::json request(std::string const& socketPath, nlohmann::json const& message,
                       double timeoutSeconds = defaultControlTimeout);

}  // namespace Agent
