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
  const Pairs same = {
      {"STRASSE_9", "stra\xc3\x9f"s + "e_9"},
      {"\xc3\x84RGER", "a\xcc\x88rger"},                                         // composed, decomposed
      {"\xef\xbc\xa1\xef\xac\x81", "aFI"},                                       // full width, ligature
      {"\xce\xa3\xce\x91\xce\xa3\xd0\x96", "\xcf\x83\xce\xb1\xcf\x82\xd0\xb6"},  // final sigma, Cyrillic
      {"a\xc2\xad"s + "b", "AB"},                                                // soft hyphen
      {"A\0\xc3\x84"s, "a\0\xc3\xa4"s},
      {"\xff"s + "A\xc3\x84", "\xff"s + "a\xc3\x84"},  // no UTF-8: ASCII letters only
      {"\xc4\xb0", "i\xcc\x87"},
  };
  for (const auto& [one, other] : same) {
    EXPECT_EQ(fold_text(one), fold_text(other)) << one;
    EXPECT_EQ(fold_text(fold_text(one)), fold_text(one)) << one;
  }
  const Pairs different = {{"resume", "r\xc3\xa9sum\xc3\xa9"},
                           {"i", "\xc4\xb1"},  // Turkish dotless i
                           {"a\0b"s, "a\0c"s},
                           {"\xff\xc3\x84", "\xff\xc3\xa4"}};
  for (const auto& [one, other] : different) EXPECT_NE(fold_text(one), fold_text(other)) << one;
}

// A million of them: when their order is found by exchanging neighbours, this takes minutes.
TEST(Fold, ManyMarksAreOrderedInTime) {
  constexpr int kMany = 1 << 18;
  std::string mixed = "u", ordered = "u";
  for (int i = 0; i < kMany; ++i) mixed += "\xcc\x81\xcc\x95";  // above, then above to the right
  for (int i = 0; i < kMany; ++i) mixed += "\xcc\xa3\xcc\xb4";  // below, then through the middle
  for (const char* mark : {"\xcc\xb4", "\xcc\xa3", "\xcc\x81", "\xcc\x95"})
    for (int i = 0; i < kMany; ++i) ordered += mark;
  EXPECT_TRUE(fold_text(mixed) == fold_text(ordered));
}

}  // namespace
}  // namespace velder
