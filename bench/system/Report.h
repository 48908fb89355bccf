#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace SystemBench {

// The figures of a run, each next to its target, printed as a table or JSON.
class Report {
 public:
  enum Kind {
    // Measured for information; no target.
    info,
    // A number with a target; a miss is reported, and the run still passes.
    target,
    // Must hold in every build, quick runs included: a miss fails the run.
    check,
  };

  struct Figure {
    std::string bench;
    std::string name;
    double value;
    std::string unit;
    Kind kind = info;
    std::string goal;
    bool met = true;
  };

  void figureIs(std::string bench, std::string name, double value, std::string unit, Kind kind = info,
                std::string goal = "", bool met = true) {
    figures_.push_back({std::move(bench), std::move(name), value, std::move(unit), kind, std::move(goal), met});
  }
  void noteIs(std::string bench, std::string text) { notes_.push_back({std::move(bench), std::move(text)}); }
  void machineIs(nlohmann::json machine) { machine_ = std::move(machine); }

  std::vector<Figure> const& figures() const { return figures_; }
  bool checksHold() const;

  void printTable(std::ostream& out) const;
  nlohmann::json json() const;

 private:
  struct Note {
    std::string bench;
    std::string text;
  };
  std::vector<Figure> figures_;
  std::vector<Note> notes_;
  nlohmann::json machine_;
};

}  // namespace SystemBench
