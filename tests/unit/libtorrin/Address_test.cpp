#include "libtorrin/Address.h"

#include <gtest/gtest.h>

#include "libtorrin/BindingRecord.h"

using torrin::format_address;
using torrin::parse_address;

TEST(Address, SpellingsOfOneAddressAreOneKey) {
  constexpr struct {
    const char* text;
    const char* shown;
  } kRows[] = {
      {"10.0.0.1", "10.0.0.1"},
      {"::ffff:10.0.0.1", "10.0.0.1"},
      {"::FFFF:0a00:0001", "10.0.0.1"},
      {"0:0:0:0:0:ffff:a00:1", "10.0.0.1"},
      {"2001:DB8::0001", "2001:db8::1"},
      {"2001:db8:0:0:0:0:0:1", "2001:db8::1"},
      {"::", "::"},
      {"255.255.255.255", "255.255.255.255"},
  };
  for (const auto& row : kRows) {
    const auto key = parse_address(row.text);
    ASSERT_TRUE(key) << row.text;
    EXPECT_EQ(format_address(*key), row.shown) << row.text;
    EXPECT_EQ(parse_address(row.shown), key) << row.text;
  }
  EXPECT_LT(*parse_address("9.255.0.0"), *parse_address("10.0.0.0"));
  EXPECT_LT(*parse_address("10.0.0.0"), *parse_address("1::"));
}

TEST(Address, AnythingElseIsRefused) {
  constexpr const char* kRows[] = {
      nullptr,      "",          " 10.0.0.1",    "10.0.0.1 ",  "010.0.0.1", "10.0.0.256", "10.0.1",
      "10.0.0.1.2", "167772161", "fe80::1%lo",   "[::1]",      "::1/128",   "1:2:3",      "10.0.0.1\n",
      "host",       ":::",       "::ffff:1.2.3", "0x0a.0.0.1", "1::2::3",
  };
  for (const char* text : kRows) EXPECT_FALSE(parse_address(text)) << (text == nullptr ? "null" : text);
}

TEST(BindingRecord, BytesAreAsDocumentedAndHostileOnesRefused) {
  torrin::RecordBuffer record;
  record.size = torrin::record_bytes("a");
  torrin::encode_record(0x0102030405060708, "a", record.bytes.data());
  EXPECT_EQ(record.view(), std::string_view("\1\1\2\3\4\5\6\7\10a", 10));
  const auto decoded = torrin::decode_record(record.view());
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->expiry, 0x0102030405060708);
  EXPECT_EQ(decoded->user, "a");

  const std::string good(record.view());
  EXPECT_FALSE(torrin::decode_record(""));
  EXPECT_FALSE(torrin::decode_record(good.substr(0, 9))) << "no user";
  EXPECT_FALSE(torrin::decode_record("\2" + good.substr(1))) << "other format";
  EXPECT_FALSE(torrin::decode_record("\1\xff" + good.substr(2))) << "negative expiry";
  EXPECT_FALSE(torrin::decode_record(good + std::string(1024, 'x'))) << "user too long";
}
