#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace Agent {

// t (Unix seconds) in ISO 8601, UTC, to the millisecond:
// "2026-11-25T13:20:01.123Z"; empty outside the years 1970 to 9999.
std::string utcText(double t);

// The pair that status --json gives for a time: Unix seconds for programs,
// ISO 8601 for people and log tools; both null for "never" (t <= 0).
void putTime(nlohmann::json& object, std::string const& key, double t);

}  // namespace Agent
