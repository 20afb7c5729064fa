#include "handler/Base64.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>

const char base64_table[66] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";

namespace {

constexpr char kPad = '=';
constexpr size_t kEncodeSlack = 512;

constexpr std::array<int8_t, 256> make_values() {
  std::array<int8_t, 256> values{};
  for (auto& value : values) value = -1;
  constexpr const char* kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (int i = 0; i < 64; ++i) values[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
  return values;
}
constexpr std::array<int8_t, 256> kValues = make_values();

size_t encode(const unsigned char* in, size_t length, char* out) {
  size_t written = 0;
  for (size_t i = 0; i < length; i += 3) {
    const size_t left = std::min<size_t>(length - i, 3);
    const uint32_t group = static_cast<uint32_t>(in[i]) << 16 |
                           (left > 1 ? static_cast<uint32_t>(in[i + 1]) << 8 : 0U) |
                           (left > 2 ? in[i + 2] : 0U);
    out[written++] = base64_table[group >> 18];
    out[written++] = base64_table[group >> 12 & 63];
    out[written++] = left > 1 ? base64_table[group >> 6 & 63] : kPad;
    out[written++] = left > 2 ? base64_table[group & 63] : kPad;
  }
  return written;
}

}  // namespace

int ToB64Enc(const char* in, int in_length, char* out, int capacity) {
  if (capacity < 1) return 0;
  const auto length = static_cast<size_t>(std::max(in_length, 0));
  const auto working = std::make_unique<char[]>((length + kEncodeSlack) * 2);
  const size_t written = encode(reinterpret_cast<const unsigned char*>(in), length, working.get());
  const auto room = static_cast<size_t>(capacity) - 1;
  memcpy(out, working.get(), std::min(written, room));
  if (written < room) out[written] = '\0';
  out[room] = '\0';
  return 0;
}

int ToB64Dec(const char* text, char* out, int capacity) {
  int length = 0;
  const std::unique_ptr<unsigned char[]> decoded(Base64Decode(text, &length));
  const auto room = static_cast<size_t>(std::max(capacity, 0));
  memset(out, 0, room);
  memcpy(out, decoded.get(), std::min(static_cast<size_t>(length), room));
  explicit_bzero(decoded.get(), static_cast<size_t>(length));
  return length;
}

unsigned char* Base64Decode(const char* text, int* length) {
  const size_t quads = strlen(text) / 4;
  auto decoded = std::make_unique<unsigned char[]>((quads + 1) * 3);
  size_t written = 0;
  uint32_t group = 0;
  int filled = 0;  // characters of the group so far
  for (; *text != '\0' && *text != kPad; ++text) {
    const int8_t value = kValues[static_cast<unsigned char>(*text)];
    if (value < 0) continue;
    group = group << 6 | static_cast<uint32_t>(value);
    if (++filled < 4) continue;
    decoded[written++] = static_cast<unsigned char>(group >> 16);
    decoded[written++] = static_cast<unsigned char>(group >> 8);
    decoded[written++] = static_cast<unsigned char>(group);
    group = 0;
    filled = 0;
  }
  if (filled == 2) decoded[written++] = static_cast<unsigned char>(group >> 4);
  if (filled == 3) {
    decoded[written++] = static_cast<unsigned char>(group >> 10);
    decoded[written++] = static_cast<unsigned char>(group >> 2);
  }
  *length = static_cast<int>(written);
  return decoded.release();
}

void Base64DecodeString(char* text) {
  int length = 0;
  const std::unique_ptr<unsigned char[]> decoded(Base64Decode(text, &length));
  memset(text, 0, strlen(text));
  memcpy(text, decoded.get(), static_cast<size_t>(length));
  text[length] = '\0';
}
