#pragma once

#include <exception>
#include <string>

namespace Kel {

class String;

// Base of every exception the runtime throws.
class Exception : public std::exception {
 public:
  explicit Exception(std::string message) : message_(std::move(message)) {}
  char const* what() const noexcept override { return message_.c_str(); }
  std::string const& message() const { return message_; }

 private:
  std::string message_;
};

// A value outside what a type allows, an unknown key or attribute, or text
// that cannot be parsed.
class RangeException : public Exception {
 public:
  using Exception::Exception;
};

// A keyed entry already exists with other constructor values.
class NameInUseException : public Exception {
 public:
  using Exception::Exception;
};

// A failed system call. The message is the system's description of the
// error number; the caller's text is kept beside it.
class ErrnoException : public Exception {
 public:
  ErrnoException(int error, String const& text);
  int error() const { return error_; }
  std::string const& text() const { return text_; }

 private:
  int error_;
  std::string text_;
};

[[noreturn]] void throwRangeException(std::string const& text);

// The system's description of an error number; safe to call from anywhere,
// unlike strerror.
std::string errnoText(int error);

}  // namespace Kel
