#include "libvelder/UnknownNames.h"

#include <gtest/gtest.h>

#include <atomic>
#include <list>
#include <thread>
#include <vector>

namespace {

using std::chrono::milliseconds;
using velder::UnknownNames;

class UnknownNamesTest : public ::testing::Test {
 protected:
  UnknownNames names_{3, [this] { return now_.load(); }};
  std::atomic<UnknownNames::TimePoint> now_{UnknownNames::TimePoint(std::chrono::hours(1))};

  void advance(milliseconds time) { now_ = now_.load() + time; }
};

TEST_F(UnknownNamesTest, NameIsForgottenAfterItsTimeHoweverOftenItComes) {
  names_.remember("a");
  advance(UnknownNames::kLifetime - milliseconds(1));
  EXPECT_TRUE(names_.knows("a"));
  names_.remember("a");
  advance(milliseconds(1));
  EXPECT_FALSE(names_.knows("a"));
  names_.remember("a");
  EXPECT_TRUE(names_.knows("a"));
  EXPECT_FALSE(names_.knows("A"));
}

TEST_F(UnknownNamesTest, OldestNameMakesRoom) {
  for (const char* name : {"a", "b", "c", "a", "d"}) names_.remember(name);
  EXPECT_FALSE(names_.knows("a"));
  for (const char* name : {"b", "c", "d"}) EXPECT_TRUE(names_.knows(name)) << name;
}

TEST_F(UnknownNamesTest, OnlyAFewTurnsAtOnce) {
  std::list<UnknownNames::Turn> turns;
  for (size_t i = 0; i < UnknownNames::kMostQuestions; ++i) EXPECT_TRUE(turns.emplace_back(names_).granted());
  EXPECT_FALSE(UnknownNames::Turn(names_).granted()) << "after some patience";
  EXPECT_FALSE(UnknownNames::Turn(names_).granted()) << "a turn that was not granted takes none with it";

  // Stuck: nobody waits for them.
  advance(UnknownNames::kStuck + milliseconds(1));
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 50; ++i) EXPECT_FALSE(UnknownNames::Turn(names_).granted());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, UnknownNames::kPatience * 25);
  turns.pop_front();
  EXPECT_TRUE(UnknownNames::Turn(names_).granted());
}

TEST_F(UnknownNamesTest, TurnThatEndsGoesToAWaitingThread) {
  std::list<UnknownNames::Turn> turns;
  for (size_t i = 0; i < UnknownNames::kMostQuestions; ++i) turns.emplace_back(names_);
  std::atomic<int> granted{0};
  std::vector<std::thread> waiting;
  for (int i = 0; i < 4; ++i) {
    waiting.emplace_back([&] {
      for (int tries = 0; tries < 100; ++tries) {
        if (UnknownNames::Turn(names_).granted()) {
          ++granted;
          return;
        }
      }
    });
  }
  turns.pop_back();
  for (std::thread& thread : waiting) thread.join();
  EXPECT_EQ(granted, 4);
}

}  // namespace
