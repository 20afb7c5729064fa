#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <sstream>

#include "tools/authctl_format.h"

namespace authctl {
namespace {

using namespace std::string_literals;

TEST(AuthctlFormat, HostileTextCannotDriveTheTerminal) {
  const struct {
    std::string text;
    std::string shown;
  } rows[] = {
      {"CORP\\alice", "CORP\\alice"},
      {"Jürgen 山田", "Jürgen 山田"},
      {"a\x1b[2Jb", "a\\x1b[2Jb"},
      {"a\nb\tc\rd", "a\\nb\\tc\\rd"},
      {"nul\0!"s, "nul\\x00!"},
      {"del\x7f", "del\\x7f"},
      {"\xC2\x9B"
       "2J",
       "\\u009b2J"},  // a one-character control sequence introducer
      {"a\xE2\x80\xAE"
       "cod",
       "a\\u202ecod"},  // right-to-left override
      {"a\xE2\x80\x8B"
       "b",
       "a\\u200bb"},                        // zero-width space
      {"\xE2\x80\xA8", "\\u2028"},          // line separator
      {"\xFF\x80", "\\xff\\x80"},           // never UTF-8
      {"\xE5\xB1", "\\xe5\\xb1"},           // cut within a character
      {"\xC0\x9B", "\\xc0\\x9b"},           // overlong escape
      {"\xED\xA0\x80", "\\xed\\xa0\\x80"},  // half of a surrogate pair
      {"\xE2\x80\x8C", "\xE2\x80\x8C"},     // a joiner is spelling
  };
  for (const auto& row : rows) EXPECT_EQ(printable(row.text), row.shown);
}

TEST(AuthctlFormat, ColumnsLineUpByWidthOnScreen) {
  EXPECT_EQ(display_width("山田"), 4u);
  EXPECT_EQ(display_width("e\xCC\x81"), 1u) << "a combining accent";
  EXPECT_EQ(display_width("Jürgen"), 6u);

  google::protobuf::RepeatedPtrField<Velder::GroupInfo> groups;
  const struct {
    const char* cn;
    const char* dn;
  } rows[] = {{"山田", "dn1"}, {"Jürgen", "dn2"}, {"a\nb", "dn\n3"}, {"", "dn4"}};
  for (const auto& row : rows) {
    Velder::GroupInfo* group = groups.Add();
    group->set_cn(row.cn);
    group->set_dn(row.dn);
  }
  std::ostringstream out;
  print_groups(out, groups);
  EXPECT_EQ(out.str(),
            "CN      DN\n"
            "山田    dn1\n"
            "Jürgen  dn2\n"
            "a\\nb    dn\\n3\n"
            "        dn4\n");
}

TEST(AuthctlFormat, TimesAreLocalWithTheNumber) {
  setenv("TZ", "XST-2:30", 1);
  tzset();
  EXPECT_EQ(time_text(1795253400), "2026-11-21 12:00:00 +0230 (1795253400)");
  EXPECT_EQ(time_text(0), "never (0)");
  EXPECT_EQ(time_text(4294967295U), "2106-02-07 08:58:15 +0230 (4294967295)");
  unsetenv("TZ");
  tzset();
}

TEST(AuthctlFormat, TheSameCodeMeansWhatItsSourceMeans) {
  EXPECT_EQ(result_words(Family::kDirectory, 1), "the directory look-up failed");
  EXPECT_EQ(result_words(Family::kBinding, 1), "no binding for this address");
  EXPECT_NE(result_words(Family::kAgent, -1), result_words(Family::kPassword, -1));
  for (const Family family : {Family::kDirectory, Family::kPassword, Family::kAgent}) {
    for (const int code : {4, 32, 49, 81, 85, -1, -2})
      EXPECT_FALSE(result_words(family, code).empty()) << code;
  }
  EXPECT_EQ(result_words(Family::kDirectory, 7777), "");
}

TEST(AuthctlFormat, EveryMessageHasAJsonFormOnOneLine) {
  Velder::IPUserQueryResponse answer;
  answer.set_result(0);
  answer.set_expire_at(5);
  Velder::UserInfo* user = answer.mutable_userinfo();
  user->set_user_ln("CORP\\al");
  user->set_domain_dns("");
  user->set_uid(
      "a\xFF"
      "l");
  user->set_cn(
      "x\x1b[2J\n\xC2\x9B"
      "2J");
  user->set_dn("山");
  user->set_upn("u");
  user->add_grouplist()->set_cn("\xC3");
  user->mutable_grouplist(0)->set_dn("d");
  testing::internal::CaptureStderr();
  EXPECT_EQ(to_json(answer),
            R"({"result":0,"expire_at":5,"userInfo":{"user_ln":"CORP\\al","domain_dns":"","uid":"a\\xffl",)"
            R"("cn":"x\u001b[2J\n\u009b2J","dn":"山","upn":"u","groupList":[{"cn":"\\xc3","dn":"d"}]}})");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  Velder::AllUserQueryResponse users;
  users.set_result(0);
  users.add_groupuserlist()->set_group_dn("g");
  users.mutable_groupuserlist(0)->add_userlist("\xFE");
  EXPECT_EQ(to_json(users), R"({"result":0,"groupuserlist":[{"group_dn":"g","userlist":["\\xfe"]}]})");
}

}  // namespace
}  // namespace authctl
