// The header of a frame: body length (without the header) and message type, both signed 32-bit integers,
// little-endian whatever the machine. Pure functions, no allocation.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

namespace velder_client {

constexpr size_t kHeaderBytes = 8;

// The daemon drops a longer request while it is incomplete, so one is never sent.
constexpr size_t kMaxRequestBody = 10485760;

// Answers have no limit of their own; this one keeps a stranger on the port from filling our memory.
constexpr size_t kMaxAnswerBody = size_t{256} << 20;
static_assert(kMaxAnswerBody <= size_t{std::numeric_limits<int32_t>::max()});

struct Header {
  int32_t body_length = 0;
  int32_t type = 0;

  bool operator==(const Header&) const = default;
};

constexpr void put_little_endian(int32_t value, std::span<char, 4> out) {
  auto rest = static_cast<uint32_t>(value);
  for (char& byte : out) {
    byte = static_cast<char>(static_cast<unsigned char>(rest & 0xFFU));
    rest >>= 8U;
  }
}

constexpr int32_t get_little_endian(std::span<const char, 4> bytes) {
  uint32_t value = 0;
  for (size_t i = bytes.size(); i-- > 0;) value = (value << 8U) | static_cast<unsigned char>(bytes[i]);
  return static_cast<int32_t>(value);
}

constexpr std::array<char, kHeaderBytes> encode_header(Header header) {
  std::array<char, kHeaderBytes> out{};
  put_little_endian(header.body_length, std::span(out).first<4>());
  put_little_endian(header.type, std::span(out).last<4>());
  return out;
}

constexpr Header decode_header(std::span<const char, kHeaderBytes> bytes) {
  return {get_little_endian(bytes.first<4>()), get_little_endian(bytes.last<4>())};
}

// Every answer's type is its request's plus one.
constexpr int32_t answer_type(int32_t request_type) {
  return request_type + 1;
}

}  // namespace velder_client
