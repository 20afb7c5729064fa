#include "libtorrin/Settings.h"

#include <gmock/gmock.h>

#include "tests/unit/libtorrin/CacheTest.h"

class SettingsTest : public CacheTest {};

TEST_F(SettingsTest, ValuesAreReadOrHaveTheirDefaults) {
  auto read = torrin::read_settings(workdir_);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->lifetime_minutes, 480);
  EXPECT_FALSE(read->durable);
  EXPECT_EQ(read->export_directory, "");
  EXPECT_EQ(read->directory, "ip_user_cache");
  settings("Lifetime = 5 \nDurable=YES\nExportDirectory=/var/exports/\nDirectory=a/b\nBackend=local\n");
  read = torrin::read_settings(workdir_);
  ASSERT_TRUE(read) << read.error();
  EXPECT_EQ(read->lifetime_minutes, 5);
  EXPECT_TRUE(read->durable);
  EXPECT_EQ(read->export_directory, "/var/exports/");
  EXPECT_EQ(read->directory, "a/b");
}

TEST_F(SettingsTest, AWrongValueStopsTheStartWithOneLine) {
  for (const std::string line :
       {"Lifetime=", "Lifetime=-1", "Lifetime=8h", "Lifetime=5256001", "Lifetime=1e3",
        "Lifetime=99999999999999999999", "Durable=1", "ExportDirectory=exports", "ExportDirectory=/a/../b",
        "Directory=", "Directory=/tmp", "Directory=a/../..", "Backend=redis"}) {
    settings(line + "\n");
    forget_log();
    EXPECT_NE(start(), 0) << line;
    EXPECT_EQ(new_lines("ERR"), 1) << line;
    EXPECT_EQ(new_lines("ERR", "IPUserCache.ini: section IPUserCache, key " + line.substr(0, line.find('='))),
              1)
        << line;
  }
  EXPECT_FALSE(std::filesystem::exists(workdir_ + "/ip_user_cache")) << "a refused start leaves nothing";
}

TEST_F(SettingsTest, ALineThatIsNoSyntaxStopsTheStartWithItsNumber) {
  const std::pair<const char*, const char*> rows[] = {
      {"[IPUserCache]\n# a comment\n\nDurable yes\n", "line 4: "},
      {"[IPUserCache\nDurable=yes\n", "line 1: "},
      {"Durable=yes\n[IPUserCache]\n", "line 1: "}};
  for (const auto& [text, line] : rows) {
    write_text(workdir_ + "/IPUserCache.ini", text);
    forget_log();
    EXPECT_NE(start(), 0) << text;
    EXPECT_EQ(new_lines("ERR", std::string("IPUserCache.ini: ") + line), 1) << text;
    EXPECT_EQ(new_lines("ERR"), 1) << text;
  }
}

TEST_F(SettingsTest, UnknownKeysAreToldButDoNotHurt) {
  settings("lifetime=5\nColour=red\nServer=db:6379\n[Other]\nx=1\n");
  forget_log();
  ASSERT_TRUE(torrin::read_settings(workdir_));
  EXPECT_EQ(new_lines("INF", "lifetime"), 1) << "keys are case-sensitive";
  EXPECT_EQ(new_lines("INF", "Colour"), 1);
  EXPECT_EQ(new_lines("INF", "Server"), 1);
  EXPECT_EQ(new_lines("INF", "Other"), 1);
  EXPECT_EQ(new_lines("ERR"), 0);
}

TEST_F(SettingsTest, AllProblemsAreFoundInOneRunWithTheirLines) {
  settings("Lifetime=x\nDurabel=yes\nDirectory=/a\nDirectory=/b\nnothing\n");  // from line 2 on
  std::vector<std::string> found;
  for (const SettingsProblem& problem : torrin::examine_settings(workdir_).problems) {
    found.push_back((problem.fatal ? "!" : "?") + std::to_string(problem.line) + " " + problem.text);
  }
  EXPECT_THAT(found, testing::UnorderedElementsAre(
                         testing::StartsWith("!2 section IPUserCache, key Lifetime: \"x\""),
                         "?3 the key Durabel is unknown and ignored; did you mean Durable?",
                         testing::StartsWith("!5 section IPUserCache, key Directory: \"/b\""),
                         testing::StartsWith("?5 [IPUserCache] Directory is given again, line 4"),
                         testing::StartsWith("!6 '=' missing")));
}

TEST_F(SettingsTest, WhatIsNoFileStopsTheStartWithOneLine) {
  const std::string path = workdir_ + "/IPUserCache.ini";
  std::filesystem::create_directory(path);
  EXPECT_NE(start(), 0);
  std::filesystem::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const auto refused = [&] {
    alarm(5);
    return start() != 0;
  };
  EXPECT_EQ(in_child(refused), 0) << "nobody writes to the pipe";
  EXPECT_EQ(new_lines("ERR"), 2);
  EXPECT_EQ(new_lines("ERR", "IPUserCache.ini: it is not a regular file"), 2);
}
