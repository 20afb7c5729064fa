#include "brellog/VrLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "daemonbase/BRELConfigFile.h"
#include "daemonbase/BRELIPList.h"
#include "tests/unit/Support.h"

namespace {

using support::log_lines;
using support::TempDir;
using support::write_file;
using testing::HasSubstr;

// "EITDM" with a "-" for each level that is off.
std::string enabled_levels() {
  std::string text = "EITDM";
  for (size_t i = 0; i < text.size(); ++i) {
    if (!VrLog::canLog(static_cast<enumLogMsgType>(i))) text[i] = '-';
  }
  return text;
}

// Logs into its own folder, every level on.
class VrLogTest : public testing::Test {
 protected:
  VrLogTest() {
    VrLog::setConfig("test.log", folder_.path().c_str());
    VrLog::setLogVerbose("more");
  }
  ~VrLogTest() override {
    VrLogContext::setCurrentLogFilter(nullptr);
    VrLogContext::setCurrentThreadTag(0);
    VrLog::setLogFilterIPList(nullptr);
    VrLog::stopLog();
  }

  std::vector<std::string> lines() const { return log_lines(folder_.path(), "test.log"); }

  const std::string ids_ = std::to_string(getpid()) + ":" + std::to_string(gettid());
  TempDir folder_;
  support::FakeClock clock_{support::kNoon};
};

class TaggingFilter : public VrLogFilter {
 public:
  bool canLog(enumLogMsgType /*level*/, BRELIPList* list) override {
    VRLOG(kLogError, "asked");  // must neither recurse nor appear
    list_seen = list;
    return false;
  }
  int getClientSock() override { return 5; }
  int getServerSock() override { return 6; }
  uint32_t getTransTag() override { return 3; }
  uint32_t getLogFilerTag() override { return 0xab; }
  uint32_t getGlobalSessionTag() override { return 9; }

  BRELIPList* list_seen = nullptr;
};

// The bodies below run in programs of their own, where nothing has been logged yet.
void configure_for_the_first_time() {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  {
    const TempDir folder;
    std::string seen = enabled_levels();
    VRLOG(kLogMore, "early line");
    const bool closing_line = VrLog::setConfig("x.log", folder.path().c_str());
    seen += " " + enabled_levels() + (closing_line ? " line " : " silent ");
    VrLog::setLogVerbose(false);
    VrLog::setConfig("x.log", folder.path().c_str());
    printf("seen: %s%s:%s\n", seen.c_str(), enabled_levels().c_str(),
           log_lines(folder.path(), "x.log").at(0).c_str());
    VrLog::bDupLogToConsole = true;
    VRLOG(kLogError, "echoed once");
  }
  _exit(0);
}

void log_to_the_console() {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  VRLOG(kLogError, "early");
  VrLog::setConfig(nullptr, nullptr);
  VRLOG(kLogError, "later");
  LogPrintf_CB("off");
  VrLog::setLogVerbose("inf");
  LogPrintf_CB("callback %d", 1);
  _exit(0);
}

struct LogsWhenDestroyed {
  ~LogsWhenDestroyed() { VRLOG(kLogError, "at the very end"); }
};

void log_during_static_destruction() {
  static const LogsWhenDestroyed last;  // made before anything of logging, destroyed after it
  dup2(STDERR_FILENO, STDOUT_FILENO);
  VrLog::bDupLogToConsole = true;
  VRLOG(kLogError, "first");
  exit(0);
}

TEST(VrLogStartDeathTest, BeforeTheConfigurationAndAtTheEndNothingIsLost) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto well = testing::ExitedWithCode(0);
  EXPECT_EXIT(
      configure_for_the_first_time(), well,
      "seen: EITDM E---- silent EI---:[^\n]*early line[^\n]*\n[0-9:.]* <ERR>[^\n]*echoed once[^\n]*\n$");
  EXPECT_EXIT(log_to_the_console(), well,
              "\n[0-9:.]* <ERR>[^\n]*early[^\n]*\n<ERR>[^\n]*later[^\n]*\n<INF>[^\n]*LOG level: 0x3[^\n]*\n"
              "callback 1\n$");
  EXPECT_EXIT(log_during_static_destruction(), well, "at the very end");
}

TEST_F(VrLogTest, VerboseWordChoosesTheLevels) {
  const std::pair<const char*, std::vector<const char*>> rows[] = {
      {"EITDM", {"more"}},
      {"EITD-", {"true", "1", "yes", "on", "debugtransinf"}},
      {"EI---", {"false", "0", "no", "off"}},
      {"E-T--", {"trans"}},
      {"E--D-", {"dbg"}},
      {"EI--M", {"info more"}},
      {"E----", {"", nullptr, "True", "on "}},
  };
  for (const auto& [levels, words] : rows) {
    for (const char* word : words) {
      VrLog::setLogVerbose(word);
      EXPECT_EQ(enabled_levels(), levels) << (word == nullptr ? "(null)" : word);
    }
  }
}

