#include "handler/Base64.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace std::string_literals;

// The whole buffer of that size after the call.
std::string encoded(const std::string& in, size_t capacity) {
  std::string out(capacity, '#');
  EXPECT_EQ(ToB64Enc(in.data(), static_cast<int>(in.size()), out.data(), static_cast<int>(capacity)), 0);
  return out;
}

TEST(Base64Test, EncoderPadsAndCutsAtItsCapacity) {
  EXPECT_EQ(encoded("f", 6), "Zg==\0\0"s);
  EXPECT_EQ(encoded("\0\xff\x10\xfb\xff"s, 9), "AP8Q+/8=\0"s);
  EXPECT_EQ(encoded("foobar", 10), "Zm9vYmFy\0\0"s);
  EXPECT_EQ(encoded("foobar", 8), "Zm9vYmF\0"s);
  EXPECT_EQ(encoded("foobar", 1), "\0"s);
}

TEST(Base64Test, DecoderSkipsForeignCharactersStopsAtThePadAndTellsTheWholeLength) {
  const std::pair<const char*, std::string> rows[] = {
      {"Zm 9\r\nv", "foo"}, {"Zm9v=Zm9v", "foo"}, {"Zm9vZ", "foo"},  // a single last character says nothing
      {"Zm9vYg", "foob"},   {"Zm9vYmE", "fooba"}, {"AP8Q+/8=", "\0\xff\x10\xfb\xff"s},
      {"====", ""},         {"\x80\xff!", ""},
  };
  for (const auto& [text, plain] : rows) {
    std::string out(8, '#');
    EXPECT_EQ(ToB64Dec(text, out.data(), 8), static_cast<int>(plain.size())) << text;
    EXPECT_EQ(out, (plain + std::string(8, '\0')).substr(0, 8)) << text;
  }
  std::string cut(8, '#');
  EXPECT_EQ(ToB64Dec("Zm9vYmFy", cut.data(), 4), 6);
  EXPECT_EQ(cut, "foob####");
  char text[] = "Zm9vYmFy";
  Base64DecodeString(text);
  EXPECT_EQ(std::string(text, sizeof(text)), "foobar\0\0\0"s);
}

}  // namespace
