#include "libvelder/UnknownNames.h"

#include <gtest/gtest.h>

#include <list>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using velder::UnknownNames;

class UnknownNamesTest : public ::testing::Test {
 protected:
  UnknownNames names_{3, [this] { return now_; }};
  UnknownNames::TimePoint now_{std::chrono::hours(1)};

  void advance(milliseconds time) { now_ += time; }
};

TEST_F(UnknownNamesTest, NameIsForgottenAfterItsTimeHoweverOftenItComesAndTheOldestMakesRoom) {
  names_.remember("a");
  advance(UnknownNames::kLifetime - milliseconds(1));
  EXPECT_TRUE(names_.knows("a"));
  names_.remember("a");
  advance(milliseconds(1));
  EXPECT_FALSE(names_.knows("a"));
  for (const char* name : {"a", "b", "c", "a", "d"}) names_.remember(name);
  EXPECT_FALSE(names_.knows("a"));
  for (const char* name : {"b", "c", "d"}) EXPECT_TRUE(names_.knows(name)) << name;
}

TEST_F(UnknownNamesTest, OnlyAFewTurnsAtOnceAndNobodyWaitsForStuckOnes) {
  std::list<UnknownNames::Turn> turns;
  for (size_t i = 0; i < UnknownNames::kMostQuestions; ++i) EXPECT_TRUE(turns.emplace_back(names_).granted());
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(UnknownNames::Turn(names_).granted()) << "after some patience";
  advance(UnknownNames::kStuck + milliseconds(1));
  const auto begin = steady_clock::now();
  for (int i = 0; i < 50; ++i) EXPECT_FALSE(UnknownNames::Turn(names_).granted());
  EXPECT_LT(steady_clock::now() - begin, UnknownNames::kPatience * 25);

  turns.pop_front();
  EXPECT_TRUE(UnknownNames::Turn(names_).granted());
}

}  // namespace
