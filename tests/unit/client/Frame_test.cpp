#include "client/Frame.h"

#include <gtest/gtest.h>

#include <string>

#include "client/RawFrames.h"
#include "handler/Velder.pb.h"

namespace velder_client {
namespace {

using namespace std::string_literals;

TEST(Frame, RequestsThatTheDaemonWouldDropAreNotEncoded) {
  std::string out = "before";
  Velder::UserSearchRequest request;
  request.set_name(std::string(kMaxRequestBody, 'a'));
  EXPECT_NE(encode_request(0, request, out).error().text.find("fullmatch"), std::string::npos);
  request.set_fullmatch(0);
  EXPECT_EQ(encode_request(0, request, out).error().kind, ErrorKind::kInvalidRequest);
  EXPECT_EQ(out, "before");
  request.mutable_name()->resize(2 * kMaxRequestBody - request.ByteSizeLong());
  EXPECT_TRUE(encode_request(0, request, out));
  EXPECT_EQ(out.size(), 6 + kHeaderBytes + kMaxRequestBody);
}

TEST(Frame, ParsingAnAnswerIsSilentAndTakesAnyBytesForText) {
  testing::internal::CaptureStderr();
  Velder::UserInfoQueryResponse answer;
  EXPECT_FALSE(parse_answer("\x08\x00"s, answer)) << "userInfo is missing";
  EXPECT_FALSE(parse_answer("\x12\x7F"s, answer)) << "cut within a field";
  Velder::GroupSearchResponse groups;
  EXPECT_TRUE(parse_answer("\x08\x00\x12\x06\x0A\x01\xFF\x12\x01\xFE"s, groups));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// Read through the pointer that stays valid, since a call on the string could itself overwrite the buffer.
TEST(Frame, WipingLeavesNothingInTheBuffer) {
  std::string secret = "a password that is longer than the inline buffer";
  const volatile char* bytes = secret.data();
  const size_t length = secret.size();
  secret.resize(5);  // what was cut off is wiped too
  wipe(secret);
  ASSERT_EQ(secret.data(), bytes);
  secret.reserve(length);
  for (size_t i = 0; i < length; ++i) ASSERT_EQ(bytes[i], '\0') << i;
}

}  // namespace
}  // namespace velder_client
