#include "tools/Replicate/Printable.h"

namespace Replicate {

std::string printable(std::string_view name) {
  static constexpr char hexDigits[] = "0123456789abcdef";
  std::string text = "\"";
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      text.push_back('\\');
      text.push_back(c);
    } else if (c == '\n') {
      text += "\\n";
    } else if (c == '\t') {
      text += "\\t";
    } else if (byte < 0x20 || byte == 0x7f) {
      text += "\\x";
      text.push_back(hexDigits[byte >> 4]);
      text.push_back(hexDigits[byte & 0xf]);
    } else {
      text.push_back(c);
    }
  }
  text.push_back('"');
  return text;
}

}  // namespace Replicate
