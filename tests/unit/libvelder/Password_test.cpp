#include "libvelder/Password.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace velder {
namespace {

using namespace std::string_literals;
using enum PasswordVerdict;

const std::string kPassword = "Sesam-\xc3\xb6"s + "ffne dich";

// Made with other programs than this one.
const std::vector<std::string> kStored = {
    "{SHA}BySwUQhWfH82M/DrmIPDajsEni0=",
    "{SSHA}8CH7zTMqFzi5Y3Dao/oxshMiL2wBAnNhbHRzYWx0",
    "{SHA256}ApdaURJWQ4NMwV4d6ChUWX19Fipj5Dhn/JUY0G75sEo=",
    "{SSHA256}hOz0IVV0UzwTnjEy5Sk0whjE88uwq/iKhTiIapIdmAUBAnNhbHRzYWx0",
    "{SHA512}DTJNuqX25n3EP0ZPfkVJLNWbptCfXjd81Ym3DmNjvNMTXZfB+u91t5sGVfRFIjtM60tMo39bbA+O4t7ufA+coA==",
    ("{SSHA512}U/dprr8sTRkr9xVvi2Or8c0NJ9+trHuOadMLrT/bV+Tlr7Ln/"
     "ayQQ49ReDSfW+BztC1bnFn1oCi34hI3Sp0SwwECc2FsdHNhbHQ="),
    "{CRYPT}$y$j9T$abcdefgh$rWm6CS6TuHDlERZdGbQM3wFJ/QYxzwSCcTkKzAKgFf6",
    "{CRYPT}$7$BU..../....abcdefgh$bXqeMivfyVHX/JwVZYEOx19aHsuR5ys5sfsGCkXi83/",
    ("{crypt}$6$rounds=1000$saltsalt$9xCMX0hwDjyqAmto5ZnrKQFB2hMUeANUvdgAwsphBxryJrpVUR5Ex7noq."
     "UOjXtvGDoC9ky9W.p2vA3WA.Ns01"),
    "{CRYPT}$2b$04$abcdefghijklmnopqrstuu1NniybWia/qu3HPNhj7yS3/89gG18ly",
    "{CLEARTEXT}" + kPassword,
    kPassword,
};

// In threads, which share what the library that hashes keeps.
TEST(Password, EverySchemeTellsRightFromWrong) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (const std::string& stored : kStored) {
        EXPECT_EQ(check_password(stored, kPassword), kMatch) << stored;
        for (const std::string& wrong : {"Sesam"s, kPassword + "x", kPassword + "\0"s, ""s})
          EXPECT_EQ(check_password(stored, wrong), kMismatch) << stored << " " << wrong;
        std::string damaged = stored;  // in the hash or the salt: either counts
        damaged[damaged.size() - 8] = damaged[damaged.size() - 8] == 'A' ? 'B' : 'A';
        EXPECT_EQ(check_password(damaged, kPassword), kMismatch) << damaged;
      }
    });
  }
}

TEST(Password, AStoredValueThatCannotBeCheckedNeverMatches) {
  for (const std::string& stored :
       {"{MD5}X03MO1qnZdYdgyfeuILPmQ=="s, "{}"s, "{SSHA}"s, "{SSHA}!!!!"s,
        "{SSHA}BySwUQhWfH82M/DrmIPDajsEni0="s /* no salt */, "{SHA}BySw"s,
        "{SHA}BySwUQhWfH82M/DrmIPDajsEni1="s /* stray bits */,
        "{SHA}8CH7zTMqFzi5Y3Dao/oxshMiL2wBAnNhbHRzYWx0"s, "{CRYPT}"s, "{CRYPT}*0"s, "{CRYPT}!$6$saltsalt$x"s,
        "{CRYPT}$6$salt\0salt"s,
        // Minutes of work, or all memory.
        "{CRYPT}$6$rounds=999999999$saltsalt"s, "{CRYPT}$5$rounds=99999999999$saltsalt"s,
        "{CRYPT}$2b$31$abcdefghijklmnopqrstuu"s, "{CRYPT}$sha1$4000000000$saltsalt"s,
        "{CRYPT}$y$jzT$saltsalt"s, "{CRYPT}$y$j9T0$saltsalt"s, "{CRYPT}$7$zU..../....saltsalt"s}) {
    EXPECT_EQ(check_password(stored, stored), kCannotTell) << stored;
    EXPECT_EQ(check_password(stored, ""), kMismatch) << stored;
  }
  EXPECT_EQ(check_password("{CRYPT}$6$rounds=1000$saltsalt", kPassword), kMismatch) << "only a setting";
  EXPECT_EQ(check_password("", ""), kMismatch);
  using Values = std::vector<std::string>;
  EXPECT_EQ(check_password(Values{"{SASL}x", "other", kPassword, "{MD5}x"}, kPassword), kMatch);
  EXPECT_EQ(check_password(Values{"{SASL}x", "other"}, kPassword), kMismatch);
  EXPECT_EQ(check_password(Values{"{SASL}x"}, kPassword), kCannotTell);
}

TEST(Password, LongAndBinaryPasswords) {
  const std::string longest(4096, 'p');
  EXPECT_EQ(check_password(longest, longest), kMatch);
  EXPECT_EQ(check_password(longest + "p", longest + "p"), kMismatch);
  EXPECT_EQ(check_password("a\0b"s, "a\0b"s), kMatch);
  EXPECT_EQ(check_password("a\0b"s, "a\0c"s), kMismatch);
  EXPECT_EQ(check_password("{CRYPT}abUGrp7U08AzI", std::string(600, 'p')), kMismatch);
  EXPECT_EQ(check_password("{text", "{text"), kMatch);  // no closing brace, no scheme
}

}  // namespace
}  // namespace velder
