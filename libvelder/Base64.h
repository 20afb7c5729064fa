// Base64 (RFC 4648) as LDIF values and password hashes carry it.
#pragma once

#include <string>
#include <string_view>

namespace velder {

// Replaces `bytes` with what `text` encodes; its room is used again. False, leaving `bytes` empty, unless
// `text` is exactly one encoding: whole groups of four, padding only at the end, no blanks, no stray bits.
bool decode_base64(std::string_view text, std::string& bytes);

// On one line, padded.
std::string encode_base64(std::string_view bytes);

}  // namespace velder
