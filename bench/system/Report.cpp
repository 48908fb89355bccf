#include "bench/system/Report.h"

#include <cstdio>
#include <iomanip>

namespace SystemBench {

namespace {

std::string formatted(double v) {
  char text[32];
  if (v != 0 && (std::abs(v) >= 1e6 || std::abs(v) < 1e-2)) {
    std::snprintf(text, sizeof text, "%.3g", v);
  } else {
    std::snprintf(text, sizeof text, "%.3f", v);
    // Trailing zeros say nothing.
    std::string s = text;
    s.erase(s.find_last_not_of('0') + 1);
    if (s.back() == '.') s.pop_back();
    return s;
  }
  return text;
}

char const* verdict(Report::Figure const& f) {
  if (f.kind == Report::info) return "";
  return f.met ? "met" : "NOT MET";
}

}  // namespace

bool Report::checksHold() const {
  for (auto const& f : figures_) {
    if (f.kind == check && !f.met) return false;
  }
  return true;
}

void Report::printTable(std::ostream& out) const {
  std::size_t nameWidth = 6, valueWidth = 5, goalWidth = 6;
  for (auto const& f : figures_) {
    nameWidth = std::max(nameWidth, f.bench.size() + 2 + f.name.size());
    valueWidth = std::max(valueWidth, formatted(f.value).size() + 1 + f.unit.size());
    goalWidth = std::max(goalWidth, f.goal.size());
  }
  out << std::left << std::setw(int(nameWidth)) << "figure"
      << "  " << std::right << std::setw(int(valueWidth)) << "value"
      << "  " << std::left << std::setw(int(goalWidth)) << "target"
      << "  result\n";
  out << std::string(nameWidth + valueWidth + goalWidth + 14, '-') << "\n";
  std::string bench;
  for (auto const& f : figures_) {
    if (!bench.empty() && f.bench != bench) out << "\n";
    bench = f.bench;
    out << std::left << std::setw(int(nameWidth)) << (f.bench + ": " + f.name) << "  " << std::right
        << std::setw(int(valueWidth)) << (formatted(f.value) + " " + f.unit) << "  " << std::left
        << std::setw(int(goalWidth)) << f.goal << "  " << verdict(f) << "\n";
  }
  if (!notes_.empty()) out << "\n";
  for (auto const& n : notes_) out << n.bench << ": " << n.text << "\n";
}

nlohmann::json Report::json() const {
  nlohmann::json figures = nlohmann::json::array();
  for (auto const& f : figures_) {
    nlohmann::json entry = {{"bench", f.bench}, {"figure", f.name}, {"value", f.value}, {"unit", f.unit}};
    if (f.kind != info) {
      entry["target"] = f.goal;
      entry["met"] = f.met;
      entry["check"] = f.kind == check;
    }
    figures.push_back(std::move(entry));
  }
  nlohmann::json notes = nlohmann::json::array();
  for (auto const& n : notes_) notes.push_back({{"bench", n.bench}, {"note", n.text}});
  return {{"machine", machine_}, {"figures", std::move(figures)}, {"notes", std::move(notes)}};
}

}  // namespace SystemBench
