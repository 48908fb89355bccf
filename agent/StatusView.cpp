#include "agent/StatusView.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "agent/TreeStatusText.h"

namespace Agent {

namespace {

constexpr std::size_t columns = 5;
using Row = std::array<std::string, columns>;
Row const titles = {"PATH", "STATUS", "STATE", "LAST SYNCHRONIZED", "AGE"};
// Up to the year 9999, which keeps the date's width fixed.
constexpr double latestTime = 253402300800.0;

std::string escaped(std::string_view text) {
  static char const hex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto const c = static_cast<unsigned char>(text[i]);
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c == 0x7f) {
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 0xf];
    } else if (c == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
               static_cast<unsigned char>(text[i + 1]) <= 0x9f) {
      // C1 controls (U+0080 to U+009F) drive terminals as C0 ones do.
      auto const next = static_cast<unsigned char>(text[++i]);
      out += "\\u00";
      out += hex[next >> 4];
      out += hex[next & 0xf];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// Characters, not bytes, so that UTF-8 names line up.
std::size_t displayWidth(std::string_view text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
}

// Within the year 9999 and not negative, or "invalid time".
std::string timeText(double t, char const* format = "%Y-%m-%d %H:%M:%S") {
  if (!(t >= 0 && t < latestTime)) return "invalid time";
  auto const seconds = static_cast<time_t>(std::floor(t));
  tm local{};
  char text[32];
  if (!localtime_r(&seconds, &local) || strftime(text, sizeof text, format, &local) == 0) return "invalid time";
  return text;
}

std::string age(double seconds) {
  // The agent's clock and ours may differ by a little.
  if (seconds < 0 && seconds > -1) seconds = 0;
  if (!(seconds >= 0)) return "in the future";
  auto const s = static_cast<std::int64_t>(seconds);
  if (s < 60) return std::to_string(s) + "s ago";
  if (s < 3600) return std::to_string(s / 60) + "m ago";
  if (s < 86400) return std::to_string(s / 3600) + "h ago";
  return std::to_string(s / 86400) + "d ago";
}

[[noreturn]] void malformed(std::string const& where, char const* key, char const* expected) {
  throw std::runtime_error("malformed status: " + where + " needs \"" + key + "\" as " + expected);
}

// Null when missing; find() on a non-object finds nothing.
nlohmann::json const& field(nlohmann::json const& object, char const* key) {
  static nlohmann::json const missing;
  auto const it = object.find(key);
  return it == object.end() ? missing : *it;
}

Row fileRow(std::string const& path, nlohmann::json const& file, std::string const& where, double now) {
  if (!file.is_object()) malformed(where, "files", "an object of objects");
  nlohmann::json const& status = field(file, "status");
  nlohmann::json const& state = field(file, "state");
  nlohmann::json const& last = field(file, "lastSynchronized");
  if (!status.is_string() && !status.is_null()) malformed(where, "status", "a string or null");
  if (!state.is_string()) malformed(where, "state", "a string");
  if (!last.is_number() && !last.is_null()) malformed(where, "lastSynchronized", "a number or null");
  nlohmann::json const& dstPath = field(file, "dstPath");
  if (!dstPath.is_string() && !dstPath.is_null()) malformed(where, "dstPath", "a string");
  std::string shown = escaped(path);
  if (dstPath.is_string() && dstPath.get_ref<std::string const&>() != path) {
    shown += " -> " + escaped(dstPath.get_ref<std::string const&>());
  }
  Row row{shown, status.is_null() ? "-" : escaped(status.get_ref<std::string const&>()),
          escaped(state.get_ref<std::string const&>()), "never", ""};
  if (last.is_number()) {
    double const t = last.get<double>();
    row[3] = timeText(t);
    if (row[3] != "invalid time") row[4] = age(now - t);
  }
  return row;
}

// The time of day alone when it is on the day of now.
std::string shortTime(double t, double now) {
  std::string const day = timeText(t, "%Y-%m-%d");
  return day != "invalid time" && day == timeText(now, "%Y-%m-%d") ? timeText(t, "%H:%M:%S") : timeText(t);
}

std::string hostLine(std::string const& name, nlohmann::json const& host, std::string const& where, double now) {
  if (!host.is_object()) malformed(where, "hosts", "an object of objects");
  nlohmann::json const& state = field(host, "state");
  nlohmann::json const& since = field(host, "since");
  nlohmann::json const& lastSuccess = field(host, "lastSuccess");
  nlohmann::json const& lastError = field(host, "lastError");
  std::string const at = where + " host \"" + escaped(name) + "\"";
  if (!state.is_string()) malformed(at, "state", "a string");
  if (!since.is_number() && !since.is_null()) malformed(at, "since", "a number or null");
  if (!lastSuccess.is_number() && !lastSuccess.is_null()) malformed(at, "lastSuccess", "a number or null");
  if (!lastError.is_string() && !lastError.is_null()) malformed(at, "lastError", "a string");
  std::string const& stateName = state.get_ref<std::string const&>();
  std::string line = "  host " + escaped(name) + ": " + escaped(stateName);
  if (stateName == "down") {
    if (since.is_number()) line += " since " + timeText(since.get<double>());
    if (lastError.is_string()) line += " — " + escaped(lastError.get_ref<std::string const&>());
  } else if (stateName == "up" && lastSuccess.is_number()) {
    line += ", last success " + shortTime(lastSuccess.get<double>(), now);
  }
  return line;
}

// ", 300 of 1204 done, about 2m left" while runs are under way.
std::string progressText(nlohmann::json const& requester, std::string const& where) {
  nlohmann::json const& progress = field(requester, "progress");
  if (progress.is_null()) return {};
  nlohmann::json const& done = field(progress, "done");
  nlohmann::json const& total = field(progress, "total");
  nlohmann::json const& left = field(progress, "secondsLeft");
  if (!done.is_number_integer() || !total.is_number_integer() || !(left.is_number() || left.is_null())) {
    malformed(where, "progress", "an object with done, total and secondsLeft");
  }
  std::string text =
      ", " + std::to_string(done.get<std::int64_t>()) + " of " + std::to_string(total.get<std::int64_t>()) + " done";
  if (left.is_number()) {
    std::string const ago = age(left.get<double>());
    text += ", about " + ago.substr(0, ago.find(" ago")) + " left";
  }
  return text;
}

// Why a file is not synchronised and when it is tried again; empty when
// there is nothing to say.
std::string fileDetail(nlohmann::json const& file, std::string const& where, double now) {
  nlohmann::json const& lastError = field(file, "lastError");
  nlohmann::json const& nextRetry = field(file, "nextRetry");
  nlohmann::json const& failures = field(file, "failuresInRow");
  if (!lastError.is_string() && !lastError.is_null()) malformed(where, "lastError", "a string");
  if (!nextRetry.is_number() && !nextRetry.is_null()) malformed(where, "nextRetry", "a number or null");
  if (!(failures.is_number_integer() && failures.get<std::int64_t>() >= 0) && !failures.is_null()) {
    malformed(where, "failuresInRow", "a whole number");
  }
  std::string detail;
  auto const add = [&](std::string const& part) { detail += (detail.empty() ? "" : "; ") + part; };
  if (lastError.is_string()) add(escaped(lastError.get_ref<std::string const&>()));
  if (failures.is_number_integer() && failures.get<std::int64_t>() > 1) {
    add(std::to_string(failures.get<std::int64_t>()) + " failed runs in a row");
  }
  if (nextRetry.is_number()) add("next try " + shortTime(nextRetry.get<double>(), now));
  return detail;
}

void appendRow(std::string& out, Row const& row, std::array<std::size_t, columns> const& widths) {
  out += "  ";
  for (std::size_t i = 0; i < columns; ++i) {
    out += row[i];
    if (i + 1 < columns) out.append(widths[i] + 2 - displayWidth(row[i]), ' ');
  }
  // Empty trailing cells leave padding behind.
  out.erase(out.find_last_not_of(' ') + 1);
  out += '\n';
}

}  // namespace

std::string statusTable(nlohmann::json const& status, double now, std::string const& shown) {
  nlohmann::json const& requesters = field(status, "requesters");
  if (!requesters.is_object()) malformed("the reply", "requesters", "an object");
  if (requesters.empty()) return "no requesters\n";

  // A header line per requester, then its rows; all rows first, so that
  // column widths span the whole table. nlohmann::json keeps object members
  // sorted by key, which gives the order.
  std::vector<std::pair<std::string, std::vector<std::pair<Row, std::string>>>> blocks;
  std::array<std::size_t, columns> widths{};
  for (std::size_t i = 0; i < columns; ++i) widths[i] = displayWidth(titles[i]);
  for (auto const& [name, requester] : requesters.items()) {
    std::string const where = "requester \"" + escaped(name) + "\"";
    if (!requester.is_object()) malformed("the reply", "requesters", "an object of objects");
    nlohmann::json const& mode = field(requester, "mode");
    nlohmann::json const& enabled = field(requester, "enabled");
    nlohmann::json const& files = field(requester, "files");
    if (!mode.is_string()) malformed(where, "mode", "a string");
    if (!enabled.is_boolean()) malformed(where, "enabled", "a boolean");
    if (!files.is_object()) malformed(where, "files", "an object");
    std::string header = escaped(name) + ": " + escaped(mode.get_ref<std::string const&>()) + ", " +
                         (enabled.get<bool>() ? "enabled" : "disabled") + ", " + std::to_string(files.size()) +
                         (files.size() == 1 ? " file" : " files") + progressText(requester, where);
    // Directories whose changes cannot be seen, and why.
    nlohmann::json const& unwatched = field(requester, "unwatched");
    if (!unwatched.is_null() && !unwatched.is_object()) malformed(where, "unwatched", "an object");
    for (auto const& [dir, why] : unwatched.items()) {
      if (!why.is_string()) malformed(where, "unwatched", "an object of strings");
      header += "\n  not watched: " + escaped(dir) + ": " + escaped(why.get_ref<std::string const&>());
    }
    // What Replicate last found of each remote host.
    nlohmann::json const& hosts = field(requester, "hosts");
    if (!hosts.is_null() && !hosts.is_object()) malformed(where, "hosts", "an object");
    for (auto const& [host, state] : hosts.items()) header += "\n" + hostLine(host, state, where, now);
    header += entryLines(field(requester, "entries"), where, escaped);
    std::vector<std::pair<Row, std::string>> rows;
    rows.reserve(files.size());
    for (auto const& [path, file] : files.items()) {
      // A tree's files are counted on its line; listed when asked for.
      if (file.contains("entry") && name != shown) continue;
      std::string const at = where + " file \"" + escaped(path) + "\"";
      rows.emplace_back(fileRow(path, file, at, now), fileDetail(file, at, now));
      for (std::size_t i = 0; i < columns; ++i) widths[i] = std::max(widths[i], displayWidth(rows.back().first[i]));
    }
    blocks.emplace_back(std::move(header), std::move(rows));
  }

  std::string out;
  for (auto const& [header, rows] : blocks) {
    if (!out.empty()) out += '\n';
    out += header;
    out += '\n';
    if (rows.empty()) continue;
    appendRow(out, titles, widths);
    for (auto const& [row, detail] : rows) {
      appendRow(out, row, widths);
      if (!detail.empty()) out += "    " + detail + "\n";
    }
  }
  return out;
}

}  // namespace Agent
