#include "handler/Frame.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace {

TEST(FrameTest, IntegrityCheckComparesTheLengthWithHeaderAndBodyTogether) {
  const auto check = [](const FrameHeader& header, int received) {
    return message_integrity_check(reinterpret_cast<const char*>(&header), received);
  };
  for (const FrameHeader& good : {FrameHeader{12, 0}, {-1, 8}, {0, 27}}) EXPECT_EQ(check(good, 12), 1);
  for (const FrameHeader& bad : {FrameHeader{13, 8}, {0, -1}, {0, 28}}) EXPECT_EQ(check(bad, 12), 0);
  for (const int received : {-1, 0, 7}) EXPECT_EQ(check({0, 8}, received), 0);
}

TEST(FrameTest, LongestBodyIsWaitedForAndATypeCountsOnlyWhereItIsAsked) {
  using enum TypeCheck;
  const struct {
    FrameHeader header;
    TypeCheck check;
    GatherResult result;
  } rows[] = {{{10485760, 8}, kRefuseInvalid, GatherResult::kWait},
              {{10485761, 8}, kRefuseInvalid, GatherResult::kClose},
              {{0, 28}, kRefuseInvalid, GatherResult::kClose},
              {{0, 28}, kIgnore, GatherResult::kComplete}};
  for (const auto& row : rows) {
    std::array<int, 2> fds{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds.data()), 0);
    ASSERT_EQ(write(fds[1], &row.header, sizeof(row.header)), 8);
    std::array<char, 32> buffer{};
    std::string gathered;
    EXPECT_EQ(gather_frame(fds[0], buffer, row.check, gathered), row.result) << row.header.body_length;
    for (int fd : fds) close(fd);
  }
}

}  // namespace
