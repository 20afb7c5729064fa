#include "libtorrin/Address.h"

#include <gtest/gtest.h>

#include "libtorrin/BindingRecord.h"

using torrin::format_address;
using torrin::parse_address;

TEST(Address, SpellingsOfOneAddressAreOneKeyAndAnythingElseIsRefused) {
  const std::pair<const char*, const char*> rows[] = {{"10.0.0.1", "10.0.0.1"},
                                                      {"::FFFF:0a00:0001", "10.0.0.1"},
                                                      {"2001:DB8::0:01", "2001:db8::1"},
                                                      {"::", "::"}};
  for (const auto& [text, shown] : rows) {
    const auto key = parse_address(text);
    ASSERT_TRUE(key) << text;
    EXPECT_EQ(format_address(*key), shown) << text;
    EXPECT_EQ(parse_address(shown), key) << text;
  }
  EXPECT_LT(*parse_address("9.255.0.0"), *parse_address("10.0.0.0"));
  EXPECT_LT(*parse_address("10.0.0.0"), *parse_address("1::"));
  for (const char* text : {"", " 10.0.0.1", "10.0.0.1\n", "010.0.0.1", "10.0.1", "fe80::1%lo", "[::1]"})
    EXPECT_FALSE(parse_address(text)) << text;
  EXPECT_FALSE(parse_address(nullptr));
}

TEST(BindingRecord, BytesAreAsDocumentedAndHostileOnesRefused) {
  torrin::RecordBuffer record;
  record.size = torrin::record_bytes("a");
  torrin::encode_record(0x0102030405060708, "a", record.bytes.data());
  const std::string good("\1\1\2\3\4\5\6\7\10a", 10);
  EXPECT_EQ(record.view(), good);
  EXPECT_EQ(torrin::decode_record(good).value().expiry, 0x0102030405060708);
  for (const std::string& bad : {std::string(), good.substr(0, 9), "\2" + good.substr(1),
                                 "\1\xff" + good.substr(2), good + std::string(1024, 'x')})
    EXPECT_FALSE(torrin::decode_record(bad)) << bad;
}
