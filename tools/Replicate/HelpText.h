#pragma once

namespace Replicate {

// The manual page that --help prints.
const char* helpText();

}  // namespace Replicate
