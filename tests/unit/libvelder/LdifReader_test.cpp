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
    for (const LdifAttribute& attribute : record.attributes) {
      text += "|" + attribute.name + "=" + attribute.value;
    }
    records.push_back(text);
  }
}

struct Accepted {
  const char* what;
  std::string content;
  std::vector<std::string> records;
};

TEST(LdifReader, ReadsWhatDirectoriesExport) {
  const std::vector<Accepted> cases = {
      {"records of different sizes, blank lines between",
       "dn: a=1\ncn: long value\nsn: y\nsn: z\n\n\n\ndn: b=2\n\ndn: c=3\nuid: u\nsn: v",
       {"1|a=1|cn=long value|sn=y|sn=z", "8|b=2", "10|c=3|uid=u|sn=v"}},
      {"CR LF", "version: 1\r\n\r\ndn: a=1\r\ncn: x\r\n y\r\n\r\ndn: a=2\r\n", {"3|a=1|cn=xy", "7|a=2"}},
      {"CR at the very end", "dn: a=1\r", {"1|a=1"}},
      {"byte-order mark",
       "\xef\xbb\xbf"
       "dn: a=1\n",
       {"1|a=1"}},
      {"exports put behind one another",
       "version: 1\n\ndn: a=1\n\nversion: 1\n\ndn: a=2\n",
       {"3|a=1", "7|a=2"}},
      {"letter case and options",
       "DN: a=1\nCN;lang-de: x\nuserCertificate;BINARY:: /w==\n",
       {"1|a=1|cn=x|usercertificate=\xff"}},
      {"folded value, dn and base64",
       "dn: a=\n 1\ncn: x\n  y\n z\njpegPhoto:: AA\n EC\n",
       {"1|a=1|cn=x yz|jpegphoto=\0\1\2"s}},
      {"folded comment inside a record", "dn: a=1\n# b\n c: d\ncn: x\n", {"1|a=1|cn=x"}},
      {"changetype add", "dn: a=1\nchangetype: add\ncn: x\n", {"1|a=1|cn=x"}},
      {"base64 dn", "dn:: YT3DpA==\n", {"1|a=\xc3\xa4"}},
      {"empty values", "dn: a=1\ncn:\nsn: \nuid::\n", {"1|a=1|cn=|sn=|uid="}},
      {"blanks around", "dn:   a=1\ncn:x \nsn::  eA==\n", {"1|a=1|cn=x |sn=x"}},
      {"a value with colons, and one that begins with a bracket",
       "dn: a=1\ncn: b: c::d\nsn: <e\n",
       {"1|a=1|cn=b: c::d|sn=<e"}},
      {"bytes that are no UTF-8", "dn: a=1\ncn: \xff\xfe\n", {"1|a=1|cn=\xff\xfe"}},
      {"ldapsearch, paged, with a reference",
       "# extended LDIF\n#\n# LDAPv3\n#\n\n# x\ndn: a=1\ncn: x\n\n# search reference\nref: ldap://b/DC=b\n\n"
       "# search result\nsearch: 2\nresult: 0 Success\ncontrol: 1.2.840.113556.1.4.319 false MAUCAQAEAA==\n"
       "pagedresults: cookie=AAA=\n\ndn: a=2\n\nsearch: 3\nresult: 0 Success\n\n# numEntries: 2\n",
       {"7|a=1|cn=x", "19|a=2"}},
  };
  for (const Accepted& row : cases) EXPECT_EQ(read_all(row.content), row.records) << row.what;
}

struct Refused {
  std::string content;
  std::string where;
  std::string reason;
};

TEST(LdifReader, RefusesWithFileLineAndReason) {
  const std::vector<Refused> cases = {
      {"dn: a=1\n\ncn: x\n", ":3: ", "begins with \"cn\", expected dn"},
      {"dn: a=1\ncn: x\ndn: a=2\n", ":3: ", "second dn in the record of line 1"},
      {"dn: a=1\nno colon here\n", ":2: ", "no colon"},
      {"dn: a=1\nc n: x\n", ":2: ", "no attribute name before the colon"},
      {"dn: a=1\nphoto:< file:///etc/shadow\n", ":2: ", "URL"},
      {"dn: a=1\ncn:: e A==\n", ":2: ", "base64"},
      {"dn: a=1\ncn: x\nsn:: eA=\n =x\n", ":3: ", "base64"},
      {"dn: a=1\ncn: x\0y\n"s, ":2: ", "NUL"},
      {"dn: a=1\rcn: x\r", ":1: ", "carriage return"},
      {"dn: a=\xff\n", ":1: ", "\"a=\\xff\" is not valid UTF-8"},
      {"dn: a=1\n\n cn: x\n", ":3: ", "continuation"},
      {"version: 2\n", ":1: ", "version \"2\", expected 1"},
      {"dn: a=1\nchangetype: modify\nadd: cn\ncn: x\n-\n", ":2: ", "changetype \"modify\""},
      {"dn: a=1\ncn: x\nchangetype: add\n", ":3: ", "right after the dn"},
      {"dn: a=1\ncontrol: 1.2.3 true\nchangetype: add\n", ":2: ", "control"},
      {"dn: a=1\nmember;x;Range=1500-*: x\n", ":2: ", "a part of the values"},
      {"dn: a=1\n\nsearch: 2\nresult: 4 Size limit exceeded\n", ":4: ", "\"4 Size limit exceeded\""},
      {"search: 2\ncn: x\n", ":2: ", "begins with \"search\""},
      {"search: 2\nresult: 0 Success\ncn: x\n", ":3: ", "\"cn\" in the result lines"},
      {"ref: ldap://x\ncn: y\n", ":2: ", "begins with \"ref\""},
      {"\xff\xfe"
       "d\0n\0"s,
       ":1: ", "UTF-16"},
  };
  for (const Refused& row : cases) {
    const std::vector<std::string> records = read_all(row.content);
    ASSERT_FALSE(records.empty()) << row.content;
    EXPECT_THAT(records.back(), StartsWith("error directory.ldif" + row.where)) << row.content;
    EXPECT_THAT(records.back(), HasSubstr(row.reason)) << row.content;
  }
}

TEST(LdifReader, ErrorTextsStayShortAndPrintable) {
  const std::vector<std::string> records = read_all("dn: a=1\n" + std::string(1'000'000, '\x1b') + "\n");
  ASSERT_FALSE(records.empty());
  EXPECT_LT(records.back().size(), 200U);
  for (const char c : records.back()) EXPECT_TRUE(c >= ' ' && c <= '~');
}

TEST(LdifReader, TakesVeryLongAndVeryFoldedLines) {
  constexpr size_t kLength = 20'000'000;
  std::string folded = "dn: a=1\ncn: ";
  for (size_t i = 0; i < kLength / 70; ++i) folded += "\n " + std::string(70, 'x');
  for (const std::string& content : {"dn: a=1\ncn: " + std::string(kLength, 'x') + "\n", folded}) {
    LdifReader reader("directory.ldif", content);
    LdifRecord record;
    const Result<bool> read = reader.next(record);
    ASSERT_TRUE(read.has_value()) << read.error().text;
    ASSERT_EQ(record.attributes.size(), 1U);
    EXPECT_EQ(record.attributes[0].value,
              std::string(kLength / 70 * 70 + (content == folded ? 0 : kLength % 70), 'x'));
  }
}

}  // namespace
}  // namespace velder
