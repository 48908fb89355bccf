#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace Agent {

// Renders the agent's status reply for people: per requester a line with its
// name, mode, whether it is enabled and how many files it has, a line per
// directory it cannot watch and per remote host (up, down since when and
// why, or unknown), then one row per file with its path, status, state, when
// it was last synchronised (local time) and how long ago that was, as seen
// at now. Rows are sorted by requester, then path; columns are aligned
// across the whole table; control characters in names and paths are escaped
// (\n, \x1b), so that no file name can break the table or drive the
// terminal. The files of trees and patterns are counted per entry and
// listed only for the requester shown. Throws std::runtime_error for a
// reply that is not a status.
std::string statusTable(nlohmann::json const& status, double now, std::string const& shown = {});

}  // namespace Agent
