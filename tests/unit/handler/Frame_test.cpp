#include "handler/Frame.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace {

std::string header(int32_t length, int32_t type) {
  const FrameHeader header{length, type};
  return {reinterpret_cast<const char*>(&header), sizeof(header)};
}

TEST(FrameTest, IntegrityCheckComparesTheLengthWithHeaderAndBodyTogether) {
  const auto check = [](const FrameHeader& header, int received) {
    return message_integrity_check(reinterpret_cast<const char*>(&header), received);
  };
  for (const FrameHeader& good : {FrameHeader{12, 0}, {-1, 8}, {0, 27}}) EXPECT_EQ(check(good, 12), 1);
  for (const FrameHeader& bad : {FrameHeader{13, 8}, {0, -1}, {0, 28}}) EXPECT_EQ(check(bad, 12), 0);
  for (const int received : {-1, 0, 7}) EXPECT_EQ(check({0, 8}, received), 0);
}

TEST(FrameTest, GatheredBytesStayTogetherAndLeaveNothingBehind) {
  std::array<int, 2> fds{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds.data()), 0);
  std::string gathered;
  const auto feed = [&](const std::string& bytes, TypeCheck check = TypeCheck::kRefuseInvalid) {
    EXPECT_EQ(write(fds[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    std::array<char, 32> buffer{};
    const GatherResult result = gather_frame(fds[0], buffer, check, gathered);
    for (char byte : buffer) EXPECT_EQ(byte, 0);  // what passed through may have been a password
    return result;
  };
  const std::string frame = header(100, 8) + std::string(100, 'b');
  for (char byte : frame.substr(0, 50)) ASSERT_EQ(feed({byte}), GatherResult::kWait);
  EXPECT_EQ(feed(frame.substr(50)), GatherResult::kComplete);
  EXPECT_EQ(gathered, frame);
  for (const auto& [length, verdict] :
       {std::pair(10485760, GatherResult::kWait), {10485761, GatherResult::kClose}}) {
    gathered.clear();
    EXPECT_EQ(feed(header(length, 8)), verdict) << length;
  }
  gathered.clear();  // where the type does not count:
  EXPECT_EQ(feed(header(0, 28), TypeCheck::kIgnore), GatherResult::kComplete);
  for (int fd : fds) close(fd);
}

}  // namespace
