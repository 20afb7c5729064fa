#include "libvelder/Error.h"

namespace velder {

std::string printable(std::string_view text, size_t limit) {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  std::string result;
  for (const char c : text) {
    if (result.size() >= limit) return result + "...";
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7f) {
      result += c;
    } else {
      result += "\\x";
      result += kHexDigits[byte >> 4];
      result += kHexDigits[byte & 15];
    }
  }
  return result;
}

}  // namespace velder
