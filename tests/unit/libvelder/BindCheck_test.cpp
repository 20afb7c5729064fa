#include "libvelder/BindCheck.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using velder::BindCheck;
using velder::BindResult;
using velder::BindVerdict;

constexpr uint32_t kSeconds = 60;

// A directory with one good password, which counts the binds it sees.
class BindCheckTest : public testing::Test {
 protected:
  BindVerdict check(const std::string& dn, const std::string& password,
                    std::string_view domain = "example.com") {
    return check_.check(bind_, domain, dn, password).verdict;
  }
  void advance_clock(std::chrono::seconds time) { now_ += time; }

  std::chrono::steady_clock::time_point now_{};
  std::atomic<int> binds_ = 0;
  std::string good_ = "good";
  BindResult refusal_{BindVerdict::kWrong, 49, "no"};
  const BindCheck::Bind bind_ = [this](const std::string&, std::string_view password) {
    ++binds_;
    return password == good_ ? BindResult{BindVerdict::kProven, 0, {}} : refusal_;
  };
  BindCheck check_{kSeconds, 3, [this] { return now_; }};
};

TEST_F(BindCheckTest, TheSameWrongPasswordIsOneBind) {
  EXPECT_EQ(check("cn=Alice,dc=x", "bad"), BindVerdict::kWrong);
  EXPECT_EQ(check("cn=Alice,dc=x", "bad"), BindVerdict::kWrong);
  EXPECT_EQ(check("CN=alice , DC=x", "bad"), BindVerdict::kWrong) << "the same user, written differently";
  EXPECT_EQ(binds_, 1);
  EXPECT_EQ(check("cn=Alice,dc=x", "other"), BindVerdict::kWrong);
  EXPECT_EQ(check("cn=bob,dc=x", "bad"), BindVerdict::kWrong);
  EXPECT_EQ(check("cn=Alice,dc=x", "other", "example.org"), BindVerdict::kWrong) << "another domain's user";
  EXPECT_EQ(binds_, 4);
}

TEST_F(BindCheckTest, DevicesWithDifferentOldPasswordsDoNotLockTheAccountInTurns) {
  for (int turn = 0; turn < 5; ++turn)
    for (const char* old : {"old", "older", "oldest"}) EXPECT_EQ(check("cn=a", old), BindVerdict::kWrong);
  EXPECT_EQ(binds_, 3);
  advance_clock(std::chrono::seconds(kSeconds) / 2);
  for (const char* guess : {"1", "2", "3"}) check("cn=a", guess);
  EXPECT_EQ(binds_, 6);
  check("cn=a", "oldest");
  EXPECT_EQ(binds_, 6) << "the last four are known";
  check("cn=a", "old");
  EXPECT_EQ(binds_, 7);
  advance_clock(std::chrono::seconds(kSeconds) / 2);
  check("cn=a", "3");
  EXPECT_EQ(binds_, 7) << "each has its own time";
}

TEST_F(BindCheckTest, ACorrectedPasswordWorksAtOnceAndClearsTheMemory) {
  check("cn=a", "bad");
  EXPECT_EQ(check("cn=a", "good"), BindVerdict::kProven);
  good_ = "bad";  // changed at the server
  EXPECT_EQ(check("cn=a", "bad"), BindVerdict::kProven);
  EXPECT_EQ(binds_, 3);
}

TEST_F(BindCheckTest, TheMemoryEndsAfterItsTime) {
  check("cn=a", "bad");
  advance_clock(std::chrono::seconds(kSeconds) - 1s);
  check("cn=a", "bad");
  EXPECT_EQ(binds_, 1);
  advance_clock(1s);
  check("cn=a", "bad");
  EXPECT_EQ(binds_, 2);
}

TEST_F(BindCheckTest, OnlyWrongIsRemembered) {
  EXPECT_EQ(check("cn=a", ""), BindVerdict::kWrong);
  EXPECT_EQ(binds_, 0) << "an empty one is never sent";
  for (const BindVerdict verdict : {BindVerdict::kAccount, BindVerdict::kCannotTell}) {
    binds_ = 0;
    refusal_.verdict = verdict;
    EXPECT_EQ(check("cn=a", "bad"), verdict);
    EXPECT_EQ(check("cn=a", "bad"), verdict);
    EXPECT_EQ(binds_, 2);
  }
}

TEST_F(BindCheckTest, TheUserRefusedLongestAgoIsForgottenFirst) {
  for (const char* dn : {"cn=a", "cn=b", "cn=c"}) check(dn, "bad");
  check("cn=a", "worse");  // now b is the oldest
  check("cn=d", "bad");
  binds_ = 0;
  check("cn=a", "worse");
  check("cn=c", "bad");
  check("cn=d", "bad");
  EXPECT_EQ(binds_, 0);
  check("cn=b", "bad");
  EXPECT_EQ(binds_, 1);
}

TEST_F(BindCheckTest, ThreadsWithTheSamePasswordShareOneBind) {
  const auto burst = [&](const std::string& password) {
    std::atomic<bool> go = false;
    const BindCheck::Bind slow = [&](const std::string& dn, std::string_view secret) {
      while (!go) std::this_thread::sleep_for(1ms);
      return bind_(dn, secret);
    };
    std::atomic<int> proven = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 12; ++i)
      threads.emplace_back([&] {
        if (check_.check(slow, "x", "cn=a", password).verdict == BindVerdict::kProven) ++proven;
      });
    std::this_thread::sleep_for(50ms);
    go = true;
    for (std::thread& one : threads) one.join();
    return proven.load();
  };
  EXPECT_EQ(burst("bad"), 0);
  EXPECT_EQ(binds_, 1);
  EXPECT_EQ(burst("good"), 12);
}

TEST_F(BindCheckTest, ManyUsersAtOnceGetTheirOwnVerdicts) {
  BindCheck check(kSeconds, 50);
  std::atomic<int> mistakes = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        const bool good = (i + t) % 3 == 0;
        const std::string user = "cn=u" + std::to_string(i % 97);
        const auto verdict = check.check(bind_, "x", user, good ? "good" : "bad").verdict;
        if (verdict != (good ? BindVerdict::kProven : BindVerdict::kWrong)) ++mistakes;
      }
    });
  for (std::thread& one : threads) one.join();
  EXPECT_EQ(mistakes, 0);
}

TEST_F(BindCheckTest, ABindThatThrowsLetsTheOthersGo) {
  const BindCheck::Bind broken = [](const std::string&, std::string_view) -> BindResult {
    throw std::bad_alloc();
  };
  EXPECT_THROW(check_.check(broken, "x", "cn=a", "p"), std::bad_alloc);
  EXPECT_EQ(check("cn=a", "good", "x"), BindVerdict::kProven);
}

}  // namespace
