// Client addresses as keys: 16 bytes, network order, IPv4 as ::ffff:a.b.c.d, so that two spellings of one
// address are one key and the byte order of keys is the order of addresses.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace torrin {

using AddressKey = std::array<uint8_t, 16>;
static_assert(sizeof(AddressKey) == 16, "the key length is part of the file format");

// The key of an IPv4 or IPv6 address as inet_pton reads it: nothing around it, no zone, no octal numbers.
// Empty for anything else, null included.
std::optional<AddressKey> parse_address(const char* text);

// The address in its usual spelling: dotted for v4-mapped keys, shortest form for the others.
std::string format_address(const AddressKey& key);

}  // namespace torrin
