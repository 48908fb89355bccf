#include "agent/ControlOperations.h"

#include <cctype>

namespace Agent {

ControlOperation const* controlOperation(std::string_view name) {
  for (auto const& operation : controlOperations) {
    if (operation.name == name) return &operation;
  }
  return nullptr;
}

ControlField const* controlField(ControlOperation const& operation, std::string_view name) {
  for (auto const& field : operation.fields) {
    if (!field.name.empty() && field.name == name) return &field;
  }
  return nullptr;
}

std::string controlOperationNames() {
  std::string names;
  for (auto const& operation : controlOperations) {
    if (!names.empty()) names += ", ";
    names += operation.name;
  }
  return names;
}

std::string commandLineName(std::string_view name) {
  std::string text;
  for (char const c : name) {
    if (std::isupper(static_cast<unsigned char>(c))) {
      text += '-';
      text += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    } else {
      text += c;
    }
  }
  return text;
}

}  // namespace Agent
