#include "brellog/VrLog.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <cstring>
#include <new>
#include <thread>

#include "brellog/CSimpleDebugLog.h"
#include "daemonbase/BRELConfigFile.h"
#include "daemonbase/BRELIPList.h"
#include "tests/unit/brellog/FakeClock.h"
#include "tests/unit/brellog/LogTestSupport.h"

namespace {
thread_local size_t t_allocations = 0;
}  // namespace

// Counted, to see that the logging path does without them.
[[gnu::noinline]] void* operator new(size_t size) {
  ++t_allocations;
  void* const memory = malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t /*size*/) noexcept {
  free(memory);
}

namespace {

using log_test::FakeClock;
using log_test::log_lines;
using log_test::TempDir;
using log_test::write_file;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr int64_t kNoon = 1709294400;  // 2024-03-01 12:00:00 UTC
constexpr enumLogMsgType kAllLevels[] = {kLogError, kLogInfo, kLogTrans, kLogDebug, kLogMore};

// "EITDM" with a "-" for each level that is off.
std::string enabled_levels() {
  std::string text = "EITDM";
  for (size_t i = 0; i < text.size(); ++i) {
    if (!VrLog::canLog(kAllLevels[i])) text[i] = '-';
  }
  return text;
}

// Logs into its own folder, every level on. Lines of the configuration itself are not in lines().
class VrLogTest : public testing::Test {
 protected:
  VrLogTest() {
    setenv("TZ", "UTC0", 1);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    VrLog::setConfig("config.log", folder_.path().c_str());
    VrLog::setLogVerbose("more");
    VrLog::setConfig("test.log", folder_.path().c_str());
    skip_ = lines_of_file().size();
  }
  ~VrLogTest() override {
    VrLogContext::setCurrentLogFilter(nullptr);
    VrLogContext::setCurrentThreadTag(0);
    VrLog::setLogFilterIPList(nullptr);
    VrLog::setLogFilterIPList(nullptr);
    VrLog::stopLog();
    unsetenv("TZ");
  }

  std::vector<std::string> lines_of_file() const { return log_lines(folder_, "test.log"); }
  std::vector<std::string> lines() const {
    std::vector<std::string> all = lines_of_file();
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(skip_));
    return all;
  }

  const std::string ids_ = std::to_string(getpid()) + ":" + std::to_string(gettid());
  TempDir folder_;
  FakeClock clock_{kNoon};
  size_t skip_ = 0;
};

class TaggingFilter : public VrLogFilter {
 public:
  bool canLog(enumLogMsgType /*level*/, BRELIPList* list) override {
    VRLOG(kLogError, "asked");  // must neither recurse nor appear
    list_seen = list;
    return allow;
  }
  int getClientSock() override { return client; }
  int getServerSock() override { return server; }
  uint32_t getSessionTag() override { return session; }
  uint32_t getTransTag() override { return trans; }
  uint32_t getLogFilerTag() override { return own; }
  uint32_t getGlobalSessionTag() override { return global; }

  bool allow = true;
  int client = 0;
  int server = 0;
  uint32_t session = 0;
  uint32_t trans = 0;
  uint32_t own = 0;
  uint32_t global = 0;
  BRELIPList* list_seen = nullptr;
};

TEST(VrLogStartDeathTest, FirstConfigurationLeavesOnlyErrorsOn) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto body = [] {
    const TempDir folder;
    std::string seen = enabled_levels();
    seen += VrLog::isLogInited() ? " open " : " closed ";
    VRLOG(kLogMore, "early line");
    const bool closing_line = VrLog::setConfig("x.log", folder.path().c_str());
    seen += enabled_levels() + (closing_line ? " line " : " silent ");
    VrLog::setLogVerbose(false);
    VrLog::setConfig("x.log", folder.path().c_str());
    seen += enabled_levels();
    for (const std::string& line : log_lines(folder, "x.log")) {
      if (line.find("early line") != std::string::npos) seen += " early line";
    }
    fprintf(stderr, "seen: %s\n", seen.c_str());
  };
  const auto run = [&] {
    body();
    _exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "seen: EITDM closed E---- silent EI--- early line");
}

