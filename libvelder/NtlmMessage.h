// NTLM messages as clients send them: the checks that must pass before the mechanism sees a message, the form
// that it takes, and who a message says it is from. Pure functions; nothing throws but for want of memory.
//
// The mechanism crashes on a message 3 without the session key that was agreed on, and refuses the messages
// of clients that leave the version field away. What passes here has every field inside the message.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velder {

enum NtlmFlag : uint32_t {
  kNtlmUnicode = 0x00000001,
  kNtlmDomainSupplied = 0x00001000,
  kNtlmWorkstationSupplied = 0x00002000,
  kNtlmVersion = 0x02000000,
  kNtlmKeyExchange = 0x40000000,
};

// Whom a message 3 names, in UTF-8 and as the client wrote it. No NUL and no control character is inside.
struct NtlmIdentity {
  std::string domain;  // may be empty
  std::string user;    // never empty
};

// Each gives null, or what is wrong with the message, for the log. A message that was only of an older form
// has been changed into the present one then.
const char* prepare_ntlm_type1(std::string& message);
// `challenge_flags` are those of the challenge that was sent: they decide how texts are written and whether a
// session key has to be there, whatever the message itself says.
const char* prepare_ntlm_type3(std::string& message, uint32_t challenge_flags, NtlmIdentity& identity);

// The flags of a message 2; nothing when it is none.
std::optional<uint32_t> ntlm_challenge_flags(std::string_view challenge);

// Text of a message in UTF-8; nothing when it is not well-formed UTF-16 in little-endian order.
std::optional<std::string> utf8_from_utf16le(std::string_view bytes);

}  // namespace velder