TEST_F(VrLogTest, LineCarriesLevelTagTextAndPlace) {
  const auto line = [&](enumLogMsgType level, const char* file, const char* function, const char* text) {
    VrLog::writeLog3(level, file, 12, function, text);
    return lines().back();
  };
  const std::string tags = "><0:" + ids_ + "> ";
  EXPECT_EQ(line(kLogError, "/a/File.cpp", "run", "text"),
            "12:00:00.000 <ERR" + tags + "text @<run> @@<File.cpp:12>");
  EXPECT_EQ(line(kLogTrans, "", "run", "text"), "12:00:00.000 <TRANS" + tags + "text @<run>");
  EXPECT_EQ(line(kLogDebug, nullptr, nullptr, nullptr), "12:00:00.000 <DBG" + tags);
  EXPECT_EQ(line(kLogMore, nullptr, nullptr, "\ta\r\nb\tc%s\n"), "12:00:00.000 <MOR" + tags + " ab c%s");
  VrLogContext::setCurrentThreadTag(-2);
  LogPrintf_CB("a %d", 1);  // with the writer's own header
  EXPECT_EQ(lines().back(), "12:00:00.000 <INF><4294967294:" + ids_ + "> a 1");

  // Threads that come and go share one context, and nothing of what was in it.
  VrLogContext* first = nullptr;
  std::thread([&] {
    first = VrLogContext::getCurrentLogContext();
    VrLogContext::setCurrentThreadTag(7);
  }).join();
  std::thread([&] {
    DbgPrintf_CB("b");
    EXPECT_EQ(VrLogContext::getCurrentLogContext(), first);
  }).join();
  EXPECT_THAT(lines().back(), HasSubstr("<DBG><0:" + std::to_string(getpid())));
}

TEST_F(VrLogTest, AFilterMarksOrRefusesTheLinesOfItsThread) {
  const auto line = [](const char* file = nullptr) {
    return std::string(VrLog::_FormatLog(kLogInfo, file, 1, nullptr, "x"));
  };
  TaggingFilter filter;
  VrLogContext::setCurrentThreadTag(4);
  VrLogContext::setCurrentLogFilter(&filter);
  EXPECT_EQ(line(), "<INF><9:" + ids_ + "> <0xab:0:3> <C:5><S:6> x");
  VrLog::setLogFilterIPList("not an address");
  EXPECT_EQ(enabled_levels(), "EITDM");
  VrLog::setLogFilterIPList(" 10.0.0.1, 10.0.0.2 ");
  const size_t before = lines().size();
  EXPECT_EQ(enabled_levels(), "E----");
  EXPECT_EQ(lines().size(), before);
  std::thread([] { EXPECT_EQ(enabled_levels(), "EITDM"); }).join();  // has no filter
  VrLog::setLogFilterIPList("");
  EXPECT_EQ(enabled_levels(), "EITDM");
  ASSERT_NE(filter.list_seen, nullptr);
  EXPECT_EQ(filter.list_seen->GetNodeCount(), 2U);  // the replaced list lives for one more call
  VrLogContext::setCurrentLogFilter(nullptr);

  const VrLogModuleInfo module("mod", "dir/Marked.cpp");
  const VrLogPrefixHelper outer("/s/Outer.cpp", "go", "n=%d", 1);
  {
    const VrLogPrefixHelper inner(nullptr, "", "%s", std::string(3000, 'p').c_str());
    EXPECT_EQ(strlen(VrLogPrefixHelper::getCurrPrefix()), VrLogContext::kPrefixBytes - 1);
  }
  EXPECT_EQ(line("dir/Marked.cpp"), "<INF><4:" + ids_ + "> [mod] Outer.cpp, go, n=1, x @@<Marked.cpp:1>");
  const VrLogDisableHelper silence;
  { const VrLogDisableHelper inner; }
  EXPECT_EQ(enabled_levels(), "-----");
  std::thread([] { EXPECT_EQ(enabled_levels(), "EITDM"); }).join();
}

TEST_F(VrLogTest, SystemErrorsAreNamedAndErrnoStays) {
  errno = ENOENT;
  VRLOG_SYS(VrLog::LogStr("no %s", "file"));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(lines().back(),
              HasSubstr("> ERROR: 2,No such file or directory, no file @<TestBody> @@<VrLog_test.cpp:"));

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

TEST_F(VrLogTest, SettingsFileNamesFileAndLevelsAndIsTakenAgainWhenItWasReadAnew) {
  const std::string path = folder_.file("x.ini");
  write_file(path, "[log]\nlogfile_prefix=ini.log\nlogfile=" + folder_.path() + "\nverbose=trans\n");
  ConfigFile file(path);
  VrLog::setConfig(&file, "log", nullptr, "", nullptr, nullptr);
  VRLOG(kLogError, "into the file");
  EXPECT_THAT(log_lines(folder_.path(), "ini.log").back(), HasSubstr("into the file"));
  file.setparam("log", "verbose", "more");
  VrLog::checkLogSetting(&file);
  EXPECT_EQ(enabled_levels(), "E-T--");
  write_file(path, "[log]\nverbose=inf\n");
  std::filesystem::last_write_time(path, std::filesystem::file_time_type());
  file.refresh();
  VrLog::checkLogSetting(&file);
  EXPECT_EQ(enabled_levels(), "EI---");
}

}  // namespace
