#include "runtime/Name.h"

#include <unordered_set>

namespace Kel {

namespace {

struct Hash {
  using is_transparent = void;
  std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
};

// Node-based, so the address of an interned text never changes. Never freed:
// names live as long as the process.
std::unordered_set<std::string, Hash, std::equal_to<>>& table() {
  static auto* t = new std::unordered_set<std::string, Hash, std::equal_to<>>();
  return *t;
}

std::string const* intern(std::string_view s) {
  auto& t = table();
  auto it = t.find(s);
  if (it == t.end()) it = t.emplace(s).first;
  return &*it;
}

}  // namespace

Name::Name() {
  static std::string const* const empty = intern({});
  text_ = empty;
}

Name::Name(std::string_view s) : text_(intern(s)) {}

}  // namespace Kel
