// The value kept under an address: one format byte, the expiry time as 8 bytes big endian, the user text
// up to the end. docs/ip-user-cache.md describes it; a change needs another format byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace torrin {

constexpr uint8_t kRecordFormat = 1;
constexpr size_t kExpiryOffset = 1;
constexpr size_t kUserOffset = 9;
constexpr size_t kMaxUserBytes = 1024;
constexpr size_t kMaxRecordBytes = kUserOffset + kMaxUserBytes;
static_assert(kUserOffset == kExpiryOffset + sizeof(int64_t));
static_assert(kMaxRecordBytes == 1033, "the largest record is part of the file format");

// Expiry of a binding that never ends.
constexpr int64_t kNeverExpires = 0;

// Seconds since the epoch; `user` points into the record.
struct BindingView {
  int64_t expiry;
  std::string_view user;
};

// A record outside the store, so that nothing points into the mapped file once a transaction has ended.
struct RecordBuffer {
  std::array<char, kMaxRecordBytes> bytes;  // not initialised: a look-up copies only what it found
  size_t size = 0;

  std::string_view view() const { return {bytes.data(), size}; }
};

inline bool is_valid_user(std::string_view user) {
  return !user.empty() && user.size() <= kMaxUserBytes;
}

// A binding is alive while the clock stands before its expiry; in that very second it has ended.
inline bool is_live(int64_t expiry, int64_t now) {
  return expiry == kNeverExpires || now < expiry;
}

inline size_t record_bytes(std::string_view user) {
  return kUserOffset + user.size();
}

// Fills record_bytes(user) bytes. `user` must be valid and `expiry` not negative.
inline void encode_record(int64_t expiry, std::string_view user, char* out) {
  out[0] = static_cast<char>(kRecordFormat);
  for (size_t i = 0; i < sizeof(expiry); ++i) {
    out[kExpiryOffset + i] = static_cast<char>(static_cast<uint64_t>(expiry) >> (56 - 8 * i));
  }
  user.copy(out + kUserOffset, user.size());
}

// Empty for bytes that are no record of this format.
inline std::optional<BindingView> decode_record(std::string_view record) {
  if (record.size() <= kUserOffset || record.size() > kMaxRecordBytes) return std::nullopt;
  if (static_cast<uint8_t>(record[0]) != kRecordFormat) return std::nullopt;
  uint64_t expiry = 0;
  for (size_t i = kExpiryOffset; i < kUserOffset; ++i) {
    expiry = expiry << 8 | static_cast<uint8_t>(record[i]);
  }
  if (expiry > static_cast<uint64_t>(INT64_MAX)) return std::nullopt;
  return BindingView{static_cast<int64_t>(expiry), record.substr(kUserOffset)};
}

}  // namespace torrin
