#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <sstream>

#include "tools/authctl_format.h"

namespace authctl {
namespace {

using namespace std::string_literals;

TEST(AuthctlFormat, HostileTextCannotDriveTheTerminal) {
  const std::pair<std::string, const char*> rows[] = {
      {"CORP\\Jürgen 山田", "CORP\\Jürgen 山田"},
      {"a\x1b[2Jb\nb\tc\rd", "a\\x1b[2Jb\\nb\\tc\\rd"},
      {"nul\0 del\x7f"s, "nul\\x00 del\\x7f"},
      {"\u009b2J", "\\u009b2J"},               // a one-character control sequence introducer
      {"a\u202ecod", "a\\u202ecod"},           // right-to-left override
      {"a\u200b\u2028b", "a\\u200b\\u2028b"},  // zero-width space, line separator
      {"\xFF\x80", "\\xff\\x80"},              // never UTF-8
      {"\xE5\xB1", "\\xe5\\xb1"},              // cut within a character
      {"\xC0\x9B", "\\xc0\\x9b"},              // overlong escape
      {"\xED\xA0\x80", "\\xed\\xa0\\x80"},     // half of a surrogate pair
      {"\u200c", "\u200c"},                    // a joiner is spelling
  };
  for (const auto& [text, shown] : rows) EXPECT_EQ(printable(text), shown);
}

TEST(AuthctlFormat, ColumnsLineUpByWidthOnScreen) {
  google::protobuf::RepeatedPtrField<Velder::GroupInfo> groups;
  for (const char* cn : {"山田", "Jürgen", "e\xCC\x81", "a\nb", ""}) {  // the third: a combining accent
    Velder::GroupInfo* group = groups.Add();
    group->set_cn(cn);
    group->set_dn("d\n");
  }
  std::ostringstream out;
  print_groups(out, groups);
  EXPECT_EQ(out.str(),
            "CN      DN\n山田    d\\n\nJürgen  d\\n\ne\xCC\x81       d\\n\na\\nb    d\\n\n        d\\n\n");
}

TEST(AuthctlFormat, TimesAreLocalWithTheNumber) {
  setenv("TZ", "XST-2:30", 1);
  tzset();
  EXPECT_EQ(time_text(4294967295U), "2106-02-07 08:58:15 +0230 (4294967295)");
  EXPECT_EQ(time_text(0), "never (0)");
  unsetenv("TZ");
  tzset();
}

TEST(AuthctlFormat, TheSameCodeMeansWhatItsSourceMeans) {
  EXPECT_EQ(result_words(Family::kDirectory, 1), "the directory look-up failed");
  EXPECT_EQ(result_words(Family::kBinding, 1), "no binding for this address");
  EXPECT_NE(result_words(Family::kAgent, -1), result_words(Family::kPassword, -1));
  EXPECT_EQ(result_words(Family::kDirectory, 7777), "");
}

TEST(AuthctlFormat, EveryMessageHasAJsonFormOnOneLine) {
  Velder::IPUserQueryResponse answer;
  answer.set_result(0);
  answer.set_expire_at(5);
  Velder::UserInfo* user = answer.mutable_userinfo();
  user->set_user_ln("CORP\\al");
  user->set_domain_dns("");
  user->set_uid("\xFFl");
  user->set_cn("x\x1b[2J\n\u009b2J");
  user->set_dn("山");
  user->set_upn("u");
  user->add_grouplist()->set_cn("\xC3");
  user->mutable_grouplist(0)->set_dn("d");
  testing::internal::CaptureStderr();
  EXPECT_EQ(to_json(answer),
            R"({"result":0,"expire_at":5,"userInfo":{"user_ln":"CORP\\al","domain_dns":"","uid":"\\xffl",)"
            R"("cn":"x\u001b[2J\n\u009b2J","dn":"山","upn":"u","groupList":[{"cn":"\\xc3","dn":"d"}]}})");
  Velder::AllUserQueryResponse users;
  users.set_result(0);
  users.add_groupuserlist()->set_group_dn("g");
  users.mutable_groupuserlist(0)->add_userlist("\xFE");
  EXPECT_EQ(to_json(users), R"({"result":0,"groupuserlist":[{"group_dn":"g","userlist":["\\xfe"]}]})");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace authctl
