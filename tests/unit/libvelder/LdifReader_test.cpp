#include "libvelder/LdifReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace velder {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using namespace std::string_literals;

// Records as "line|dn|name=value|..." each, then the error text if there was one.
std::vector<std::string> read_all(std::string_view content) {
  LdifReader reader("directory.ldif", content);
  LdifRecord record;
  std::vector<std::string> records;
  for (;;) {
    const Result<bool> more = reader.next(record);
    if (!more) {
      records.push_back("error " + more.error().text);
      const Result<bool> again = reader.next(record);
      EXPECT_TRUE(!again && again.error().text == more.error().text) << "an error stays";
      return records;
    }
    if (!*more) return records;
    std::string text = std::to_string(record.line) + "|" + record.dn;
    for (const LdifAttribute& one : record.attributes) text += "|" + one.name + "=" + one.value;
    records.push_back(text);
  }
}

TEST(LdifReader, ReadsWhatDirectoriesExport) {
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"dn: a=1\ncn: long value\nsn: y\nsn: z\n\n\n\ndn: b=2\n\ndn: c=3\nuid: u\nsn: v",
       {"1|a=1|cn=long value|sn=y|sn=z", "8|b=2", "10|c=3|uid=u|sn=v"}},
      {"version: 1\r\n\r\ndn: a=1\r\ncn: x\r\n y\r\n\r\ndn: a=2\r", {"3|a=1|cn=xy", "7|a=2"}},
      {"\xef\xbb\xbfversion: 1\n\ndn: a=1\n\nversion: 1\n\ndn: a=2\n", {"3|a=1", "7|a=2"}},
      {"DN: a=1\nCN;lang-de: x\nuserCertificate;BINARY:: /w==\n", {"1|a=1|cn=x|usercertificate=\xff"}},
      {"dn: a=\n 1\nchangetype: add\ncn: x\n  y\n# b\n c: d\njpegPhoto:: AA\n EC\n",
       {"1|a=1|cn=x y|jpegphoto=\0\1\2"s}},
      {"dn:: YT3DpA==\ncn:\nsn: \nuid::\nl:x \no::  eA==\n", {"1|a=\xc3\xa4|cn=|sn=|uid=|l=x |o=x"}},
      {"dn: a=1\ncn: b: c::d\nsn: <e\nl: \xff\xfe\n", {"1|a=1|cn=b: c::d|sn=<e|l=\xff\xfe"}},
      // ldapsearch, paged, with a reference.
      {"# extended LDIF\n#\n# LDAPv3\n#\n\n# x\ndn: a=1\ncn: x\n\n# search reference\nref: ldap://b/DC=b\n\n"
       "# search result\nsearch: 2\nresult: 0 Success\ncontrol: 1.2.840.113556.1.4.319 false MAUCAQAEAA==\n"
       "pagedresults: cookie=AAA=\n\ndn: a=2\n\nsearch: 3\nresult: 0 Success\n\n# numEntries: 2\n",
       {"7|a=1|cn=x", "19|a=2"}},
  };
  for (const auto& [content, records] : cases) EXPECT_EQ(read_all(content), records) << content;
}

TEST(LdifReader, RefusesWithFileLineAndReason) {
  const struct {
    std::string content;
    int line;
    const char* reason;
  } cases[] = {
      {"dn: a=1\n\ncn: x\n", 3, "begins with \"cn\", expected dn"},
      {"dn: a=1\ncn: x\ndn: a=2\n", 3, "second dn in the record of line 1"},
      {"dn: a=1\nno colon here\n", 2, "no colon"},
      {"dn: a=1\nc n: x\n", 2, "no attribute name before the colon"},
      {"dn: a=1\nphoto:< file:///etc/shadow\n", 2, "URL"},
      {"dn: a=1\ncn: x\nsn:: eA=\n =x\n", 3, "base64"},
      {"dn: a=1\ncn: x\0y\n"s, 2, "NUL"},
      {"dn: a=1\rcn: x\r", 1, "carriage return"},
      {"dn: a=\xff\n", 1, "\"a=\\xff\" is not valid UTF-8"},
      {"dn: a=1\n\n cn: x\n", 3, "continuation"},
      {"version: 2\n", 1, "version \"2\", expected 1"},
      {"dn: a=1\nchangetype: modify\nadd: cn\ncn: x\n-\n", 2, "changetype \"modify\""},
      {"dn: a=1\ncn: x\nchangetype: add\n", 3, "right after the dn"},
      {"dn: a=1\ncontrol: 1.2.3 true\nchangetype: add\n", 2, "control"},
      {"dn: a=1\nmember;x;Range=1500-*: x\n", 2, "a part of the values"},
      {"dn: a=1\n\nsearch: 2\nresult: 4 Size limit exceeded\n", 4, "\"4 Size limit exceeded\""},
      {"search: 2\ncn: x\n", 2, "begins with \"search\""},
      {"search: 2\nresult: 0 Success\ncn: x\n", 3, "\"cn\" in the result lines"},
      {"ref: ldap://x\ncn: y\n", 2, "begins with \"ref\""},
      {"\xff\xfe\x64\0n\0"s, 1, "UTF-16"},
      {"dn: a=1\n" + std::string(1'000'000, '\x1b') + "\n", 2, ""},
  };
  for (const auto& row : cases) {
    const std::vector<std::string> records = read_all(row.content);
    ASSERT_FALSE(records.empty()) << row.reason;
    EXPECT_THAT(records.back(), StartsWith("error directory.ldif:" + std::to_string(row.line) + ": "));
    EXPECT_THAT(records.back(), HasSubstr(row.reason));
    EXPECT_LT(records.back().size(), 200U) << row.reason;
    for (const char c : records.back()) EXPECT_TRUE(c >= ' ' && c <= '~') << row.reason;
  }
}

TEST(LdifReader, TakesVeryLongAndVeryFoldedLines) {
  constexpr size_t kFolds = 285'000, kLength = kFolds * 70;
  std::string folded = "dn: a=1\ncn: ";
  for (size_t i = 0; i < kFolds; ++i) folded += "\n " + std::string(70, 'x');
  for (const std::string& content : {"dn: a=1\ncn: " + std::string(kLength, 'x') + "\n", folded}) {
    LdifReader reader("directory.ldif", content);
    LdifRecord record;
    ASSERT_TRUE(reader.next(record).value_or(false));
    ASSERT_EQ(record.attributes.size(), 1U);
    EXPECT_TRUE(record.attributes[0].value == std::string(kLength, 'x'));
  }
}

}  // namespace
}  // namespace velder
