#pragma once

#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "runtime/String.h"

namespace Kel {

// An immutable interned name. Each distinct text is stored once for the life
// of the process, so copying, comparing and hashing cost one pointer.
class Name {
 public:
  Name();
  Name(char const* s) : Name(std::string_view(s ? s : "")) {}
  Name(std::string_view s);
  Name(std::string const& s) : Name(std::string_view(s)) {}
  explicit Name(String const& s) : Name(std::string_view(s)) {}

  char const* charPtr() const { return text_->c_str(); }
  std::string const& str() const { return *text_; }
  bool empty() const { return text_->empty(); }
  operator String() const { return String(*text_); }

  friend bool operator==(Name a, Name b) { return a.text_ == b.text_; }
  // Orders by text, so sorted output is readable.
  friend bool operator<(Name a, Name b) { return *a.text_ < *b.text_; }
  friend std::ostream& operator<<(std::ostream& o, Name n) { return o << *n.text_; }

  std::size_t hash() const { return std::hash<std::string const*>()(text_); }

 private:
  std::string const* text_;
};

}  // namespace Kel

template <>
struct std::hash<Kel::Name> {
  std::size_t operator()(Kel::Name n) const noexcept { return n.hash(); }
};
