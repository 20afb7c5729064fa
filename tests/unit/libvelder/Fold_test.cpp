#include "libvelder/Fold.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace velder {
namespace {

using namespace std::string_literals;
using Pairs = std::vector<std::pair<std::string, std::string>>;

TEST(Fold, TextsThatDifferOnlyInFormHaveOneKey) {
  const Pairs cases = {
      {"ANN Bell_9", "ann bell_9"},
      {"STRASSE",
       "stra\xc3\x9f"
       "e"},
      {"\xc3\x84RGER", "a\xcc\x88rger"},                         // composed, decomposed
      {"\xef\xac\x81sh", "FISH"},                                // ligature
      {"\xef\xbc\xa1\xef\xbc\xa2", "ab"},                        // full width
      {"\xce\xa3\xce\x91\xce\xa3", "\xcf\x83\xce\xb1\xcf\x82"},  // final sigma
      {"\xd0\x96\xd0\xa3\xd0\x9a", "\xd0\xb6\xd1\x83\xd0\xba"},  // Cyrillic
      {"a\xc2\xad"
       "b",
       "AB"},  // soft hyphen
      {"A\0\xc3\x84"s, "a\0\xc3\xa4"s},
      {"A\0B"s, "a\0b"s},
      {"\xff"
       "A\xc3\x84",
       "\xff"
       "a\xc3\x84"},  // no UTF-8: ASCII letters only
      {"\xc4\xb0", "i\xcc\x87"},
      {"\xe1\xba\x9e", "SS"},
  };
  for (const auto& [one, other] : cases) {
    EXPECT_EQ(fold_text(one), fold_text(other)) << one;
    EXPECT_EQ(fold_text(fold_text(one)), fold_text(one)) << one;
  }
}

TEST(Fold, DifferentTextsStayDifferent) {
  const Pairs cases = {{"resume", "r\xc3\xa9sum\xc3\xa9"},
                       {"i", "\xc4\xb1"},  // Turkish dotless i
                       {"a\0b"s, "a\0c"s},
                       {"a b", "a  b"},
                       {"\xff\xc3\x84", "\xff\xc3\xa4"}};
  for (const auto& [one, other] : cases) EXPECT_NE(fold_text(one), fold_text(other)) << one;
}

// Four million of them: when their order is found by exchanging neighbours, this takes days.
TEST(Fold, ManyMarksAreOrderedInTime) {
  std::string mixed = "u", ordered = "u";
  for (int i = 0; i < (1 << 20); ++i) mixed += "\xcc\x81\xcc\x95";  // above, then above to the right
  for (int i = 0; i < (1 << 20); ++i) mixed += "\xcc\xa3\xcc\xb4";  // below, then through the middle
  for (const char* mark : {"\xcc\xb4", "\xcc\xa3", "\xcc\x81", "\xcc\x95"}) {
    for (int i = 0; i < (1 << 20); ++i) ordered += mark;
  }
  EXPECT_TRUE(fold_text(mixed) == fold_text(ordered));
}

TEST(Fold, TellsUtf8FromOtherBytes) {
  for (const std::string& text : {""s, "ann"s, "\xc3\xa4"s, "\xf0\x9f\x94\x91"s, "a\0b"s}) {
    EXPECT_TRUE(is_utf8(text)) << text;
  }
  for (const std::string& text :
       {"\x80"s, "a\xc3"s, "\xc0\xaf"s, "\xed\xa0\x80"s, "\xf4\x90\x80\x80"s, "\xe9t\xe9"s}) {
    EXPECT_FALSE(is_utf8(text)) << text;
  }
}

}  // namespace
}  // namespace velder
