#include "handler/WmiExchange.h"

#include <gtest/gtest.h>

namespace {

TEST(WmiExchangeTest, QuestionNamesTheSourceAndHasNoEnd) {
  EXPECT_EQ(wmi_question(kScopeBoth, "10.0.0.1"), "tolva_wmi:10.0.0.1");
  EXPECT_EQ(wmi_question(kScopeDomainController, "10.0.0.1"), "tolva_wmi_dc:10.0.0.1");
  EXPECT_EQ(wmi_question(kScopeClient, "::1"), "tolva_wmi_client:::1");
}

TEST(WmiExchangeTest, AnswersOfEveryShape) {
  struct Row {
    const char* text;
    WmiAnswer expected;
    const char* account;
  };
  const Row rows[] = {
      {"tolva_wmi_ok:alice:CORP", WmiAnswer::kUser, "CORP\\alice"},
      {"TOLVA_WMI_OK:alice:CORP", WmiAnswer::kUser, "CORP\\alice"},
      {"tolva_wmi_ok:CORP\\alice:CORP", WmiAnswer::kUser, "CORP\\alice"},
      {"tolva_wmi_ok:A\\B\\c:D", WmiAnswer::kUser, "D\\B\\c"},
      {"tolva_wmi_ok:alice:CORP\r\n", WmiAnswer::kUser, "CORP\r\n\\alice"},
      {"tolva_wmi_ok:alice:CO:RP", WmiAnswer::kUser, "CO:RP\\alice"},
      {"tolva_wmi_ok::", WmiAnswer::kUser, "\\"},
      {"tolva_wmi_ok:alice", WmiAnswer::kInvalid, ""},
      {"tolva_wmi_ok:", WmiAnswer::kInvalid, ""},
      {"tolva_wmi_ok", WmiAnswer::kNobody, ""},
      {"tolva_wmi_error:alice:CORP", WmiAnswer::kNobody, ""},
      {" tolva_wmi_ok:alice:CORP", WmiAnswer::kNobody, ""},
      {"", WmiAnswer::kNobody, ""},
  };
  for (const Row& row : rows) {
    std::string account;
    EXPECT_EQ(parse_wmi_answer(row.text, &account), row.expected) << row.text;
    EXPECT_EQ(account, row.account) << row.text;
  }
}

}  // namespace
