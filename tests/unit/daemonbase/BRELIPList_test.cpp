#include "daemonbase/BRELIPList.h"

#include <gtest/gtest.h>
#include <netdb.h>

namespace {

bool covers(const BRELIPList& list, const char* text) {
  addrinfo numeric = {};
  numeric.ai_flags = AI_NUMERICHOST;
  addrinfo* address = nullptr;
  EXPECT_EQ(getaddrinfo(text, nullptr, &numeric, &address), 0) << text;
  const bool covered = list.Contains(*address->ai_addr);
  freeaddrinfo(address);
  return covered;
}

TEST(BRELIPListTest, ItemsAreAddressesRangesAndNetworks) {
  const struct {
    const char* text;
    size_t count;
    const char* inside;
    const char* outside;
  } rows[] = {
      {"10.0.0.1 - 10.0.0.9", 1, "10.0.0.9", "10.0.0.10"},
      {"10.1.2.3/255.255.0.0", 1, "10.1.0.0", "10.2.0.0"},
      {"10.0.0.0/0", 1, "255.1.1.1", "2001:db8::1"},
      {"2001:db8::/33", 1, "2001:db8:7fff::1", "2001:db8:8000::"},
      {"10.0.0.1,10.0.0.2;10.0.0.3,10.0.0.4", 2, "10.0.0.4", "10.0.0.1"},
  };
  for (const auto& row : rows) {
    BRELIPList list;
    list.AddMultiItems(row.text);
    EXPECT_EQ(list.GetNodeCount(), row.count) << row.text;
    EXPECT_TRUE(covers(list, row.inside)) << row.text;
    EXPECT_FALSE(covers(list, row.outside)) << row.text;
  }
  for (const char* refused : {"10.0.0.9-10.0.0.1", "10.0.0.1-2001:db8::1", "10.0.0.0/33", "10.0.0.0/",
                              "10.0.0.0/8x", "2001:db8::/255.0.0.0", "10.0.0.256", "", " ; , "}) {
    BRELIPList list;
    list.AddMultiItems(refused);
    EXPECT_EQ(list.GetNodeCount(), 0U) << refused;
  }
}

}  // namespace
