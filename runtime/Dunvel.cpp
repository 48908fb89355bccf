#include "runtime/Dunvel.h"

#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <optional>
#include <string>

#include "runtime/Morlix.h"

namespace Dunvel {

namespace {

void report(std::string const& text) {
  std::string line = text + "\n";
  static_cast<void>(::write(STDERR_FILENO, line.data(), line.size()));
}

std::optional<std::size_t> parseSize(std::string_view text) {
  std::size_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end == text.data()) return std::nullopt;
  std::string_view suffix(end, static_cast<std::size_t>(text.data() + text.size() - end));
  if (suffix.empty()) return value;
  if (suffix.size() != 1) return std::nullopt;
  std::size_t shift = 0;
  switch (suffix[0]) {
    case 'K': shift = 10; break;
    case 'M': shift = 20; break;
    case 'G': shift = 30; break;
    default: return std::nullopt;
  }
  if (value > (SIZE_MAX >> shift)) return std::nullopt;
  return value << shift;
}

}  // namespace

bool recording() { return Morlix::isOpen(); }

void record(std::int64_t timeNs, std::string_view facility, int level, std::string_view message) {
  Morlix::write(timeNs, facility, level, message);
}

void openFromEnvironment() {
  char const* path = std::getenv("MORLIX_FILE");
  if (!path || !*path || Morlix::isOpen()) return;
  std::size_t size = Morlix::defaultSizeBytes;
  if (char const* text = std::getenv("MORLIX_SIZE"); text && *text) {
    if (auto parsed = parseSize(text)) {
      size = *parsed;
    } else {
      report("MORLIX_SIZE: \"" + std::string(text) +
             "\" is not a size in bytes (a number with an optional K, M or G); "
             "using " +
             std::to_string(size));
    }
  }
  try {
    Morlix::open(path, size);
  } catch (Morlix::Error const& error) {
    report(std::string("MORLIX_FILE: ") + error.what() + "; not tracing to it");
  }
}

}  // namespace Dunvel
