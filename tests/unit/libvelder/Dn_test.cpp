#include "libvelder/Dn.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace velder {
namespace {

using namespace std::string_literals;
using Pairs = std::vector<std::pair<std::string, std::string>>;

TEST(Dn, EqualNamesHaveOneKey) {
  const Pairs cases = {
      {" cn = Ann   Bell ,  ou=sales;dc=corp , DC=EXAMPLE ", "cn=ann bell,ou=sales,dc=corp,dc=example"},
      {"2.5.4.3=ann,OID.0.9.2342.19200300.100.1.25=corp", "cn=ann,dc=corp"},
      {R"(cn="Bell, Ann" , dc=corp)", R"(cn=bell\2c ann,dc=corp)"},
      {R"(cn=\ ann\ ,dc=corp)", "cn=ann,dc=corp"},
      {R"(cn=\#4)", R"(cn=\234)"},
      {R"(cn=a\0Adel:1)", R"(cn=a\0adel:1)"},
      {R"(cn=a\00b)", R"(cn=a\00b)"},
      {R"(cn=\20)", R"(cn=\20)"},
      {"cn= ,dc=corp", "cn=,dc=corp"},
      {"uid = B+CN = A,dc=corp", "cn=a+uid=b,dc=corp"},
      {"1.3.6.1.4.1.1466.0=#04024869", "1.3.6.1.4.1.1466.0=#04024869"},
      {"cn=mu\xcc\x88ller", "cn=m\xc3\xbcller"},
      {R"(cn=M\C3\9Cller)", "cn=m\xc3\xbcller"},
      {"cn=a\xc2\xa0 b", "cn=a b"},
      {"cn=\xef\xbc\x83\xef\xbc\x8c,dc=b", R"(cn=\23\2c,dc=b)"},  // full-width "#,"
      {"cn=\xff\xfeX", "cn=\xff\xfex"},
  };
  for (const auto& [dn, key] : cases) {
    EXPECT_EQ(normalize_dn(dn), key) << dn;
    EXPECT_EQ(normalize_dn(key), key) << "a key is its own key";
  }
}

TEST(Dn, DifferentNamesHaveDifferentKeys) {
  const Pairs cases = {
      {R"(cn=a\,dc=b)", "cn=a,dc=b"},       {R"(cn=a\+uid=b)", "cn=a+uid=b"},
      {R"(cn=\#04024869)", "cn=#04024869"}, {"cn=resume", "cn=r\xc3\xa9sum\xc3\xa9"},
      {R"(cn=a\0Ab)", R"(cn=a\5c0ab)"},     {"cn=a+uid=b", "cn=a,uid=b"},
  };
  for (const auto& [one, other] : cases) EXPECT_NE(normalize_dn(one), normalize_dn(other)) << one;
}

TEST(Dn, WhatIsNoDnHasNoKey) {
  for (const std::string& text :
       {"ann"s,       "=ann"s,    "cn"s,        "cn=a,"s,   ",cn=a"s,   "cn=a,,dc=b"s, "cn=a+"s,
        "c n=a"s,     "cn=a\"b"s, "cn=<a>"s,    "cn=a\\"s,  "cn=a\\4"s, "cn=a\\zz"s,   "cn=\"a"s,
        "cn=\"a\"b"s, "cn=#4"s,   "cn=#04 zz"s, "cn=a\0b"s, "1a=b"s,    "-x=b"s}) {
    EXPECT_EQ(normalize_dn(text), "") << text;
    EXPECT_FALSE(parse_dn(text).has_value()) << text;
  }
  EXPECT_TRUE(parse_dn("").has_value());
}

TEST(Dn, DnsDomainIsMadeOfTheDomainComponents) {
  const Pairs cases = {
      {" cn=a , dc = Corp , Dc=Example ", "Corp.Example"},
      {R"(cn=x\,dc=no,dc=c\6frp,dc="example")", "corp.example"},
      {"0.9.2342.19200300.100.1.25=corp+ou=x,domainComponent=example", "corp.example"},
      {"garbage \",,dc=,dc=#0401,dc=corp", "corp"},
      {"dc=\\", ""},
      {"adc=x,dcx=y", ""},
  };
  for (const auto& [dn, domain] : cases) EXPECT_EQ(dns_domain_of(dn), domain) << dn;
}

TEST(Dn, EscapedValuesComeBackUnchangedAndHoldNoSyntax) {
  for (const std::string& value :
       {" a "s, "#1"s, "a,b+c\"d\\e<f>g;h=i"s, "a\0b\n"s, " "s, "  "s, ""s, "\xff"s, "a \\"s}) {
    const Result<std::vector<Rdn>> dn = parse_dn("cn=" + escape_dn_value(value) + ",dc=corp");
    ASSERT_TRUE(dn.has_value()) << value;
    ASSERT_EQ(dn->size(), 2U) << value;
    EXPECT_EQ((*dn)[0][0].value, value);
  }
  const Pairs filters = {{"*)(uid=*\\", R"(\2a\29\28uid=\2a\5c)"},
                         {"a\0b"s, R"(a\00b)"},
                         {"m\xc3\xbcller", "m\xc3\xbcller"},
                         {"\xff\xc3\xbc", R"(\ff\c3\bc)"}};
  for (const auto& [value, escaped] : filters) EXPECT_EQ(escape_filter_value(value), escaped) << value;
}

}  // namespace
}  // namespace velder
