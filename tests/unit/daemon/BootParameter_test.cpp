#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "daemon/AuthDaemon.h"
#include "daemon/LdapSync.h"

namespace {

TEST(BootParameterTest, LaterWordsWinAndWhatIsOutOfRangeLeavesTheDefault) {
  const struct {
    std::vector<std::string> words;
    std::string expected;  // processes, threads, verbose, reply cache, working directory
  } rows[] = {
      {{}, "2 10 0 1 "},
      {{"--process-num", "10", "--thread-num", "30", "verbose"}, "10 30 1 1 "},
      {{"--process-num", "11", "--thread-num", "31"}, "2 10 0 1 "},
      {{"--process-num", "0", "--thread-num", "4294967298"}, "2 10 0 1 "},
      {{"--process-num", "3rd", "--thread-num", " 7", "--disable-reply-cache"}, "3 7 0 0 "},
      {{"--process-num", "--thread-num", "4", "--workdir"}, "2 4 0 1 "},  // a value is itself looked at
      {{"--workdir", "/long", "--workdir", "--verbose"}, "2 10 1 1 --verbose"},
      {{"--workdir", "/" + std::string(600, 'd')}, "2 10 0 1 /" + std::string(510, 'd')},
  };
  for (const auto& row : rows) {
    memset(g_workdir, 0, sizeof(g_workdir));
    g_verbose_log = false;
    g_enable_reply_cache = true;
    g_work_process_num = 2;
    g_work_thread_num = 10;
    std::vector<std::string> words = row.words;
    words.insert(words.begin(), "AuthDaemon");
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    parse_boot_parameter(static_cast<int>(argv.size()), argv.data());
    std::ostringstream seen;
    seen << g_work_process_num << " " << g_work_thread_num << " " << g_verbose_log << " "
         << g_enable_reply_cache << " " << g_workdir;
    EXPECT_EQ(seen.str(), row.expected) << testing::PrintToString(row.words);
  }
}

TEST(LdapSyncTest, LogDateIsLocalAndPaddedWhereNeeded) {
  setenv("TZ", "UTC-2", 1);  // two hours east
  tzset();
  EXPECT_EQ(sync_log_date(1709593200), "20240305.0001");  // 4 March 23:00 UTC
  EXPECT_EQ(sync_log_date(1731412800), "20241112.0001");
}

}  // namespace
