#include "libvelder/BindCheck.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace std::chrono_literals;
using velder::BindCheck;
using velder::BindResult;
using velder::BindVerdict;

constexpr auto kMemory = 60s;

// A directory with one good password, which counts the binds it sees.
class BindCheckTest : public testing::Test {
 protected:
  BindVerdict check(const std::string& dn, const std::string& password,
                    std::string_view domain = "example.com") {
    return check_.check(bind_, domain, dn, password).verdict;
  }

  std::chrono::steady_clock::time_point now_{};
  int binds_ = 0;
  std::string good_ = "good";
  BindResult refusal_{BindVerdict::kWrong, 49, "no"};
  const BindCheck::Bind bind_ = [this](const std::string&, std::string_view password) {
    ++binds_;
    return password == good_ ? BindResult{BindVerdict::kProven, 0, {}} : refusal_;
  };
  BindCheck check_{kMemory.count(), 3, [this] { return now_; }};
};

TEST_F(BindCheckTest, DevicesWithDifferentOldPasswordsDoNotLockTheAccountInTurns) {
  for (int turn = 0; turn < 5; ++turn)
    for (const char* old : {"old", "older", "oldest"}) EXPECT_EQ(check("cn=a", old), BindVerdict::kWrong);
  EXPECT_EQ(binds_, 3);
  EXPECT_EQ(check("CN = A", "old"), BindVerdict::kWrong);
  EXPECT_EQ(binds_, 3) << "the same user, written differently";
  now_ += kMemory / 2;
  for (const char* guess : {"1", "2", "3"}) check("cn=a", guess);
  check("cn=a", "oldest");
  EXPECT_EQ(binds_, 6) << "the last four are known";
  check("cn=a", "old");
  EXPECT_EQ(binds_, 7);
  now_ += kMemory / 2 - 1s;
  check("cn=a", "3");
  EXPECT_EQ(binds_, 7);
  now_ += 1s + kMemory / 2;
  check("cn=a", "3");
  EXPECT_EQ(binds_, 8) << "each has its own time";
  check("cn=a", "3", "example.org");
  EXPECT_EQ(binds_, 9) << "another domain's user";
  check("cn=a", "good");
  good_ = "3";  // changed at the server
  EXPECT_EQ(check("cn=a", "3"), BindVerdict::kProven);
}

TEST_F(BindCheckTest, OnlyWrongIsRemembered) {
  EXPECT_EQ(check("cn=a", ""), BindVerdict::kWrong);
  EXPECT_EQ(binds_, 0) << "an empty one is never sent";
  for (const BindVerdict verdict : {BindVerdict::kAccount, BindVerdict::kCannotTell}) {
    binds_ = 0;
    refusal_.verdict = verdict;
    for (int i = 0; i < 2; ++i) EXPECT_EQ(check("cn=a", "bad"), verdict);
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

}  // namespace