TEST(VrLogStartDeathTest, ConsoleModePrintsEarlyAndLaterLines) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto body = [] {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    VRLOG(kLogError, "early");
    VrLog::setConfig(nullptr, nullptr);
    VRLOG(kLogError, "later");
    LogPrintf_CB("off");
    VrLog::setLogVerbose("inf");
    LogPrintf_CB("callback %d", 1);
    _exit(0);
  };
  EXPECT_EXIT(body(), testing::ExitedWithCode(0),
              "\n[0-9:.]* <ERR>[^\n]*early[^\n]*\n<ERR>[^\n]*later[^\n]*\n<INF>[^\n]*LOG level: 0x3[^\n]*\n"
              "callback 1\n$");
}

struct LogsWhenDestroyed {
  ~LogsWhenDestroyed() { VRLOG(kLogError, "at the very end"); }
};

TEST(VrLogStartDeathTest, EchoedLineOfAnOpenFileIsPrintedOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [] {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    {
      const TempDir folder;
      VrLog::setConfig("x.log", folder.path().c_str());
      VrLog::bDupLogToConsole = true;
      VRLOG(kLogError, "echoed");
    }
    _exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "gtest_main.cc\n[0-9:.]* <ERR>[^\n]*echoed[^\n]*\n$");
}

TEST(VrLogStartDeathTest, LineWrittenDuringStaticDestructionIsWritten) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto body = [] {
    static const LogsWhenDestroyed last;  // made before anything of logging, destroyed after it
    dup2(STDERR_FILENO, STDOUT_FILENO);
    VrLog::bDupLogToConsole = true;
    VRLOG(kLogError, "first");
    exit(0);
  };
  EXPECT_EXIT(body(), testing::ExitedWithCode(0), "at the very end");
}

TEST_F(VrLogTest, VerboseWordChoosesTheLevels) {
  const std::pair<const char*, std::vector<const char*>> rows[] = {
      {"EITDM", {"more"}},
      {"EITD-", {"true", "1", "yes", "on", "debugtransinf"}},
      {"EI---", {"false", "0", "no", "off"}},
      {"E-T--", {"trans"}},
      {"EI-D-", {"inf,debug"}},
      {"E--D-", {"dbg"}},
      {"EI--M", {"info more"}},
      {"E----", {"", nullptr, "True", "INFO", "on "}},
  };
  for (const auto& [levels, words] : rows) {
    for (const char* word : words) {
      VrLog::setLogVerbose(word);
      EXPECT_EQ(enabled_levels(), levels) << (word == nullptr ? "(null)" : word);
    }
  }
  VrLog::setLogVerbose(true);
  EXPECT_EQ(enabled_levels(), "EITD-");
  VrLog::setLogVerbose(false);
  EXPECT_EQ(enabled_levels(), "EI---");
  EXPECT_THAT(lines().back(), HasSubstr("> LOG level: 0x3 @<setLogVerbose> @@<VrLog.cpp:"));
}

TEST_F(VrLogTest, LineCarriesLevelTagsTextAndPlace) {
  const std::string head = "12:00:00.000 ";
  const struct {
    enumLogMsgType level;
    const char* file;
    const char* function;
    const char* text;
    std::string line;
  } rows[] = {
      {kLogError, "/a/b/File.cpp", "run", "text", "<ERR><0:" + ids_ + "> text @<run> @@<File.cpp:12>"},
      {kLogInfo, "File.cpp", "", "text", "<INF><0:" + ids_ + "> text @@<File.cpp:12>"},
      {kLogTrans, "", "run", "text", "<TRANS><0:" + ids_ + "> text @<run>"},
      {kLogDebug, nullptr, nullptr, nullptr, "<DBG><0:" + ids_ + "> "},
      {kLogMore, "a/", nullptr, "", "<MOR><0:" + ids_ + ">  @@<:12>"},
      {kLogError, nullptr, nullptr, "\ta\r\nb\tc%s\n", "<ERR><0:" + ids_ + ">  ab c%s"},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(VrLog::writeLog3(row.level, row.file, 12, row.function, row.text));
    EXPECT_EQ(lines().back(), head + row.line);
  }
  VrLogContext::setCurrentThreadTag(-2);
  VRLOG(kLogInfo, "%s %d", "tagged", 5);
  EXPECT_THAT(lines().back(),
              HasSubstr("<INF><4294967294:" + ids_ + "> tagged 5 @<TestBody> @@<VrLog_test.cpp:"));
  std::thread([] { VRLOG(kLogInfo, "other thread"); }).join();
  EXPECT_THAT(lines().back(), HasSubstr("<INF><0:" + std::to_string(getpid())));
}

