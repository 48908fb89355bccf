#pragma once

#include <stdexcept>

namespace Replicate {

// A malformed command line: reported on one line, exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Replicate
