#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/AuthDaemon.h"

namespace {

class BootParameterTest : public testing::Test {
 protected:
  void SetUp() override {
    memset(g_workdir, 0, sizeof(g_workdir));
    g_verbose_log = false;
    g_enable_reply_cache = true;
    g_work_process_num = 2;
    g_work_thread_num = 10;
    ldap_sync_interval = 1440;
  }
  static void parse(std::vector<std::string> words) {
    words.insert(words.begin(), "AuthDaemon");
    std::vector<char*> argv;
    argv.reserve(words.size());
    for (std::string& word : words) argv.push_back(word.data());
    parse_boot_parameter(static_cast<int>(argv.size()), argv.data());
  }
};

TEST_F(BootParameterTest, NumbersOutOfRangeLeaveTheDefaults) {
  const std::tuple<std::vector<std::string>, int, int> rows[] = {
      {{}, 2, 10},
      {{"--process-num", "1", "--thread-num", "1"}, 1, 1},
      {{"--process-num", "10", "--thread-num", "30"}, 10, 30},
      {{"--process-num", "11", "--thread-num", "31"}, 2, 10},
      {{"--process-num", "0", "--thread-num", "-1"}, 2, 10},
      {{"--process-num", "many", "--thread-num", "4294967298"}, 2, 10},
      {{"--process-num", "3rd", "--thread-num", " 7"}, 3, 7},
      {{"--thread-num", "5", "--process-num"}, 2, 5},
      {{"--process-num", "--thread-num", "4"}, 2, 4},  // a value is itself looked at as an option
  };
  for (const auto& [words, processes, threads] : rows) {
    SetUp();
    parse(words);
    EXPECT_EQ(g_work_process_num, processes) << testing::PrintToString(words);
    EXPECT_EQ(g_work_thread_num, threads) << testing::PrintToString(words);
  }
}

TEST_F(BootParameterTest, WordsThatSwitchAndTheLastWorkingDirectoryCutToItsRoom) {
  parse({"verbose"});
  EXPECT_TRUE(g_verbose_log);
  EXPECT_TRUE(g_enable_reply_cache);
  SetUp();
  parse({"--workdir", "--verbose", "--disable-reply-cache"});
  EXPECT_TRUE(g_verbose_log);
  EXPECT_FALSE(g_enable_reply_cache);
  EXPECT_STREQ(g_workdir, "--verbose");
  parse({"--workdir", "/" + std::string(600, 'd')});
  EXPECT_EQ(g_workdir, "/" + std::string(510, 'd'));
}

TEST_F(BootParameterTest, IntervalComesFromTheSettingsFileWhateverItSays) {
  const std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("boot" + std::to_string(getpid()));
  std::filesystem::create_directory(folder);
  const std::pair<const char*, uint32_t> rows[] = {
      {"[LDAP_Setting]\nSyncInterval=30\n", 30},
      {"[LDAP_Setting]\nSyncInterval=soon\n", 0},
      {"[LDAP_Setting]\n", 0},
      {"", 0},
      {"[LDAP_Setting]\nSyncInterval=-1\n", 4294967295U},
  };
  for (const auto& [text, expected] : rows) {
    std::ofstream(folder / "LdapSetting.ini") << text;
    parse({"--workdir", folder.string()});
    EXPECT_EQ(ldap_sync_interval, expected) << text;
  }
  std::filesystem::remove_all(folder);
  SetUp();
  parse({"--workdir", folder.string()});
  EXPECT_EQ(ldap_sync_interval, 1440U);
}

}  // namespace
