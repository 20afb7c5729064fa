#include "daemonbase/BRELIPList.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace {

constexpr size_t kMaxItemLength = 1023;
constexpr size_t kV4Offset = 12;  // where the IPv4 bytes of a mapped address begin

std::string_view trim(std::string_view text) {
  constexpr std::string_view kSpace = " \t\n\v\f\r";
  const size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

std::array<uint8_t, 16> map_v4(const in_addr& v4) {
  std::array<uint8_t, 16> address = {};
  address[10] = address[11] = 0xff;
  memcpy(&address[kV4Offset], &v4, sizeof v4);
  return address;
}

}  // namespace

void BRELIPList::AddMultiItems(std::string_view text) {
  while (!text.empty()) {
    size_t end = text.find(';');
    if (end == std::string_view::npos) end = std::min(text.find(','), text.size());
    AddItem(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

bool BRELIPList::AddItem(std::string_view item) {
  item = trim(item).substr(0, kMaxItemLength);
  if (const size_t slash = item.find('/'); slash != std::string_view::npos) {
    return add_network(trim(item.substr(0, slash)), trim(item.substr(slash + 1)));
  }
  Range range = {};
  bool first_is_v4 = false;
  bool last_is_v4 = false;
  const size_t dash = item.find('-');
  if (!parse(trim(item.substr(0, dash)), &range.first, &first_is_v4)) return false;
  range.last = range.first;
  last_is_v4 = first_is_v4;
  if (dash != std::string_view::npos && !parse(trim(item.substr(dash + 1)), &range.last, &last_is_v4)) {
    return false;
  }
  if (first_is_v4 != last_is_v4 || range.last < range.first) return false;
  ranges_.push_back(range);
  return true;
}

bool BRELIPList::add_network(std::string_view network, std::string_view mask) {
  Address base = {};
  Address mask_bytes = {};
  bool is_v4 = false;
  bool mask_is_v4 = false;
  if (!parse(network, &base, &is_v4)) return false;

  const size_t offset = is_v4 ? kV4Offset : 0;
  const size_t most_bits = (base.size() - offset) * 8;
  size_t bits = 0;
  const auto [end, error] = std::from_chars(mask.data(), mask.data() + mask.size(), bits);
  if (error == std::errc() && end == mask.data() + mask.size()) {
    if (bits > most_bits) return false;
    for (size_t bit = 0; bit < bits; ++bit) {
      uint8_t& byte = mask_bytes[offset + bit / 8];
      byte = static_cast<uint8_t>(byte | (0x80U >> (bit % 8)));
    }
  } else if (!is_v4 || !parse(mask, &mask_bytes, &mask_is_v4) || !mask_is_v4) {
    return false;
  }

  std::fill_n(mask_bytes.begin(), offset, uint8_t{0xFF});
  Range range = {base, base};
  for (size_t i = 0; i < base.size(); ++i) {
    range.first[i] = base[i] & mask_bytes[i];
    range.last[i] = static_cast<uint8_t>(base[i] | ~mask_bytes[i]);
  }
  ranges_.push_back(range);
  return true;
}

bool BRELIPList::parse(std::string_view text, Address* address, bool* is_v4) {
  char buffer[INET6_ADDRSTRLEN];
  if (text.size() >= sizeof buffer) return false;
  buffer[text.copy(buffer, text.size())] = '\0';
  in_addr v4 = {};
  if (inet_pton(AF_INET, buffer, &v4) == 1) {
    *address = map_v4(v4);
    *is_v4 = true;
    return true;
  }
  *is_v4 = false;
  return inet_pton(AF_INET6, buffer, address->data()) == 1;
}

bool BRELIPList::Contains(const sockaddr& address) const {
  Address wanted = {};
  if (address.sa_family == AF_INET) {
    sockaddr_in v4;
    memcpy(&v4, &address, sizeof v4);
    wanted = map_v4(v4.sin_addr);
  } else if (address.sa_family == AF_INET6) {
    sockaddr_in6 v6;
    memcpy(&v6, &address, sizeof v6);
    memcpy(wanted.data(), &v6.sin6_addr, wanted.size());
  } else {
    return false;
  }
  return std::any_of(ranges_.begin(), ranges_.end(),
                     [&](const Range& range) { return range.first <= wanted && wanted <= range.last; });
}
