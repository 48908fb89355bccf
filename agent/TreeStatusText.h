#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace Agent {

// One line per tree or pattern of a requester's status, "  tree /srv/t/:
// 1204 files: 1200 synchronized, 4 failed; 2 being deleted", then a line per
// directory of it that cannot be read. Names pass through escape. Throws
// std::runtime_error naming where for entries of the wrong shape.
std::string entryLines(nlohmann::json const& entries, std::string const& where,
                       std::function<std::string(std::string_view)> const& escape);

}  // namespace Agent
