#include "daemonbase/BRELIPList.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>

namespace {

bool covers(const BRELIPList& list, const char* text) {
  sockaddr_in v4 = {};
  v4.sin_family = AF_INET;
  if (inet_pton(AF_INET, text, &v4.sin_addr) == 1)
    return list.Contains(reinterpret_cast<const sockaddr&>(v4));
  sockaddr_in6 v6 = {};
  v6.sin6_family = AF_INET6;
  EXPECT_EQ(inet_pton(AF_INET6, text, &v6.sin6_addr), 1) << text;
  return list.Contains(reinterpret_cast<const sockaddr&>(v6));
}

TEST(BRELIPListTest, ItemsAreAddressesRangesAndNetworks) {
  const struct {
    const char* text;
    size_t count;
    const char* inside;
    const char* outside;
  } rows[] = {
      {"10.0.0.1", 1, "10.0.0.1", "10.0.0.2"},
      {" 10.0.0.1 ", 1, "::ffff:10.0.0.1", "::10.0.0.1"},
      {"10.0.0.1 - 10.0.0.9", 1, "10.0.0.9", "10.0.0.10"},
      {"10.0.0.0/8", 1, "10.255.255.255", "11.0.0.0"},
      {"10.1.2.3/255.255.0.0", 1, "10.1.0.0", "10.2.0.0"},
      {"10.0.0.0/0", 1, "255.1.1.1", "2001:db8::1"},
      {"10.0.0.7/32", 1, "10.0.0.7", "10.0.0.6"},
      {"2001:db8::/33", 1, "2001:db8:7fff::1", "2001:db8:8000::"},
      {"::1-::5", 1, "::3", "::6"},
      {"10.0.0.1,10.0.0.3", 2, "10.0.0.3", "10.0.0.2"},
      {"10.0.0.1;10.0.0.3;", 2, "10.0.0.3", "10.0.0.2"},
      {"10.0.0.1,10.0.0.2;10.0.0.3,10.0.0.4", 2, "10.0.0.4", "10.0.0.1"},
  };
  for (const auto& row : rows) {
    BRELIPList list;
    list.AddMultiItems(row.text);
    EXPECT_EQ(list.GetNodeCount(), row.count) << row.text;
    EXPECT_TRUE(covers(list, row.inside)) << row.text;
    EXPECT_FALSE(covers(list, row.outside)) << row.text;
  }
  for (const char* refused : {"10.0.0.9-10.0.0.1", "10.0.0.1-::5", "10.0.0.0/33", "10.0.0.0/", "10.0.0.0/8x",
                              "2001:db8::/255.0.0.0", "10.0.0.256", "", " ; , "}) {
    BRELIPList list;
    list.AddMultiItems(refused);
    EXPECT_EQ(list.GetNodeCount(), 0U) << refused;
  }
  const sockaddr unknown = {};
  EXPECT_FALSE(BRELIPList().Contains(unknown));
}

}  // namespace
