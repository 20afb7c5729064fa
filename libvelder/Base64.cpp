#include "libvelder/Base64.h"

#include <openssl/evp.h>

#include <array>
#include <cstdint>

namespace velder {
namespace {

constexpr uint32_t kBad = 0x80000000;  // outside the 24 bits of a group, so that one test sees four letters

constexpr std::array<uint32_t, 256> make_values() {
  std::array<uint32_t, 256> values{};
  values.fill(kBad);
  constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (uint32_t i = 0; i < kAlphabet.size(); ++i) values[static_cast<unsigned char>(kAlphabet[i])] = i;
  return values;
}

constexpr std::array<uint32_t, 256> kValues = make_values();

uint32_t value_of(char c) {
  return kValues[static_cast<unsigned char>(c)];
}

uint32_t group_of(const char* letters) {
  return value_of(letters[0]) << 18 | value_of(letters[1]) << 12 | value_of(letters[2]) << 6 |
         value_of(letters[3]);
}

}  // namespace

bool decode_base64(std::string_view text, std::string& bytes) {
  bytes.clear();
  if (text.size() % 4 != 0) return false;
  if (text.empty()) return true;
  const size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  const size_t whole_groups = text.size() / 4 - (padding > 0 ? 1 : 0);
  bytes.resize(whole_groups * 3);
  char* out = bytes.data();
  uint32_t bad = 0;
  for (const char* in = text.data(); in != text.data() + whole_groups * 4; in += 4) {
    // Shifting a bad letter would lose its mark: the letters are tested on their own.
    bad |= value_of(in[0]) | value_of(in[1]) | value_of(in[2]) | value_of(in[3]);
    const uint32_t group = group_of(in);
    *out++ = static_cast<char>(group >> 16 & 0xff);
    *out++ = static_cast<char>(group >> 8 & 0xff);
    *out++ = static_cast<char>(group & 0xff);
  }
  if (padding > 0) {
    std::string last(text.substr(whole_groups * 4, 4 - padding));
    last.append(padding, 'A');
    for (const char c : last) bad |= value_of(c);
    const uint32_t group = group_of(last.data());
    // Bits that no byte takes must be zero: otherwise two texts would mean the same bytes.
    if ((group & (padding == 2 ? 0xffffU : 0xffU)) != 0) bad = kBad;
    bytes += static_cast<char>(group >> 16 & 0xff);
    if (padding == 1) bytes += static_cast<char>(group >> 8 & 0xff);
  }
  if ((bad & kBad) == 0) return true;
  bytes.clear();
  return false;
}

std::string encode_base64(std::string_view bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');  // its NUL included
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(length));
  return text;
}

}  // namespace velder
