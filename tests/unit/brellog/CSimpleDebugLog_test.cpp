#include "brellog/CSimpleDebugLog.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <utility>

#include "tests/unit/Support.h"

namespace {
std::atomic<int> g_writes{0};
std::function<void()> g_at_the_clock;  // called once
}  // namespace

// Takes the place of the C library's, for the whole test program.
extern "C" int gettimeofday(timeval* __restrict time, void* __restrict /*zone*/) noexcept {
  if (g_at_the_clock) std::exchange(g_at_the_clock, nullptr)();
  const int64_t fake = support::g_fake_microseconds;
  timespec now = {fake / 1'000'000, fake % 1'000'000 * 1000};
  if (fake < 0) clock_gettime(CLOCK_REALTIME, &now);
  *time = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

extern "C" ssize_t __real_write(int fd, const void* bytes, size_t size);
extern "C" ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
  ++g_writes;
  return __real_write(fd, bytes, size);
}

namespace {

using support::kNoon;
using support::read_file;
using support::split_lines;

class DebugLogTest : public testing::Test {
 protected:
  std::string prefix() const { return folder_.file("test.log"); }
  std::string written() const { return read_file(prefix() + ".20240301.0001"); }
  void log(const std::string& text) { log_.WriteLog(CSimpleDebugLog::kInfo, 0, true, "%s", text.c_str()); }

  support::TempDir folder_;
  support::FakeClock clock_{kNoon, 7'999};
  CSimpleDebugLog log_;
};

TEST_F(DebugLogTest, LineIsCutAndEndsInOneLineFeed) {
  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  for (const size_t length : {0U, 4093U, 4094U, 4095U, 50'000U}) {
    unlink((prefix() + ".20240301.0001").c_str());
    log_.WriteLog(CSimpleDebugLog::kVerbatim, 0, true, "%s", std::string(length, 'x').c_str());
    EXPECT_EQ(written(), std::string(std::min<size_t>(length, 4094), 'x') + "\n") << length;
  }
}

TEST_F(DebugLogTest, NewestEarlyLinesKeepTheirTimeAndComeFirst) {
  for (int i = 0; i < 5000; ++i) log(std::to_string(i));
  clock_.set(kNoon + 60);
  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  log("late");
  const auto lines = split_lines(written());
  ASSERT_EQ(lines.size(), 4097U);
  for (size_t i = 0; i < 4096; ++i) ASSERT_EQ(lines[i], "12:00:00.007 " + std::to_string(904 + i));
  EXPECT_EQ(lines.back(), "12:01:00.000 late");
}

TEST_F(DebugLogTest, EachLocalDayHasItsFileWhicheverWayTheClockGoesAndARemovedOneComesBack) {
  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  log("UTC");
  setenv("TZ", "XXX-2", 1);               // two hours ahead of it
  constexpr int64_t kNight = 1709330400;  // 2024-03-02 00:00:00 there
  const std::string next_day = prefix() + ".20240302.0001";
  clock_.set(kNight - 1, 999'999);
  log("old day");
  clock_.set(kNight);
  log("new day");
  EXPECT_EQ(read_file(next_day), "00:00:00.000 new day\n");
  ASSERT_EQ(unlink(next_day.c_str()), 0);
  log("again");
  EXPECT_EQ(read_file(next_day), "00:00:00.000 again\n");
  clock_.set(kNight - 2);
  log("back");
  EXPECT_EQ(written(), "12:00:00.007 UTC\n23:59:59.999 old day\n23:59:58.000 back\n");
}

TEST_F(DebugLogTest, LineIsWrittenInOneCallSoThatNothingOfAnotherProcessComesBetween) {
  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  g_writes = 0;
  log(std::string(3000, 'x'));
  EXPECT_EQ(g_writes, 1);
}

// The writer looks at the clock between its look at the file and its write.
TEST_F(DebugLogTest, NoLineIsLostWhenTheFileIsOpenedOrClosedMeanwhile) {
  g_at_the_clock = [&] { log_.OpenDevice(prefix().c_str()); };
  log("opened");
  EXPECT_EQ(written(), "12:00:00.007 opened\n");
  g_at_the_clock = [&] { log_.CloseDevice(); };
  log("closed");
  log_.OpenDevice(prefix().c_str());
  EXPECT_EQ(written(), "12:00:00.007 opened\n12:00:00.007 closed\n");
}

}  // namespace
