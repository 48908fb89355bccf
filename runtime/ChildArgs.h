#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace Kel {

// The argument vector of a child, held as one block of text in which every
// argument ends with a NUL. A child waiting for a slot keeps it for as long
// as it waits, and thousands may wait at once: one allocation sized to fit,
// made in the children's own arena, leaves nothing behind in the heap, and
// it is what exec wants as it stands.
class ChildArgs {
 public:
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = std::string_view;

    Iterator() = default;
    explicit Iterator(char const* at) : at_(at) {}
    std::string_view operator*() const { return at_; }
    Iterator& operator++() {
      at_ += std::strlen(at_) + 1;
      return *this;
    }
    Iterator operator++(int) {
      Iterator const was = *this;
      ++*this;
      return was;
    }
    friend bool operator==(Iterator a, Iterator b) { return a.at_ == b.at_; }

   private:
    char const* at_ = nullptr;
  };

  ChildArgs() = default;
  ChildArgs(ChildArgs const& o);
  ChildArgs(ChildArgs&& o) noexcept;
  ChildArgs& operator=(ChildArgs o) noexcept;
  ~ChildArgs();
  // Up to the null pointer that ends argv.
  explicit ChildArgs(char const* const* argv);
  ChildArgs(std::vector<std::string> const& argv);
  ChildArgs(std::initializer_list<std::string_view> argv);

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  Iterator begin() const { return Iterator(text_); }
  Iterator end() const { return Iterator(text_ + length_); }
  // Walks the arguments before it: a vector is a handful of them.
  std::string_view operator[](std::size_t i) const;
  std::vector<std::string> strings() const;
  // Into the text, ending with a null pointer, for exec.
  std::vector<char*> pointers() const;

  friend bool operator==(ChildArgs const& a, ChildArgs const& b) {
    return a.size_ == b.size_ && a.length_ == b.length_ && std::memcmp(a.text_, b.text_, a.length_) == 0;
  }

 private:
  template <class Range>
  void assign(Range const& argv);
  void allocate(std::size_t length);

  char* text_ = nullptr;
  // Bytes of text, the NULs included.
  std::uint32_t length_ = 0;
  std::uint32_t size_ = 0;
};

}  // namespace Kel
