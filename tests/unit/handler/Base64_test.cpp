#include "handler/Base64.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

std::string encoded(const std::string& in, int capacity = 4096) {
  std::string out(static_cast<size_t>(capacity), '#');
  EXPECT_EQ(ToB64Enc(in.data(), static_cast<int>(in.size()), out.data(), capacity), 0);
  EXPECT_EQ(out.back(), '\0');
  return out.c_str();
}

std::string decoded(const std::string& text) {
  int length = -1;
  const std::unique_ptr<unsigned char[]> bytes(Base64Decode(text.c_str(), &length));
  return {reinterpret_cast<char*>(bytes.get()), static_cast<size_t>(length)};
}

TEST(Base64Test, KnownTextsBothWays) {
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {std::string("\0\xff\x10", 3), "AP8Q"},
      {"\xfb\xff", "+/8="},
  };
  for (const auto& [plain, text] : rows) {
    EXPECT_EQ(encoded(plain), text);
    EXPECT_EQ(decoded(text), plain);
  }
}

TEST(Base64Test, DecoderSkipsForeignCharactersAndStopsAtThePad) {
  const std::pair<const char*, const char*> rows[] = {
      {"Zm 9\r\nv", "foo"}, {"Zm9v=Zm9v", "foo"}, {"Zm9vZ", "foo"},  // a single last character says nothing
      {"Zm9vYg", "foob"},   {"Zm9vYmE", "fooba"}, {"====", ""},     {"\x80\xff!", ""},
  };
  for (const auto& [text, plain] : rows) EXPECT_EQ(decoded(text), plain) << text;
}

TEST(Base64Test, EncoderCutsAtItsCapacity) {
  EXPECT_EQ(encoded("foobar", 9), "Zm9vYmFy");
  EXPECT_EQ(encoded("foobar", 8), "Zm9vYmF");
  EXPECT_EQ(encoded("foobar", 1), "");
}

TEST(Base64Test, DecoderReportsTheFullLengthOfWhatItCutAndDecodesInPlace) {
  char out[8];
  memset(out, '#', sizeof(out));
  EXPECT_EQ(ToB64Dec("Zm9vYmFy", out, 4), 6);
  EXPECT_EQ(std::string(out, 8), "foob####");
  EXPECT_EQ(ToB64Dec("Zg==", out, 8), 1);
  EXPECT_EQ(std::string(out, 8), std::string("f\0\0\0\0\0\0\0", 8));
  char text[] = "Zm9vYmFy";
  Base64DecodeString(text);
  EXPECT_STREQ(text, "foobar");
  EXPECT_EQ(std::string(text, sizeof(text)), std::string("foobar\0\0\0", 9));
}

}  // namespace
