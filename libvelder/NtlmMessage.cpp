#include "libvelder/NtlmMessage.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "libvelder/Fold.h"

namespace velder {
namespace {

constexpr std::string_view kSignature("NTLMSSP\0", 8);
constexpr size_t kTypeOffset = 8;

// Message 1.
constexpr size_t kType1Flags = 12;
constexpr size_t kType1Domain = 16;
constexpr size_t kType1Workstation = 24;
constexpr size_t kType1OldHeader = 32;  // without a version
constexpr size_t kType1Header = 40;

// Message 2.
constexpr size_t kType2Flags = 20;

// Message 3.
constexpr size_t kLmResponse = 12;
constexpr size_t kNtResponse = 20;
constexpr size_t kDomain = 28;
constexpr size_t kUser = 36;
constexpr size_t kWorkstation = 44;
constexpr size_t kSessionKey = 52;
constexpr size_t kType3Flags = 60;
constexpr size_t kType3OldHeader = 64;  // without a version
constexpr size_t kType3Header = 72;

constexpr size_t kSessionKeyBytes = 16;
constexpr size_t kV1ResponseBytes = 24;  // exactly; any response of the second version is longer
constexpr size_t kV2ResponseBytes = 44;  // at least: the proof, and the blob up to its list of names
// Longer than any directory's names, and short enough for the lines of the mechanism's users files.
constexpr size_t kLongestName = 400;

unsigned byte_at(std::string_view message, size_t at) {
  return static_cast<unsigned char>(message[at]);
}
uint16_t read_u16(std::string_view message, size_t at) {
  return static_cast<uint16_t>(byte_at(message, at) | byte_at(message, at + 1) << 8);
}
uint32_t read_u32(std::string_view message, size_t at) {
  return read_u16(message, at) | uint32_t{read_u16(message, at + 2)} << 16;
}
void write_u32(std::string& message, size_t at, uint32_t value) {
  for (size_t i = 0; i < 4; ++i) message[at + i] = static_cast<char>(value >> (8 * i) & 0xff);
}

bool is_message(std::string_view message, uint32_t type, size_t header) {
  return message.size() >= header && message.starts_with(kSignature) &&
         read_u32(message, kTypeOffset) == type;
}

// Where the header says that a part of the message lies.
struct Field {
  Field(std::string_view message, size_t at)
      : length(read_u16(message, at)), offset(read_u32(message, at + 4)) {}

  bool lies_in(std::string_view message) const {
    return length == 0 || (offset <= message.size() && length <= message.size() - offset);
  }
  std::string_view in(std::string_view message) const {
    return length == 0 ? std::string_view() : message.substr(offset, length);
  }

  size_t length;
  size_t offset;
};

void append_utf8(std::string& text, uint32_t point) {
  const auto put = [&](uint32_t byte) { text += static_cast<char>(byte); };
  if (point < 0x80) return put(point);
  if (point < 0x800) {
    put(0xc0 | point >> 6);
  } else if (point < 0x10000) {
    put(0xe0 | point >> 12);
    put(0x80 | (point >> 6 & 0x3f));
  } else {
    put(0xf0 | point >> 18);
    put(0x80 | (point >> 12 & 0x3f));
    put(0x80 | (point >> 6 & 0x3f));
  }
  put(0x80 | (point & 0x3f));
}

// Without the Unicode flag a text is in the client's own code page, of which only what is UTF-8 can be known.
bool read_name(std::string_view bytes, bool unicode, std::string& name) {
  if (unicode) {
    auto text = utf8_from_utf16le(bytes);
    if (!text) return false;
    name = std::move(*text);
  } else {
    if (!is_utf8(bytes)) return false;
    name = bytes;
  }
  return name.size() <= kLongestName && std::none_of(name.begin(), name.end(), [](char c) {
           return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
         });
}

}  // namespace

std::optional<std::string> utf8_from_utf16le(std::string_view bytes) {
  if (bytes.size() % 2 != 0) return std::nullopt;
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += 2) {
    uint32_t point = read_u16(bytes, at);
    if (point >= 0xdc00 && point < 0xe000) return std::nullopt;
    if (point >= 0xd800 && point < 0xdc00) {
      if (at + 4 > bytes.size()) return std::nullopt;
      const uint32_t low = read_u16(bytes, at + 2);
      if (low < 0xdc00 || low >= 0xe000) return std::nullopt;
      point = 0x10000 + ((point - 0xd800) << 10 | (low - 0xdc00));
      at += 2;
    }
    append_utf8(text, point);
  }
  return text;
}

