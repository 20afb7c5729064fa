#include <gtest/gtest.h>

#include "tools/wmi_agent_answer.h"

namespace wmi_agent {
namespace {

People sample() {
  return parse_people(
             "# who sits where\n"
             "10.0.0.1,alice,CORP\n"
             "\n"
             "  2001:DB8::0:7 , bob smith ,LAB # the lab\r\n"
             "10.0.0.2,old,CORP\n"
             "10.0.0.2,new,CORP")
      .value();
}

TEST(WmiAgentAnswer, QuestionsAreAnsweredByAddress) {
  const std::pair<const char*, const char*> rows[] = {
      {"tolva_wmi:10.0.0.1", "tolva_wmi_ok:alice:CORP"},
      {"tolva_wmi_dc:10.0.0.1", "tolva_wmi_ok:alice:CORP"},
      {"tolva_wmi_client:2001:db8::7", "tolva_wmi_ok:bob smith:LAB"},
      {"tolva_wmi:::ffff:10.0.0.1", "tolva_wmi_ok:alice:CORP"},
      {"tolva_wmi:10.0.0.2", "tolva_wmi_ok:new:CORP"},
      {"tolva_wmi:10.0.0.3", "tolva_wmi_fail:not found"},
      {"tolva_wmi:", "tolva_wmi_fail:unknown request"},
      {"", "tolva_wmi_fail:unknown request"},
  };
  for (const auto& [question, answer] : rows)
    EXPECT_EQ(make_answer(sample(), question, {}), answer) << question;
}

TEST(WmiAgentAnswer, ShapesSpoilTheAnswer) {
  const std::pair<Shape, const char*> rows[] = {
      {{.no_colon = true}, "tolva_wmi_ok:alice"},
      {{.backslash = true}, "tolva_wmi_ok:CORP\\alice:CORP"},
      {{.newline = true}, "tolva_wmi_ok:alice:CORP\r\n"},
      {{.upper_prefix = true}, "TOLVA_WMI_OK:alice:CORP"},
      {{.length = 26}, "tolva_wmi_ok:alice:CORPxxx"},
      {{.length = 3}, "tol"},
  };
  for (const auto& [shape, answer] : rows)
    EXPECT_EQ(make_answer(sample(), "tolva_wmi:10.0.0.1", shape), answer);
}

TEST(WmiAgentAnswer, ABrokenLineIsNamed) {
  for (const char* line : {"10.0.0.1", "10.0.0.1,alice", "10.0.0.1,,CORP", ",alice,CORP"}) {
    const auto people = parse_people(std::string("# first\n") + line);
    ASSERT_FALSE(people) << line;
    EXPECT_EQ(people.error(), "line 2: expected address,name,domain") << line;
  }
}

}  // namespace
}  // namespace wmi_agent
