#include "brellog/CSimpleDebugLog.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <set>
#include <thread>

#include "tests/unit/brellog/FakeClock.h"
#include "tests/unit/brellog/LogTestSupport.h"

// Takes the place of the C library's, for the whole test program.
extern "C" int gettimeofday(timeval* __restrict time, void* __restrict /*zone*/) noexcept {
  const int64_t fake = log_test::g_fake_microseconds;
  if (fake >= 0) {
    *time = {fake / 1'000'000, fake % 1'000'000};
    return 0;
  }
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  *time = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

namespace {

using log_test::FakeClock;
using log_test::read_file;
using log_test::split_lines;
using log_test::TempDir;

constexpr int64_t kNoon = 1709294400;  // 2024-03-01 12:00:00 UTC
constexpr const char* kDaySuffix = ".20240301.0001";
constexpr size_t kLongestLine = 4095;

class DebugLogTest : public testing::Test {
 protected:
  DebugLogTest() { setenv("TZ", "UTC0", 1); }
  ~DebugLogTest() override { unsetenv("TZ"); }

  std::string prefix() const { return folder_.file("test.log"); }
  std::string written() const { return read_file(prefix() + kDaySuffix); }
  void log(const std::string& text) { log_.WriteLog(CSimpleDebugLog::kInfo, 0, true, "%s", text.c_str()); }

  TempDir folder_;
  FakeClock clock_{kNoon, 7'999};
  CSimpleDebugLog log_;
};

TEST_F(DebugLogTest, LineIsLaidOutByLevelAndKind) {
  const std::string ids = std::to_string(getpid()) + ":" + std::to_string(gettid());
  const struct {
    int level;
    int tag;
    bool raw;
    std::string text;
    std::string line;
  } rows[] = {
      {0, 7, false, "a", "12:00:00.007 <NOISY><7:" + ids + "> a\n"},
      {1, 0, false, "a", "12:00:00.007 <DBG><0:" + ids + "> a\n"},
      {2, -1, false, "a", "12:00:00.007 <INF><4294967295:" + ids + "> a\n"},
      {3, 1, false, "a\n", "12:00:00.007 <ERR><1:" + ids + "> a\n"},
      {9, 1, false, "a", "12:00:00.007 <<n/a>><1:" + ids + "> a\n"},
      {3, 1, true, "a", "12:00:00.007 a\n"},
      {3, 1, true, "", "12:00:00.007 \n"},
      {3, 1, true, "a\n\n", "12:00:00.007 a\n\n"},
      {4, 1, false, "a", "a\n"},
      {4, 1, true, "a\n", "a\n"},
      {4, 1, true, "", "\n"},
  };
  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  for (const auto& row : rows) {
    unlink((prefix() + kDaySuffix).c_str());
    log_.WriteLog(static_cast<CSimpleDebugLog::DebugLevel>(row.level), row.tag, row.raw, "%s",
                  row.text.c_str());
    EXPECT_EQ(written(), row.line) << "level " << row.level << " raw " << row.raw;
  }
}

TEST_F(DebugLogTest, LongLineIsCutAndStillEndsInOneLineFeed) {
  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  const struct {
    CSimpleDebugLog::DebugLevel level;
    size_t length;
    size_t expected;
  } rows[] = {
      {CSimpleDebugLog::kVerbatim, 4093, 4094},           {CSimpleDebugLog::kVerbatim, 4094, kLongestLine},
      {CSimpleDebugLog::kVerbatim, 4095, kLongestLine},   {CSimpleDebugLog::kVerbatim, 4096, kLongestLine},
      {CSimpleDebugLog::kVerbatim, 50'000, kLongestLine}, {CSimpleDebugLog::kInfo, 4081, kLongestLine},
      {CSimpleDebugLog::kInfo, 4095, kLongestLine},
  };
  for (const auto& row : rows) {
    unlink((prefix() + kDaySuffix).c_str());
    log_.WriteLog(row.level, 0, true, "%s", std::string(row.length, 'x').c_str());
    const std::string text = written();
    EXPECT_EQ(text.size(), row.expected) << row.length;
    EXPECT_EQ(text.find('\n'), text.size() - 1) << row.length;
  }
}

TEST_F(DebugLogTest, EarlyLineKeepsItsOwnTimeAndComesFirst) {
  log("early");
  clock_.set(kNoon + 60);
  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  log("late");
  log_.CloseDevice();
  log("closed");
  EXPECT_EQ(written(), "12:00:00.007 early\n12:01:00.000 late\n");
  testing::internal::CaptureStdout();
  EXPECT_FALSE(log_.OpenDevice(""));  // opens nothing, so what was kept is printed
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "12:01:00.000 closed\n");
}

TEST_F(DebugLogTest, OnlyTheNewestEarlyLinesSurvive) {
  for (int i = 0; i < 5000; ++i) log(std::to_string(i));
  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  const auto lines = split_lines(written());
  ASSERT_EQ(lines.size(), 4096U);
  for (size_t i = 0; i < lines.size(); ++i) ASSERT_EQ(lines[i], "12:00:00.007 " + std::to_string(904 + i));
}

TEST_F(DebugLogTest, EachLocalDayHasItsFileAndARemovedOneComesBack) {
  setenv("TZ", "XXX-2", 1);  // two hours ahead of UTC
  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  constexpr int64_t kLocalMidnight = 1709330400;  // 2024-03-02 00:00:00 there
  clock_.set(kLocalMidnight - 1, 999'999);
  log("old day");
  clock_.set(kLocalMidnight);
  log("new day");
  EXPECT_EQ(read_file(prefix() + ".20240301.0001"), "23:59:59.999 old day\n");
  EXPECT_EQ(read_file(prefix() + ".20240302.0001"), "00:00:00.000 new day\n");

  ASSERT_EQ(unlink((prefix() + ".20240302.0001").c_str()), 0);
  log("again");
  EXPECT_EQ(read_file(prefix() + ".20240302.0001"), "00:00:00.000 again\n");
}

TEST_F(DebugLogTest, AnotherZoneHoldsFromTheNextSecondWhicheverWayTheClockGoes) {
  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  log("a");
  setenv("TZ", "XXX-2", 1);
  clock_.set(kNoon + 2);
  log("b");
  setenv("TZ", "XXX-3", 1);
  clock_.set(kNoon + 1);
  log("c");
  clock_.set(kNoon + 1, 250'000);
  log("d");
  EXPECT_EQ(written(), "12:00:00.007 a\n14:00:02.000 b\n15:00:01.000 c\n15:00:01.250 d\n");
}

TEST_F(DebugLogTest, SwitchesDecideWhatIsWrittenAndWhere) {
  log_.SetKeepDanglingRecords(false);
  log("dropped, as nothing is open");
  log_.SetKeepDanglingRecords(true);
  log("kept, then printed");
  testing::internal::CaptureStdout();
  log_.FlushDanglingRecords();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "12:00:00.007 kept, then printed\n");

  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  log_.SetMinimumLevel(CSimpleDebugLog::kError);
  log("below the minimum");
  log_.SetMinimumLevel(CSimpleDebugLog::kNoisy);
  log_.SetConsoleEcho(true);
  testing::internal::CaptureStdout();
  log("both");
  log_.SetFileOutput(false);
  log("console");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "12:00:00.007 both\n12:00:00.007 console\n");
  EXPECT_EQ(written(), "12:00:00.007 both\n");
}

TEST_F(DebugLogTest, UnwritableFileLosesTheLineQuietly) {
  ASSERT_TRUE(log_.OpenDevice(folder_.file("missing/test.log").c_str()));
  log("lost");
  ASSERT_TRUE(log_.OpenDevice((prefix() + std::string(5000, 'x')).c_str()));
  log("lost too");
  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  EXPECT_EQ(written(), "");
}

TEST_F(DebugLogTest, LinesOfManyThreadsAndProcessesStayWhole) {
  constexpr int kProcesses = 3;
  constexpr int kThreads = 4;
  constexpr int kLines = 150;
  ASSERT_TRUE(log_.OpenDevice(prefix().c_str()));
  std::vector<pid_t> children;
  for (int process = 0; process < kProcesses; ++process) {
    const pid_t child = fork();
    if (child == 0) {
      std::vector<std::thread> threads;
      for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([this, process, thread] {
          for (int line = 0; line < kLines; ++line) {
            const std::string id = std::to_string((process * kThreads + thread) * kLines + line);
            log(id + " " + std::string(static_cast<size_t>(line) * 25, static_cast<char>('a' + thread)) +
                " " + id);
          }
        });
      }
      for (std::thread& thread : threads) thread.join();
      _exit(0);
    }
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }

  std::set<std::string> seen;
  for (const std::string& line : split_lines(written())) {
    const std::string id = line.substr(13, line.find(' ', 13) - 13);
    ASSERT_EQ(line.substr(line.rfind(' ') + 1), id) << line;
    ASSERT_EQ(line.size(), 13 + 2 * id.size() + 2 + static_cast<size_t>(std::stoi(id) % kLines) * 25) << line;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(kProcesses * kThreads * kLines));
}

TEST_F(DebugLogTest, NoLineIsLostWhileTheFileOpensAndCloses) {
  constexpr int kLines = 1000;
  std::atomic<int> running{3};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([&] {
      for (int line = 0; line < kLines; ++line) log("x");
      --running;
    });
  }
  while (running > 0) {
    log_.OpenDevice(prefix().c_str());
    log_.CloseDevice();
  }
  for (std::thread& thread : threads) thread.join();
  log_.OpenDevice(prefix().c_str());
  EXPECT_EQ(split_lines(written()).size(), 3U * kLines);
}

TEST_F(DebugLogTest, LockFileExcludesOthersUntilUnlocked) {
  const std::string path = folder_.file("lock");
  const int held = CSimpleDebugLog::LockAndWaitOnFile(path.c_str());
  ASSERT_GE(held, 0);
  const int other = open(path.c_str(), O_RDONLY);
  ASSERT_GE(other, 0);
  EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), -1);
  CSimpleDebugLog::UnlockFile(held);
  EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
  close(other);
  EXPECT_EQ(CSimpleDebugLog::LockAndWaitOnFile(folder_.file("missing/lock").c_str()), -1);
  CSimpleDebugLog::UnlockFile(-1);
}

}  // namespace
