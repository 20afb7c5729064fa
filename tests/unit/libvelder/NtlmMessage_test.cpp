#include "libvelder/NtlmMessage.h"

#include <gtest/gtest.h>

#include <functional>

using namespace std::string_literals;

namespace velder {
namespace {

void put(std::string& message, size_t at, uint32_t value, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) message[at + i] = static_cast<char>(value >> (8 * i) & 0xff);
}

std::string header(uint32_t type, size_t size, uint32_t flags) {
  std::string message = "NTLMSSP\0"s;
  message.resize(size, '\0');
  put(message, 8, type, 4);
  put(message, type == 1 ? 12 : 60, flags, 4);
  return message;
}

void add_field(std::string& message, size_t at, const std::string& value) {
  put(message, at, static_cast<uint32_t>(value.size()), 2);
  put(message, at + 2, static_cast<uint32_t>(value.size()), 2);
  put(message, at + 4, static_cast<uint32_t>(message.size()), 4);
  message += value;
}

std::string utf16(const std::string& ascii) {
  std::string text;
  for (const char c : ascii) text += c + "\0"s;
  return text;
}

constexpr uint32_t kFlags = kNtlmUnicode | kNtlmKeyExchange;
enum At : size_t { kLm = 12, kNt = 20, kDomain = 28, kUser = 36, kStation = 44, kKey = 52, kFlagBits = 60 };

std::string type3(size_t header_size = 88, uint32_t flags = kFlags | kNtlmVersion) {
  std::string message = header(3, header_size, flags);
  add_field(message, kLm, std::string(24, '\0'));
  add_field(message, kNt, std::string(60, 'r'));
  add_field(message, kDomain, utf16("CORP"));
  add_field(message, kUser, utf16("alice"));
  add_field(message, kStation, utf16("PC"));
  add_field(message, kKey, std::string(16, 'k'));
  return message;
}

// "DOMAIN/user", or the refusal.
std::string identity_in(std::string& message, uint32_t flags = kFlags) {
  NtlmIdentity who;
  const char* refusal = prepare_ntlm_type3(message, flags, who);
  return refusal != nullptr ? refusal : who.domain + "/" + who.user;
}

TEST(NtlmMessage, WhatTheMechanismMayNotSeeIsRefused) {
  const struct {
    std::function<void(std::string&)> change;
    const char* refusal;
  } kRows[] = {
      {[](auto& m) { m.resize(63); }, "no NTLM message 3"},
      {[](auto& m) { put(m, 8, 1, 4); }, "no NTLM message 3"},
      {[](auto& m) { m[0] = 'M'; }, "no NTLM message 3"},
      {[](auto& m) { put(m, kStation + 4, static_cast<uint32_t>(m.size()) - 3, 4); }, "beyond"},
      {[](auto& m) { put(m, kNt + 4, 0xfffffff0, 4); }, "beyond"},  // its end overflows
      {[](auto& m) { put(m, kUser + 4, 60, 4); }, "in its header"},
      {[](auto& m) { put(m, kKey, 15, 2); }, "session key"},
      {[](auto& m) { put(m, kFlagBits, 1, 4), put(m, kKey, 0, 4); },
       "session key"},  // ours is the flag that counts
      {[](auto& m) { put(m, kNt, 24, 2); }, "NTLMv1"},
      {[](auto& m) { put(m, kNt, 43, 2); }, "too short"},
      {[](auto& m) { put(m, kNt, 0, 2), put(m, kUser, 0, 2); }, "anonymous"},
      {[](auto& m) { put(m, kUser, 0, 2); }, "no user"},
      {[](auto& m) { put(m, kUser, 9, 2); }, "no text"},  // half a character
      {[](auto& m) { m[m.find("i\0c"s)] = '\0'; }, "no text"},
      {[](auto& m) { m[m.find("O\0R"s)] = '\n'; }, "no text"},
      {[](auto& m) { add_field(m, kUser, utf16(std::string(401, 'u'))); }, "too long"},
  };
  for (const auto& row : kRows) {
    std::string message = type3();
    row.change(message);
    const std::string refusal = identity_in(message);
    EXPECT_NE(refusal.find(row.refusal), std::string::npos) << row.refusal << ": " << refusal;
  }
}

TEST(NtlmMessage, NamesAreReadAsTheChallengeSays) {
  std::string message = type3();
  const std::string before = message;
  EXPECT_EQ(identity_in(message), "CORP/alice");
  EXPECT_EQ(message, before) << "its checksum covers every byte";

  add_field(message, kUser, "Zo\xc3\xab");
  add_field(message, kDomain, "");
  EXPECT_EQ(identity_in(message, kNtlmKeyExchange), "/Zo\xc3\xab");
  add_field(message, kUser, "Zo\xeb");
  EXPECT_NE(identity_in(message, kNtlmKeyExchange).find("no text"), std::string::npos);

  EXPECT_EQ(utf8_from_utf16le("\x3d\xd8\x00\xde\xac\x20\xeb\x00"s), "\xf0\x9f\x98\x80\xe2\x82\xac\xc3\xab");
  for (const std::string& broken : {"\x3d\xd8"s, "\x3d\xd8\x41\x00"s, "\x00\xde"s})
    EXPECT_EQ(utf8_from_utf16le(broken), std::nullopt);
}

TEST(NtlmMessage, OldFormsAreBroughtIntoThePresentOne) {
  const uint32_t kEchoed = 0x207 | kNtlmDomainSupplied | kNtlmWorkstationSupplied | kNtlmVersion;
  for (const size_t size : {16U, 39U}) {
    std::string message = header(1, size, kEchoed);
    ASSERT_EQ(prepare_ntlm_type1(message), nullptr) << size;
    EXPECT_EQ(message, header(1, 40, 0x207)) << size;
  }
  std::string named = header(1, 32, kEchoed);  // names where the version would be: they go
  add_field(named, 16, "CORP");
  add_field(named, 24, "STATION7");
  ASSERT_EQ(prepare_ntlm_type1(named), nullptr);
  EXPECT_EQ(named, header(1, 40, 0x207));
  std::string present = header(1, 40, kEchoed);
  add_field(present, 16, "CORP");
  const std::string before = present;
  EXPECT_EQ(prepare_ntlm_type1(present), nullptr);
  EXPECT_EQ(present, before);
  put(present, 16, 5, 2);
  EXPECT_NE(prepare_ntlm_type1(present), nullptr) << "a name beyond the end";

  std::string without_version = type3(64);  // that claims to have one
  EXPECT_EQ(identity_in(without_version), "CORP/alice");
  EXPECT_EQ(without_version, type3(64, kFlags));
}

}  // namespace
}  // namespace velder
