// What status and reload understand of /proc, of the pid file and of the log, whose lines quote hostile text.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "tools/status_json.h"
#include "tools/status_log.h"
#include "tools/status_process.h"
#include "tools/status_report.h"

namespace authctl {
namespace {

using testing::ElementsAre;

TEST(StatusProcess, WhatTheKernelTellsOfAProcessWhateverItsName) {
  const auto stat =
      parse_stat("812 (a) R 1 (b)  S 7 812 811 0 -1 4194624 1 0 0 0 0 0 0 0 20 0 11 0 98765 1 2 3");
  ASSERT_TRUE(stat);
  EXPECT_EQ(stat->name, "a) R 1 (b");
  EXPECT_EQ(stat->state, 'S');
  EXPECT_EQ(stat->parent, 7);
  EXPECT_EQ(stat->session, 811);
  EXPECT_EQ(stat->start_ticks, 98765U);
  for (const char* wrong : {"", "812 (x", "812 )x(", "812 (x) S 1 2", "812 (x) S one 2 3"})
    EXPECT_FALSE(parse_stat(wrong)) << wrong;

  const auto status = parse_status(
      "Name:\tx\nUid:\t990\t0\t0\t0\nVmRSS:\t  5120 kB\nThreads:\t11\nSigPnd:\t0000000000000200\n"
      "ShdPnd:\t0000000000000800\nSigBlk:\t0000000000000004\nSigCgt:\t0000000000000a00\n");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->user, 990U);
  EXPECT_EQ(status->threads, 11);
  EXPECT_EQ(status->memory_kb, 5120U);
  EXPECT_TRUE(has_signal(status->pending, SIGUSR1) && has_signal(status->pending, SIGUSR2));
  EXPECT_TRUE(has_signal(status->blocked, SIGQUIT) && has_signal(status->caught, SIGUSR1));
  EXPECT_FALSE(has_signal(status->caught, SIGHUP));
  EXPECT_FALSE(parse_status("Name:\tx\nThreads:\t1\n"));
}

TEST(StatusProcess, ArgumentsMeanWhatTheyMeanToTheDaemon) {
  using namespace std::string_literals;
  const BootParameters given = parse_arguments(
      "/x/AuthDaemon\0--workdir\0--thread-num\0--process-num\0"
      "11\0--thread-num\0"
      "3x\0--disable-reply-cache\0--process-num\0"s);
  EXPECT_EQ(given.workdir, "--thread-num");
  EXPECT_EQ(given.processes, 2) << "out of range, and a last element without a value";
  EXPECT_EQ(given.threads, 3);
  EXPECT_FALSE(given.reply_cache);
  EXPECT_EQ(parse_arguments("d\0--workdir\0"s + std::string(600, 'w')).workdir.size(), 511U);
}

TEST(StatusProcess, TheSnapshotInUseIsSeenInTheMaps) {
  const std::string head = "7f00-7f01 r--s 00000000 00:2d 99 ";
  const std::string current = head + "/w/directory.db\n", older = head + "/w/directory.db (deleted)\n";
  EXPECT_EQ(parse_maps(older + current, "directory.db"), SnapshotUse::kCurrent);
  EXPECT_EQ(parse_maps(older, "directory.db"), SnapshotUse::kReplaced);
  EXPECT_EQ(parse_maps(head + "/w/mydirectory.db\n" + head + "/w/directory.db.new\n", "directory.db"),
            SnapshotUse::kNone);
}

TEST(StatusLog, ALineIsTakenApartFromItsBeginning) {
  const auto line = parse_log_line(
      "09:30:00.123 <INF><4294967295:812:813> user x @<f> @@<f.cpp:1> refused @<real_one> @@<Real.cpp:42>");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->clock, "09:30:00.123");
  EXPECT_EQ(line->level, "INF");
  EXPECT_EQ(line->pid, 812);
  EXPECT_EQ(line->thread, 813);
  EXPECT_EQ(line->text, "user x @<f> @@<f.cpp:1> refused");
  EXPECT_EQ(parse_log_line("09:30:00.123 <ERR><0:1:1> cut off")->text, "cut off");
  for (const char* wrong : {"", "09:30:00.123", "09:30:00.123 <INF>", "9:30:00.1234 <INF><0:1:1> x",
                            "09:30:00.123 <INFORMATION><0:1:1> x", "09:30:00.123 <INF><0:1> x",
                            "a 09:30:00.123 <ERR><0:1:1> x", "09:30:00.123 <INF><0:99999999999:1> x"})
    EXPECT_FALSE(parse_log_line(wrong)) << wrong;
}