std::optional<uint32_t> ntlm_challenge_flags(std::string_view challenge) {
  if (!is_message(challenge, 2, kType2Flags + 4)) return std::nullopt;
  return read_u32(challenge, kType2Flags);
}

const char* prepare_ntlm_type1(std::string& message) {
  if (!is_message(message, 1, kType1Flags + 4)) return "it is no NTLM message 1";
  constexpr uint32_t kNamesSupplied = kNtlmDomainSupplied | kNtlmWorkstationSupplied;
  const uint32_t flags = read_u32(message, kType1Flags);
  bool old_form = message.size() < kType1Header;
  if (!old_form && (flags & kNamesSupplied) != 0) {
    for (const size_t at : {kType1Domain, kType1Workstation}) {
      const Field field(message, at);
      if (!field.lies_in(message)) return "a field of message 1 reaches beyond it";
      // Text where the version would be.
      if (field.length > 0 && field.offset >= kType1OldHeader && field.offset < kType1Header) old_form = true;
    }
  }
  if (!old_form) return nullptr;
  // Nobody needs the names of such a message; clients that protect their messages against changes send the
  // present form.
  message.resize(std::min(message.size(), kType1Domain));
  message.resize(kType1Header, '\0');
  write_u32(message, kType1Flags, flags & ~(kNamesSupplied | kNtlmVersion));
  return nullptr;
}

const char* prepare_ntlm_type3(std::string& message, uint32_t challenge_flags, NtlmIdentity& identity) {
  if (!is_message(message, 3, kType3OldHeader)) return "it is no NTLM message 3";
  size_t lowest = message.size();
  for (const size_t at : {kLmResponse, kNtResponse, kDomain, kUser, kWorkstation, kSessionKey}) {
    const Field field(message, at);
    if (!field.lies_in(message)) return "a field of message 3 reaches beyond it";
    if (field.length > 0) lowest = std::min(lowest, field.offset);
  }
  if (lowest < kType3OldHeader) return "a field of message 3 lies in its header";
  if (lowest < kType3Header) {
    // Such clients echo the version flag of the challenge without having a version.
    write_u32(message, kType3Flags, read_u32(message, kType3Flags) & ~uint32_t{kNtlmVersion});
  }
  const bool unicode = (challenge_flags & kNtlmUnicode) != 0;
  if (!read_name(Field(message, kUser).in(message), unicode, identity.user) ||
      !read_name(Field(message, kDomain).in(message), unicode, identity.domain)) {
    return "a name in message 3 is no text, or too long";
  }
  const size_t response = Field(message, kNtResponse).length;
  if (identity.user.empty() && response == 0) return "it is an anonymous logon";
  if (identity.user.empty()) return "message 3 has no user";
  if (response == kV1ResponseBytes || response == 0) return "only NTLMv2 is accepted, this is NTLMv1 or LM";
  if (response < kV2ResponseBytes) return "the response in message 3 is too short";
  const bool key_needed = (challenge_flags & kNtlmKeyExchange) != 0;
  if (key_needed && Field(message, kSessionKey).length != kSessionKeyBytes) {
    return "message 3 lacks the session key that was agreed on";
  }
  return nullptr;
}

}  // namespace velder
