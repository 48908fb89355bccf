#include "runtime/ChildArgs.h"

namespace Kel {

ChildArgs::ChildArgs(char const* const* argv) {
  std::size_t length = 0;
  for (char const* const* arg = argv; *arg; ++arg) length += std::strlen(*arg) + 1;
  text_.reserve(length);
  for (char const* const* arg = argv; *arg; ++arg) {
    text_.append(*arg, std::strlen(*arg) + 1);
    ++size_;
  }
}

namespace {

// Exec would end an argument at a NUL in it anyway.
std::string_view upToNul(std::string_view arg) { return arg.substr(0, arg.find('\0')); }

}  // namespace

template <class Range>
void ChildArgs::assign(Range const& argv) {
  std::size_t length = 0;
  for (std::string_view arg : argv) length += upToNul(arg).size() + 1;
  text_.reserve(length);
  for (std::string_view arg : argv) {
    text_ += upToNul(arg);
    text_ += '\0';
    ++size_;
  }
}

ChildArgs::ChildArgs(std::vector<std::string> const& argv) { assign(argv); }

ChildArgs::ChildArgs(std::initializer_list<std::string_view> argv) { assign(argv); }

std::string_view ChildArgs::operator[](std::size_t i) const {
  auto it = begin();
  std::advance(it, i);
  return *it;
}

std::vector<std::string> ChildArgs::strings() const { return {begin(), end()}; }

std::vector<char*> ChildArgs::pointers() const {
  std::vector<char*> argv;
  argv.reserve(size_ + 1);
  for (std::string_view arg : *this) argv.push_back(const_cast<char*>(arg.data()));
  argv.push_back(nullptr);
  return argv;
}

}  // namespace Kel
