#include "libvelder/NtlmMessage.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

using namespace std::string_literals;

namespace velder {
namespace {

void put(std::string& message, size_t at, uint32_t value, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) message[at + i] = static_cast<char>(value >> (8 * i) & 0xff);
}

std::string header(uint32_t type, size_t size) {
  std::string message = "NTLMSSP\0"s;
  message.resize(size, '\0');
  put(message, 8, type, 4);
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

std::string type3(size_t header_size = 88) {
  std::string message = header(3, header_size);
  put(message, kFlagBits, kFlags | kNtlmVersion, 4);
  add_field(message, kLm, std::string(24, '\0'));
  add_field(message, kNt, std::string(60, 'r'));
  add_field(message, kDomain, utf16("CORP"));
  add_field(message, kUser, utf16("alice"));
  add_field(message, kStation, utf16("PC"));
  add_field(message, kKey, std::string(16, 'k'));
  return message;
}

TEST(NtlmMessage, WhatTheMechanismMayNotSeeIsRefused) {
  const struct {
    const char* what;
    std::function<void(std::string&)> change;
    const char* refusal;  // part of it
  } kRows[] = {
      {"cut", [](auto& m) { m.resize(63); }, "no NTLM message 3"},
      {"another type", [](auto& m) { put(m, 8, 1, 4); }, "no NTLM message 3"},
      {"another signature", [](auto& m) { m[0] = 'M'; }, "no NTLM message 3"},
      {"beyond the end", [](auto& m) { put(m, kStation + 4, static_cast<uint32_t>(m.size()) - 3, 4); },
       "beyond"},
      {"end that overflows", [](auto& m) { put(m, kNt + 4, 0xfffffff0, 4); }, "beyond"},
      {"inside the header", [](auto& m) { put(m, kUser + 4, 60, 4); }, "in its header"},
      {"no session key", [](auto& m) { put(m, kKey, 0, 4); }, "session key"},
      {"short session key", [](auto& m) { put(m, kKey, 15, 2); }, "session key"},
      {"the flag is only ours", [](auto& m) { put(m, kFlagBits, 1, 4), put(m, kKey, 0, 4); }, "session key"},
      {"v1", [](auto& m) { put(m, kNt, 24, 2); }, "NTLMv1"},
      {"LM only", [](auto& m) { put(m, kNt, 0, 2); }, "NTLMv1"},
      {"response of no kind", [](auto& m) { put(m, kNt, 43, 2); }, "too short"},
      {"anonymous", [](auto& m) { put(m, kNt, 0, 2), put(m, kUser, 0, 2); }, "anonymous"},
      {"no user", [](auto& m) { put(m, kUser, 0, 2); }, "no user"},
      {"half a character", [](auto& m) { put(m, kUser, 9, 2); }, "no text"},
      {"NUL in the user", [](auto& m) { m[m.find("i\0c"s)] = '\0'; }, "no text"},
      {"line end in the domain", [](auto& m) { m[m.find("O\0R"s)] = '\n'; }, "no text"},
      {"endless user", [](auto& m) { add_field(m, kUser, utf16(std::string(401, 'u'))); }, "too long"},
  };
  for (const auto& row : kRows) {
    std::string message = type3();
    row.change(message);
    NtlmIdentity who;
    const char* refusal = prepare_ntlm_type3(message, kFlags, who);
    ASSERT_NE(refusal, nullptr) << row.what;
    EXPECT_NE(std::string(refusal).find(row.refusal), std::string::npos) << row.what << ": " << refusal;
  }
}

TEST(NtlmMessage, NamesAreReadAsTheChallengeSays) {
  std::string message = type3();
  const std::string before = message;
  NtlmIdentity who;
  ASSERT_EQ(prepare_ntlm_type3(message, kFlags, who), nullptr);
  EXPECT_EQ(who.domain + "/" + who.user, "CORP/alice");
  EXPECT_EQ(message, before) << "its checksum covers every byte";

  add_field(message, kUser, "Zo\xc3\xab");
  add_field(message, kDomain, "");
  ASSERT_EQ(prepare_ntlm_type3(message, kNtlmKeyExchange, who), nullptr);
  EXPECT_EQ(who.domain + "/" + who.user, "/Zo\xc3\xab");
  add_field(message, kUser, "Zo\xeb");
  EXPECT_NE(prepare_ntlm_type3(message, kNtlmKeyExchange, who), nullptr);

  EXPECT_EQ(utf8_from_utf16le("\x3d\xd8\x00\xde\xac\x20\xeb\x00"s), "\xf0\x9f\x98\x80\xe2\x82\xac\xc3\xab");
  for (const std::string& broken : {"\x3d\xd8"s, "\x3d\xd8\x41\x00"s, "\x00\xde"s, "\x41"s}) {
    EXPECT_EQ(utf8_from_utf16le(broken), std::nullopt);
  }
}

TEST(NtlmMessage, OldFormsAreBroughtIntoThePresentOne) {
  constexpr uint32_t kSupplied = kNtlmDomainSupplied | kNtlmWorkstationSupplied;
  const uint32_t kEchoed = 0x207 | kSupplied | kNtlmVersion;
  for (const size_t size : {size_t{16}, size_t{32}, size_t{39}}) {
    std::string message = header(1, size);
    put(message, 12, kEchoed, 4);
    ASSERT_EQ(prepare_ntlm_type1(message), nullptr) << size;
    std::string expected = header(1, 40);
    put(expected, 12, 0x207, 4);
    EXPECT_EQ(message, expected) << size;
  }
  // Names where the version would be: they go.
  std::string named = header(1, 32);
  put(named, 12, kEchoed, 4);
  add_field(named, 16, "CORP");
  add_field(named, 24, "STATION7");
  ASSERT_EQ(prepare_ntlm_type1(named), nullptr);
  EXPECT_EQ(named.size(), 40U);
  EXPECT_EQ(named.find("CORP"), std::string::npos);
  // The present form stays as it is.
  std::string present = header(1, 40);
  put(present, 12, kEchoed, 4);
  add_field(present, 16, "CORP");
  const std::string before = present;
  EXPECT_EQ(prepare_ntlm_type1(present), nullptr);
  EXPECT_EQ(present, before);
  put(present, 16, 5, 2);
  EXPECT_NE(prepare_ntlm_type1(present), nullptr) << "a name beyond the end";

  // A message 3 without a version that claims to have one.
  std::string old_type3 = type3(64);
  NtlmIdentity who;
  ASSERT_EQ(prepare_ntlm_type3(old_type3, kFlags, who), nullptr);
  std::string expected = type3(64);
  put(expected, kFlagBits, kFlags, 4);
  EXPECT_EQ(old_type3, expected);
}

}  // namespace
}  // namespace velder
