#include "client/Frame.h"

#include <gtest/gtest.h>

#include <string>

#include "client/RawFrames.h"
#include "handler/Velder.pb.h"

namespace velder_client {
namespace {

using Progress = FrameReader::Progress;
using namespace std::string_literals;

std::string header_bytes(Header header) {
  const auto bytes = encode_header(header);
  return {bytes.begin(), bytes.end()};
}

TEST(Frame, HeaderIsTwoSignedLittleEndianIntegers) {
  const std::pair<Header, std::string> rows[] = {{{0x01020304, 27}, "\x04\x03\x02\x01\x1B\0\0\0"s},
                                                 {{-1, -2}, "\xFF\xFF\xFF\xFF\xFE\xFF\xFF\xFF"s}};
  for (const auto& [header, bytes] : rows) {
    EXPECT_EQ(header_bytes(header), bytes);
    EXPECT_EQ(decode_header(std::span(bytes).first<kHeaderBytes>()), header);
  }
  Velder::IPUserBindResponse message;
  message.set_result(0);
  std::string out = "before";
  ASSERT_TRUE(encode_request(13, message, out));
  EXPECT_EQ(out, "before\x02\x00\x00\x00\x0D\x00\x00\x00\x08\x00"s);
}

TEST(Frame, RequestsThatTheDaemonWouldDropAreNotEncoded) {
  std::string out = "before";
  Velder::UserSearchRequest request;
  request.set_name("a");
  const Result<void> incomplete = encode_request(0, request, out);
  ASSERT_FALSE(incomplete);
  EXPECT_EQ(incomplete.error().kind, ErrorKind::kInvalidRequest);
  EXPECT_NE(incomplete.error().text.find("fullmatch"), std::string::npos) << incomplete.error().text;

  request.set_fullmatch(0);
  request.set_name(std::string(kMaxRequestBody, 'a'));
  const Result<void> long_one = encode_request(0, request, out);
  ASSERT_FALSE(long_one);
  EXPECT_EQ(long_one.error().kind, ErrorKind::kInvalidRequest);
  EXPECT_EQ(out, "before");

  const size_t overhead = request.ByteSizeLong() - kMaxRequestBody;
  request.set_name(std::string(kMaxRequestBody - overhead, 'a'));
  EXPECT_TRUE(encode_request(0, request, out));
}

TEST(Frame, ReaderGathersByteByByteAndIsReusable) {
  const std::string frame = "\x02\0\0\0\x0D\0\0\0\x08\x07"s;
  FrameReader reader;
  for (int round = 0; round < 2; ++round) {
    for (size_t i = 0; i + 1 < frame.size(); ++i) {
      const auto progress = reader.feed(frame.substr(i, 1));
      ASSERT_TRUE(progress) << i;
      ASSERT_EQ(*progress, Progress::kWait) << i;
    }
    ASSERT_EQ(reader.feed(frame.substr(frame.size() - 1)).value(), Progress::kComplete);
    EXPECT_EQ(reader.type(), 13);
    EXPECT_EQ(reader.body(), "\x08\x07");
    reader.clear();
  }
  EXPECT_EQ(reader.feed("\0\0\0\0\x0B\0\0\0"s).value(), Progress::kComplete) << "an empty body is legal";
}

TEST(Frame, ReaderRefusesWhatNoAnswerCanBe) {
  for (const std::string& bytes :
       {header_bytes({-1, 1}), header_bytes({101, 1}), header_bytes({1, 1}) + "ab"}) {
    FrameReader reader(100);
    const auto progress = reader.feed(bytes);
    ASSERT_FALSE(progress) << testing::PrintToString(bytes);
    EXPECT_EQ(progress.error().kind, ErrorKind::kMalformedAnswer);
  }
  FrameReader reader(100);
  EXPECT_EQ(reader.feed(header_bytes({100, 1})).value(), Progress::kWait);
}

TEST(Frame, ParsingAnAnswerIsSilentAndChecksRequiredFields) {
  testing::internal::CaptureStderr();
  Velder::UserInfoQueryResponse answer;
  EXPECT_FALSE(parse_answer("\x08\x00"s, answer)) << "userInfo is missing";
  EXPECT_FALSE(parse_answer("\x12\x7F"s, answer)) << "cut within a field";
  Velder::GroupSearchResponse groups;
  EXPECT_TRUE(parse_answer("\x08\x00\x12\x06\x0A\x01\xFF\x12\x01\xFE"s, groups)) << "names need not be UTF-8";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// Read through the pointer that stays valid, since a call on the string could itself overwrite the buffer.
TEST(Frame, WipingLeavesNothingInTheBuffer) {
  std::string secret = "a password that is longer than the inline buffer";
  const volatile char* bytes = secret.data();
  const size_t length = secret.size();
  secret.resize(5);  // what was cut off is wiped too
  wipe(secret);
  EXPECT_TRUE(secret.empty());
  ASSERT_EQ(secret.data(), bytes);
  secret.reserve(length);
  for (size_t i = 0; i < length; ++i) ASSERT_EQ(bytes[i], '\0') << i;
}

}  // namespace
}  // namespace velder_client
