#include "libtorrin/Printable.h"

namespace torrin {

std::string printable(std::string_view text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool looks_escaped = byte == '\\' && text.substr(i + 1).starts_with('x');
    if (byte >= 0x20 && byte != 0x7f && !looks_escaped) {
      out += text[i];
    } else {
      out += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return out;
}

std::string shortened(std::string text) {
  constexpr size_t kMaxBytes = 300;
  if (text.size() > kMaxBytes) text.replace(kMaxBytes, std::string::npos, "...");
  return text;
}

}  // namespace torrin
