#include "agent/TreeStatusText.h"

#include <stdexcept>

namespace Agent {

std::string entryLines(nlohmann::json const& entries, std::string const& where,
                       std::function<std::string(std::string_view)> const& escape) {
  auto const malformed = [&] {
    throw std::runtime_error("malformed status: " + where + ": entries is not a list of trees and patterns");
  };
  if (entries.is_null()) return {};
  if (!entries.is_array()) malformed();
  std::string text;
  for (auto const& entry : entries) {
    if (!entry.is_object() || !entry.value("path", nlohmann::json()).is_string() ||
        !entry.value("files", nlohmann::json()).is_number_integer() ||
        !entry.value("byStatus", nlohmann::json()).is_object()) {
      malformed();
    }
    auto const files = entry["files"].get<std::int64_t>();
    text += "\n  " + entry.value("kind", std::string("tree")) + " " + escape(entry["path"].get<std::string>()) + ": " +
            std::to_string(files) + (files == 1 ? " file" : " files");
    std::string counts;
    for (auto const& [status, n] : entry["byStatus"].items()) {
      if (!n.is_number_integer()) malformed();
      counts += (counts.empty() ? "" : ", ") + std::to_string(n.get<std::int64_t>()) + " " + escape(status);
    }
    if (!counts.empty()) text += ": " + counts;
    if (auto const deleting = entry.value("deleting", 0); deleting > 0) {
      text += "; " + std::to_string(deleting) + " being deleted";
    }
    nlohmann::json const unreadable = entry.value("unreadable", nlohmann::json::object());
    for (auto const& [dir, why] : unreadable.items()) {
      if (!why.is_string()) malformed();
      text += "\n    cannot read " + escape(dir) + ": " + escape(why.get<std::string>());
    }
  }
  return text;
}

}  // namespace Agent
