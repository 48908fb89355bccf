#pragma once

#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

namespace Kel {

// A value string of 8-bit characters.
class String {
 public:
  String() = default;
  String(char const* s) : s_(s ? s : "") {}
  String(std::string s) : s_(std::move(s)) {}
  String(std::string_view s) : s_(s) {}
  String(char const* s, std::size_t n) : s_(s, n) {}

  char const* charPtr() const { return s_.c_str(); }
  std::string const& str() const { return s_; }
  std::size_t size() const { return s_.size(); }
  bool empty() const { return s_.empty(); }
  operator std::string_view() const { return s_; }

  std::string::const_iterator begin() const { return s_.begin(); }
  std::string::const_iterator end() const { return s_.end(); }

  String& operator+=(String const& o) {
    s_ += o.s_;
    return *this;
  }
  friend String operator+(String a, String const& b) { return a += b; }

  friend bool operator==(String const& a, String const& b) { return a.s_ == b.s_; }
  friend auto operator<=>(String const& a, String const& b) { return a.s_ <=> b.s_; }
  friend std::ostream& operator<<(std::ostream& o, String const& s) { return o << s.s_; }

 private:
  std::string s_;
};

using String8 = String;

}  // namespace Kel

template <>
struct std::hash<Kel::String> {
  std::size_t operator()(Kel::String const& s) const noexcept { return std::hash<std::string>()(s.str()); }
};
