#include "handler/Frame.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <limits>

namespace {

std::string header(int32_t length, int32_t type) {
  std::string bytes(8, '\0');
  memcpy(bytes.data(), &length, 4);
  memcpy(bytes.data() + 4, &type, 4);
  return bytes;
}

TEST(FrameTest, IntegrityCheckTestsInItsOrder) {
  constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
  const struct {
    const char* what;
    int32_t length, type;
    int received, expected;
  } rows[] = {
      {"receive error", 0, 8, -1, 0},
      {"closed", 0, 8, 0, 0},
      {"half a header", 0, 8, 7, 0},
      {"empty body", 0, 8, 8, 1},
      {"length is compared with header and body together", 12, 8, 12, 1},
      {"longer than all", 13, 8, 12, 0},
      {"negative length passes", -1, 8, 8, 1},
      {"most negative length passes", kMin, 8, 8, 1},
      {"first type", 0, 0, 8, 1},
      {"last type", 0, 27, 8, 1},
      {"type below", 0, -1, 8, 0},
      {"type above", 0, 28, 8, 0},
  };
  for (const auto& row : rows) {
    const std::string bytes = header(row.length, row.type) + "body";
    errno = ECONNRESET;
    EXPECT_EQ(message_integrity_check(bytes.data(), row.received), row.expected) << row.what;
  }
}

class GatherTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds_.data()), 0); }
  void TearDown() override {
    for (int fd : fds_) close(fd);
  }
  void feed(const std::string& bytes) {
    ASSERT_EQ(write(fds_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void hang_up() { shutdown(fds_[1], SHUT_WR); }
  GatherResult gather(TypeCheck check = TypeCheck::kRefuseInvalid) {
    std::array<char, 32> buffer{};
    const GatherResult result = gather_frame(fds_[0], buffer, check, gathered_);
    for (char byte : buffer) EXPECT_EQ(byte, 0);  // what passed through may have been a password
    return result;
  }

  std::array<int, 2> fds_{};
  std::string gathered_;
};

TEST_F(GatherTest, FrameIsKeptTogetherOverAnyNumberOfReceives) {
  const std::string frame = header(100, 8) + std::string(100, 'b');
  for (char byte : frame.substr(0, frame.size() - 1)) {
    feed({byte});
    ASSERT_EQ(gather(), GatherResult::kWait);
  }
  feed({frame.back()});
  EXPECT_EQ(gather(), GatherResult::kComplete);
  EXPECT_EQ(gathered_, frame);
}

TEST_F(GatherTest, VerdictOnTheFirstBytes) {
  const std::pair<std::string, GatherResult> rows[] = {
      {"", GatherResult::kWait},
      {header(0, 8).substr(0, 7), GatherResult::kWait},
      {header(0, 8), GatherResult::kComplete},
      {header(-5, 8), GatherResult::kComplete},
      {header(0, 28), GatherResult::kClose},
      {header(10485760, 8), GatherResult::kWait},
      {header(10485761, 8), GatherResult::kClose},
      {header(1, 8) + "a" + header(1, 8) + "b", GatherResult::kComplete},
  };
  for (const auto& [bytes, expected] : rows) {
    TearDown();
    SetUp();
    feed(bytes);
    EXPECT_EQ(gather(), expected) << testing::PrintToString(bytes);
    EXPECT_EQ(gathered_, bytes);
    gathered_.clear();
  }
  feed(header(0, 28));
  EXPECT_EQ(gather(TypeCheck::kIgnore), GatherResult::kComplete) << "where the type does not count";
}

TEST_F(GatherTest, PeerThatClosesInTheMiddleEndsIt) {
  feed(header(10, 8) + "half");
  EXPECT_EQ(gather(), GatherResult::kWait);
  hang_up();
  EXPECT_EQ(gather(), GatherResult::kClose);
}

}  // namespace
