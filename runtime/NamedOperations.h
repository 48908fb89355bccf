#pragma once

#include <initializer_list>
#include <utility>
#include <vector>

#include "runtime/Name.h"

namespace Kel {

// The operations of a class that an operator may invoke by name on a running
// object. Member pointers to virtual functions dispatch virtually.
template <class T>
class NamedOperations {
 public:
  using Operation = void (T::*)();

  NamedOperations(std::initializer_list<std::pair<char const*, Operation>> operations) {
    for (auto const& [name, op] : operations) operations_.emplace_back(Name(name), op);
  }

  // Tells whether target has an operation of that name; runs it if so.
  bool invoke(T& target, Name name) const {
    for (auto const& [n, op] : operations_) {
      if (n == name) {
        (target.*op)();
        return true;
      }
    }
    return false;
  }

  std::vector<Name> names() const {
    std::vector<Name> out;
    for (auto const& [n, op] : operations_) out.push_back(n);
    return out;
  }

 private:
  std::vector<std::pair<Name, Operation>> operations_;
};

}  // namespace Kel
