#include "libtorrin/Address.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace torrin {
namespace {

constexpr std::array<uint8_t, 12> kMappedPrefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

}  // namespace

std::optional<AddressKey> parse_address(const char* text) {
  if (text == nullptr) return std::nullopt;
  AddressKey key;
  if (std::strchr(text, ':') != nullptr) {
    if (inet_pton(AF_INET6, text, key.data()) != 1) return std::nullopt;
    return key;
  }
  std::copy(kMappedPrefix.begin(), kMappedPrefix.end(), key.begin());
  if (inet_pton(AF_INET, text, key.data() + kMappedPrefix.size()) != 1) return std::nullopt;
  return key;
}

std::string format_address(const AddressKey& key) {
  char text[INET6_ADDRSTRLEN] = "";
  if (std::equal(kMappedPrefix.begin(), kMappedPrefix.end(), key.begin())) {
    inet_ntop(AF_INET, key.data() + kMappedPrefix.size(), text, sizeof(text));
  } else {
    inet_ntop(AF_INET6, key.data(), text, sizeof(text));
  }
  return text;
}

}  // namespace torrin
