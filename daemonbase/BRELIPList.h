// A list of IP addresses, ranges and networks. Not thread-safe while entries are added; look-ups of a
// finished list may run in any number of threads.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

class BRELIPList {
 public:
  // Cuts the text into items and adds each: at the first ";" while the rest holds one, then at the first
  // ",". So with both present, commas before the last semicolon are part of an item.
  void AddMultiItems(std::string_view text);

  // One "address", "first-last", "network/bits" or "network/mask", IPv4 or IPv6. False, and nothing is
  // added, when it is none of these; only the first 1023 characters count.
  bool AddItem(std::string_view item);

  size_t GetNodeCount() const { return ranges_.size(); }

  // Whether an entry covers the address. An IPv4 address equals its mapped form in IPv6.
  bool Contains(const sockaddr& address) const;

 private:
  using Address = std::array<uint8_t, 16>;  // IPv4 in its mapped form
  struct Range {
    Address first;
    Address last;
  };

  static bool parse(std::string_view text, Address* address, bool* is_v4);
  bool add_network(std::string_view network, std::string_view mask);

  std::vector<Range> ranges_;
};