TEST_F(VrLogTest, FilterPrefixAndModuleMarkTheLine) {
  const auto line = [](const char* file = nullptr) {
    return std::string(VrLog::_FormatLog(kLogInfo, file, 1, nullptr, "x"));
  };
  TaggingFilter filter;
  VrLogContext::setCurrentThreadTag(4);
  VrLogContext::setCurrentLogFilter(&filter);
  EXPECT_EQ(line(), "<INF><4:" + ids_ + "> x");
  filter.global = 9;
  filter.own = 0xab;
  EXPECT_EQ(line(), "<INF><9:" + ids_ + "> <0xab> x");
  filter.trans = 3;
  filter.client = 5;
  EXPECT_EQ(line(), "<INF><9:" + ids_ + "> <0xab:0:3> <C:5> x");
  filter.server = 6;
  EXPECT_EQ(line(), "<INF><9:" + ids_ + "> <0xab:0:3> <C:5><S:6> x");
  VrLogContext::setCurrentLogFilter(nullptr);

  const VrLogModuleInfo module("mod", "dir/Marked.cpp");
  const VrLogModuleInfo no_module("", "dir/Plain.cpp");
  EXPECT_EQ(line("dir/Marked.cpp"), "<INF><4:" + ids_ + "> [mod] x @@<Marked.cpp:1>");
  EXPECT_EQ(line("dir/Plain.cpp"), "<INF><4:" + ids_ + "> x @@<Plain.cpp:1>");
  {
    const VrLogPrefixHelper outer("/s/Outer.cpp", "go", "n=%d", 1);
    EXPECT_EQ(line("dir/Marked.cpp"), "<INF><4:" + ids_ + "> [mod] Outer.cpp, go, n=1, x @@<Marked.cpp:1>");
    {
      const VrLogPrefixHelper inner(nullptr, "", "%s", std::string(3000, 'p').c_str());
      EXPECT_EQ(strlen(VrLogPrefixHelper::getCurrPrefix()), VrLogContext::kPrefixBytes - 1);
    }
    EXPECT_STREQ(VrLogPrefixHelper::getCurrPrefix(), "Outer.cpp, go, n=1");
  }
  EXPECT_EQ(line(), "<INF><4:" + ids_ + "> x");
}

TEST_F(VrLogTest, OwnContextComesBackAfterAForeignOne) {
  VrLogContext::setCurrentThreadTag(1);
  VrLogContext foreign;
  VrLogContext::setCurrentLogContext(&foreign);
  VrLogContext::setCurrentThreadTag(2);
  EXPECT_EQ(foreign.getThreadTag(), 2);
  VrLogContext::setCurrentLogContext(nullptr);
  EXPECT_EQ(VrLogContext::getCurrentLogContext()->getThreadTag(), 1);
}

