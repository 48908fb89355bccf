#include "runtime/ChildArgs.h"

#include <limits>
#include <new>
#include <utility>

#include "runtime/FifoArena.h"

namespace Kel {

ChildArgs::ChildArgs(ChildArgs const& o) : size_(o.size_) {
  allocate(o.length_);
  if (length_ > 0) std::memcpy(text_, o.text_, length_);
}

ChildArgs::ChildArgs(ChildArgs&& o) noexcept
    : text_(std::exchange(o.text_, nullptr)), length_(std::exchange(o.length_, 0)), size_(std::exchange(o.size_, 0)) {}

ChildArgs& ChildArgs::operator=(ChildArgs o) noexcept {
  std::swap(text_, o.text_);
  std::swap(length_, o.length_);
  std::swap(size_, o.size_);
  return *this;
}

ChildArgs::~ChildArgs() { FifoArena::instance().release(text_); }

void ChildArgs::allocate(std::size_t length) {
  if (length > std::numeric_limits<std::uint32_t>::max()) throw std::bad_alloc();
  if (length > 0) text_ = static_cast<char*>(FifoArena::instance().allocate(length));
  length_ = std::uint32_t(length);
}

ChildArgs::ChildArgs(char const* const* argv) {
  std::size_t length = 0;
  for (char const* const* arg = argv; *arg; ++arg) length += std::strlen(*arg) + 1;
  allocate(length);
  char* at = text_;
  for (char const* const* arg = argv; *arg; ++arg) {
    std::size_t const n = std::strlen(*arg) + 1;
    std::memcpy(at, *arg, n);
    at += n;
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
  allocate(length);
  char* at = text_;
  for (std::string_view arg : argv) {
    std::string_view const kept = upToNul(arg);
    std::memcpy(at, kept.data(), kept.size());
    at += kept.size();
    *at++ = '\0';
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
