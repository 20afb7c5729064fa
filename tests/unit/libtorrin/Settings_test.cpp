#include "libtorrin/Settings.h"

#include <gmock/gmock.h>

#include "tests/unit/libtorrin/CacheTest.h"

class SettingsTest : public CacheTest {};

TEST_F(SettingsTest, MissingFileGivesTheDefaults) {
  const auto read = torrin::read_settings(workdir_);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->lifetime_minutes, 480);
  EXPECT_FALSE(read->durable);
  EXPECT_EQ(read->export_directory, "");
  EXPECT_EQ(read->directory, "ip_user_cache");
}

TEST_F(SettingsTest, ValuesAreRead) {
  settings("Lifetime = 5 \nDurable=YES\nExportDirectory=/var/exports/\nDirectory=a/b\nBackend=local\n");
  const auto read = torrin::read_settings(workdir_);
  ASSERT_TRUE(read) << read.error();
  EXPECT_EQ(read->lifetime_minutes, 5);
  EXPECT_TRUE(read->durable);
  EXPECT_EQ(read->export_directory, "/var/exports/");
  EXPECT_EQ(read->directory, "a/b");
}

TEST_F(SettingsTest, AWrongValueStopsTheStartWithOneLine) {
  constexpr struct {
    const char* line;
    const char* key;
  } kRows[] = {
      {"Lifetime=", "Lifetime"},
      {"Lifetime=-1", "Lifetime"},
      {"Lifetime=8h", "Lifetime"},
      {"Lifetime=5256001", "Lifetime"},
      {"Lifetime=1e3", "Lifetime"},
      {"Lifetime=99999999999999999999", "Lifetime"},
      {"Durable=1", "Durable"},
      {"ExportDirectory=exports", "ExportDirectory"},
      {"ExportDirectory=/a/../b", "ExportDirectory"},
      {"Directory=", "Directory"},
      {"Directory=/tmp", "Directory"},
      {"Directory=a/../..", "Directory"},
      {"Backend=redis", "Backend"},
      {"Backend=mysql", "Backend"},
  };
  for (const auto& row : kRows) {
    settings(std::string(row.line) + "\n");
    forget_log();
    EXPECT_NE(start(), 0) << row.line;
    EXPECT_EQ(new_lines("ERR"), 1) << row.line;
    EXPECT_EQ(new_lines("ERR", std::string("IPUserCache.ini: section IPUserCache, key ") + row.key), 1)
        << row.line;
  }
  EXPECT_FALSE(std::filesystem::exists(workdir_ + "/ip_user_cache")) << "a refused start leaves nothing";
}

TEST_F(SettingsTest, ALineThatIsNoSyntaxStopsTheStartWithItsNumber) {
  constexpr struct {
    const char* text;
    const char* line;
  } kRows[] = {
      {"[IPUserCache]\n# a comment\n\nDurable yes\n", "line 4: "},
      {"[IPUserCache\nDurable=yes\n", "line 1: "},
      {"Durable=yes\n[IPUserCache]\n", "line 1: "},
  };
  for (const auto& row : kRows) {
    write_text(workdir_ + "/IPUserCache.ini", row.text);
    forget_log();
    EXPECT_NE(start(), 0) << row.text;
    EXPECT_EQ(new_lines("ERR", std::string("IPUserCache.ini: ") + row.line), 1) << row.text;
    EXPECT_EQ(new_lines("ERR"), 1) << row.text;
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
