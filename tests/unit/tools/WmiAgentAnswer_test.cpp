#include <gtest/gtest.h>

#include "tools/wmi_agent_answer.h"

TEST(WmiAgentAnswer, QuestionsAreAnsweredByAddress) {
  const auto people = wmi_agent::parse_people(
      "# who sits where\n10.0.0.1,alice,CORP\n\n  2001:DB8::0:7 , bob smith ,LAB # the lab\r\n"
      "10.0.0.2,old,CORP\n10.0.0.2,new,CORP");
  ASSERT_TRUE(people);
  const std::pair<const char*, const char*> rows[] = {
      {"tolva_wmi:10.0.0.1", "tolva_wmi_ok:alice:CORP"},
      {"tolva_wmi_dc:::ffff:10.0.0.1", "tolva_wmi_ok:alice:CORP"},
      {"tolva_wmi_client:2001:db8::7", "tolva_wmi_ok:bob smith:LAB"},
      {"tolva_wmi:10.0.0.2", "tolva_wmi_ok:new:CORP"},
      {"tolva_wmi:10.0.0.3", "tolva_wmi_fail:not found"},
      {"tolva_wmi:", "tolva_wmi_fail:unknown request"},
      {"", "tolva_wmi_fail:unknown request"},
  };
  for (const auto& [question, answer] : rows)
    EXPECT_EQ(wmi_agent::make_answer(*people, question, {}), answer) << question;
  for (const char* line : {"10.0.0.1", "10.0.0.1,alice", "10.0.0.1,,CORP", ",alice,CORP"}) {
    const auto broken = wmi_agent::parse_people(std::string("# first\n") + line);
    ASSERT_FALSE(broken) << line;
    EXPECT_EQ(broken.error(), "line 2: expected address,name,domain") << line;
  }
}
