#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Agent {

// A field of a control request besides "command". Every field is a
// non-empty string.
struct ControlField {
  std::string_view name;
  bool required = false;
  // For the command line, where the field is a positional argument.
  std::string_view help;
};

struct ControlOperation {
  static constexpr std::size_t maxFields = 2;
  // "command" in a request; the command line spells it in kebab case.
  std::string_view name;
  std::string_view help;
  // Required fields first; unused entries have no name.
  ControlField fields[maxFields];
};

// What the control socket serves. The server checks requests against it,
// the command line offers one command per entry, and the agent has one
// handler per entry.
inline constexpr ControlOperation controlOperations[] = {
    {"status", "Show the status of every requester and file.", {}},
    {"metrics", "Print the agent's metrics in the Prometheus text exposition format.", {}},
    {"replicate",
     "Replicate one file of a requester now, or all of them.",
     {{"requester", true, "The requester"}, {"path", false, "The file (all files when left out)"}}},
    {"deleteIfNotExist",
     "Delete on the remote hosts the files of a disabled requester whose source is gone.",
     {{"requester", true, "The requester"}}},
};

// Null for a name the table does not have.
ControlOperation const* controlOperation(std::string_view name);
ControlField const* controlField(ControlOperation const& operation, std::string_view name);
// "status, replicate, ...", for messages.
std::string controlOperationNames();
// deleteIfNotExist -> delete-if-not-exist
std::string commandLineName(std::string_view name);

}  // namespace Agent