TEST_F(VrLogTest, SystemErrorsAreNamedAndErrnoStays) {
  const std::string place = " @<TestBody> @@<VrLog_test.cpp:";
  errno = ENOENT;
  VRLOG_SYS(VrLog::LogStr("no %s", "file"));
  VRLOG(kLogInfo, "line");
  LogPrintf_CB("callback");
  EXPECT_STREQ(VrLog::printErrno(), "ERROR: 2,No such file or directory");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(lines()[0], HasSubstr("> ERROR: 2,No such file or directory, no file" + place));

  // A thread's first message also keeps it, though it makes the thread's buffers.
  std::thread([] {
    errno = EACCES;
    VRLOG_SYS("first");
    EXPECT_EQ(errno, EACCES);
  }).join();
  EXPECT_THAT(lines().back(), HasSubstr("> ERROR: 13,Permission denied, first @<"));

  // No log file can be opened any more: that error is logging's own.
  VrLog::setConfig("x.log", folder_.file("missing").c_str());
  errno = EAGAIN;
  VRLOG_SYS("lost");
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(VrLogTest, CallbacksWriteWithTheWritersHeader) {
  VrLogContext::setCurrentThreadTag(3);
  LogPrintf_CB("a %d", 1);
  DbgPrintf_CB("b");
  VrLog::setLogVerbose("inf");
  DbgPrintf_CB("not enabled");
  EXPECT_EQ(lines()[0], "12:00:00.000 <INF><3:" + ids_ + "> a 1");
  EXPECT_EQ(lines()[1], "12:00:00.000 <DBG><3:" + ids_ + "> b");
  EXPECT_EQ(lines().size(), 3U);  // the third is about the level
}

TEST_F(VrLogTest, FilterIsAskedOnlyWithAListAndMayRefuse) {
  TaggingFilter filter;
  filter.allow = false;
  VrLog::setLogFilterIPList(" \t");
  VrLogContext::setCurrentLogFilter(&filter);
  EXPECT_EQ(enabled_levels(), "EITDM");  // a blank text makes no list
  VrLog::setLogFilterIPList("not an address");
  EXPECT_EQ(enabled_levels(), "EITDM");  // a list without entries
  EXPECT_EQ(filter.list_seen, nullptr);

  VrLog::setLogFilterIPList(" 10.0.0.1, 10.0.0.2 ");
  const size_t before = lines().size();
  EXPECT_EQ(enabled_levels(), "E----");
  EXPECT_EQ(lines().size(), before);
  ASSERT_NE(filter.list_seen, nullptr);
  EXPECT_EQ(filter.list_seen->GetNodeCount(), 2U);
  filter.allow = true;
  EXPECT_EQ(enabled_levels(), "EITDM");
  filter.allow = false;
  std::thread([] { EXPECT_EQ(enabled_levels(), "EITDM"); }).join();  // has no filter

  VrLog::setLogFilterIPList("");
  EXPECT_EQ(enabled_levels(), "EITDM");
  EXPECT_EQ(filter.list_seen->GetNodeCount(), 2U);  // the replaced list lives for one more call
}

TEST_F(VrLogTest, SilencedThreadLogsNothing) {
  {
    const VrLogDisableHelper outer;
    { const VrLogDisableHelper inner; }
    VRLOG(kLogError, "silenced");
    VRLOG_SYS("silenced");
    EXPECT_EQ(enabled_levels(), "-----");
    std::thread([] { EXPECT_EQ(enabled_levels(), "EITDM"); }).join();
  }
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_EQ(enabled_levels(), "EITDM");
}

TEST_F(VrLogTest, SettingsFileNamesFileAndLevels) {
  const std::string path = folder_.file("x.ini");
  write_file(path, "[log]\nlogfile_prefix=ini.log\nlogfile=" + folder_.path() + "\nverbose=trans\n");
  ConfigFile file(path);
  EXPECT_FALSE(VrLog::setConfig(&file, "log", nullptr, "", nullptr, nullptr));
  EXPECT_TRUE(VrLog::isLogInited());
  EXPECT_EQ(enabled_levels(), "E-T--");
  VRLOG(kLogError, "into the file");
  EXPECT_THAT(log_lines(folder_, "ini.log").back(), HasSubstr("into the file"));

  // Taken again only when the file was read at another modification time.
  file.setparam("log", "verbose", "more");
  VrLog::checkLogSetting(&file);
  EXPECT_EQ(enabled_levels(), "E-T--");
  write_file(path, "[log]\nverbose=more\nverbose_filter=10.0.0.0/8\n");
  std::filesystem::last_write_time(path, std::filesystem::last_write_time(path) + std::chrono::seconds(5));
  ASSERT_EQ(file.refresh(), 0);
  VrLog::checkLogSetting(&file);
  EXPECT_EQ(enabled_levels(), "EITDM");
  TaggingFilter filter;
  VrLogContext::setCurrentLogFilter(&filter);
  EXPECT_TRUE(VrLog::canLog(kLogInfo));
  EXPECT_NE(filter.list_seen, nullptr);
}

TEST_F(VrLogTest, LaterLinesOfAThreadAllocateNothing) {
  std::thread([] {
    VRLOG(kLogInfo, "first %d", 1);
    const size_t before = t_allocations;
    VRLOG(kLogInfo, "second %d", 2);
    VRLOG_SYS(VrLog::LogStr("third %d", 3));
    LogPrintf_CB("fourth");
    EXPECT_EQ(t_allocations, before);
  }).join();
  EXPECT_EQ(lines().size(), 4U);
}

}  // namespace