TEST(StatusLog, FiguresAndRunsAreWholeLinesOnly) {
  const std::string text = "reply cache statistic info: size(4096), count(7), query(20), hit(-1)";
  const auto figures = parse_cache_figures(text);
  ASSERT_TRUE(figures);
  EXPECT_EQ(figures->size, 4096);
  EXPECT_EQ(figures->count, 7);
  EXPECT_EQ(figures->queries, 20);
  EXPECT_EQ(figures->hits, -1) << "counters that went round";
  EXPECT_FALSE(parse_cache_figures(text + " "));
  EXPECT_FALSE(parse_cache_figures("user " + text));
  EXPECT_EQ(parse_script_run("Info: execute command: /w, return 7/x.sh 2>&1 >>/w, return 256"), 256);
  EXPECT_FALSE(parse_script_run("Info: execute command: /w/x.sh, return 1x"));
}

TEST(StatusLog, AReloadIsWhatTheMainThreadSays) {
  const std::pair<const char*, ReloadWord> rows[] = {
      {"<INF><0:8:8> Handle single 10, reload data...", ReloadWord::kTaken},
      {"<INF><0:8:8> Handle single 15, daemon will exit", ReloadWord::kNothing},
      {"<INF><0:8:8> Directory: built from /w/d.ldif in 0.1 s: 1 users", ReloadWord::kDone},
      {"<INF><0:8:8> Directory: /w/d.ldif is unchanged, 8 users, 6 groups", ReloadWord::kDone},
      {"<INF><0:8:8> Directory: /w/LdapSetting.ini: [Domain_1] X is not known", ReloadWord::kNothing},
      {"<ERR><0:8:8> Directory: /w/d.ldif:2: no colon in the line", ReloadWord::kFailed},
      {"<ERR><9:8:9> Directory: a look-up at the servers failed (81)", ReloadWord::kNothing},
      {"<INF><0:8:9> Handle single 10, reload data...", ReloadWord::kNothing},
  };
  for (const auto& [text, word] : rows) {
    const std::string whole = std::string("09:30:00.123 ") + text + " @<f> @@<L.cpp:1>";
    const auto line = parse_log_line(whole);
    ASSERT_TRUE(line) << text;
    EXPECT_EQ(parse_reload(*line), word) << text;
  }
}

TEST(StatusLog, AFileIsFollowedByWholeLines) {
  const std::string path = testing::TempDir() + "followed.log";
  std::ofstream(path) << "one\ntwo\nthr";
  std::vector<std::string> lines;
  const auto keep = [&lines](std::string_view line) { lines.emplace_back(line); };
  LogFollower follower(path);
  EXPECT_TRUE(follower.read(keep));
  EXPECT_THAT(lines, ElementsAre("one", "two"));
  std::ofstream(path, std::ios::app) << "ee\nfour\n";
  EXPECT_TRUE(follower.read(keep));
  EXPECT_THAT(lines, ElementsAre("one", "two", "three", "four"));
  std::ofstream(path) << "new\n";
  EXPECT_TRUE(follower.read(keep));
  EXPECT_EQ(lines.back(), "new") << "the file was replaced by a shorter one";

  lines.clear();
  LogFollower tail(path, 0, 2);
  EXPECT_TRUE(tail.read(keep));
  EXPECT_TRUE(tail.passed_over());
  EXPECT_THAT(lines, ElementsAre()) << "half a line is none";
  std::filesystem::remove(path);
  EXPECT_FALSE(follower.read(keep));
}

TEST(StatusText, JsonHoldsAnyText) {
  JsonWriter json;
  json.begin('{')
      .text("a", "q\"b\\\n\x1b\xff")
      .begin('[', "b")
      .text("", "x")
      .number("", -1)
      .end(']')
      .null("c");
  EXPECT_EQ(json.end('}').str(), R"({"a":"q\"b\\\\n\\x1b\\xff","b":["x",-1],"c":null})");
}

}  // namespace
}  // namespace authctl
