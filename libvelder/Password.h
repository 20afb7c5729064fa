// Checks a password against stored values of the attribute userPassword (RFC 2307 schemes).
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace velder {

enum class PasswordVerdict {
  kMatch,       // proven
  kMismatch,    // a wrong password
  kCannotTell,  // the stored value is damaged, or of a scheme that is not known here
};

// Known are {SSHA}, {SSHA256}, {SSHA512}, {SHA}, {SHA256}, {SHA512}, {CRYPT} (what the system's crypt
// offers, unless the value asks for more than about a second of work or 128 MB), {CLEARTEXT} and text without
// a scheme; scheme names in any letter case. Any other "{...}" is a scheme that is not known, never text. An
// empty password, one of more than 4,096 bytes, and for {CRYPT} one that holds a NUL or that crypt would
// refuse for its length, never match. Compared in constant time; copies are wiped. Safe from every thread.
PasswordVerdict check_password(std::string_view stored, std::string_view given);

// For an entry with several values: kMatch when one matches, else kMismatch when one could be told, else (or
// without any value) kCannotTell. All values are tried, so the time taken does not tell which one matched.
PasswordVerdict check_password(std::span<const std::string> stored, std::string_view given);

}  // namespace velder
