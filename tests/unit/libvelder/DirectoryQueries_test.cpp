#include "tests/unit/libvelder/SampleDirectory.h"

namespace {

class DirectoryQueriesTest : public SampleDirectory {
 protected:
  void SetUp() override { ASSERT_EQ(initialize(), 0); }
  // Characters that a name is compared without.
  static std::string soft_hyphens(int count) {
    std::string text;
    while (count-- > 0) text += "\xC2\xAD";
    return text;
  }
};

TEST_F(DirectoryQueriesTest, UserIsFoundByEachOfItsNamesAndByNothingElse) {
  const std::pair<std::string, const char*> kRows[] = {
      {"zoe", "0: zoe@corp.example.com"},
      {"corp.example.com\\Zoe", "0: zoe@corp.example.com"},
      {"Z.Adams@Example.com", "0: zoe@corp.example.com"},
      {"cn=zoe adams , ou=people,dc=CORP,dc=example,dc=com", "0: zoe@corp.example.com"},
      {"J\xC3\x96RG GROSS", "0: J\xC3\xB6rg Gro\xC3\x9F@corp.example.com"},
      {"jo\xCC\x88rg gross", "0: J\xC3\xB6rg Gro\xC3\x9F@corp.example.com"},
      {"LAB\\bob", "0: bob@lab.example.com"},
      // Several users: refused. Of one it is the principal name.
      {"bob", "32"},
      {"bob@lab.example.com", "32"},
      // Nobody: a cn is no name to be identified by, a NetBIOS name stands in front only.
      {"Zoe Adams", "32"},
      {"ignored", "32"},
      {"zoe@CORP", "32"},
      {"\\zoe", "32"},
      {"zo%", "32"},
      {"=,=", "32"},
      {std::string("zoe\0", 4), "32"},
      {"zoe" + soft_hyphens(30'000), "0: zoe@corp.example.com"},
      {"zoe" + soft_hyphens(40'000), "32"},  // megabytes of them would keep a thread busy for seconds
  };
  for (const auto& [name, answer] : kRows)
    for (int twice = 0; twice < 2; ++twice)
      EXPECT_EQ(who_is(name), answer) << name.substr(0, 80);  // what was found is kept
}

TEST_F(DirectoryQueriesTest, SearchesFindWholeNamesOrPartsInTheOrderOfCnAndDn) {
  const struct {
    std::string name;
    int flag;
    const char* answer;
  } kRows[] = {
      {"", 0, "0: odd bob bob carl J\xC3\xB6rg Gro\xC3\x9F zoe"},
      {"bob@lab.example.com", 1, "0: carl"},
      {"bo", 0, "0: bob bob carl"},  // two characters: not from the index
      {"B BR", 0, "0: bob bob"},
      {"gross", 0, "0: J\xC3\xB6rg Gro\xC3\x9F"},
      {"\xC3\xB6", 0, "0: J\xC3\xB6rg Gro\xC3\x9F"},
      {"%", 0, "0: odd"},
      {"bob OR zoe", 0, "0:"},
      {"\xFF\xFE\xFD", 0, "0:"},
      {"\xC2\xAD", 0, "0:"},  // folds to nothing, and nothing is in no name
      {"bob", -1, "0: bob bob"},
      {std::string("b\0b", 3), 0, "0:"},
      {"bob" + soft_hyphens(40'000), 0, "0:"},
      {"bob" + soft_hyphens(40'000), 1, "0:"},
  };
  for (const auto& row : kRows)
    EXPECT_EQ(find_users(row.name, row.flag), row.answer) << row.name.substr(0, 80);
  EXPECT_EQ(find_groups("", 0), "0: <Circle> <Domain Users> <Staff> <staff> <unix> <Writers>");
  EXPECT_EQ(find_groups("staff", 1), "0: <Staff> <staff>");
  for (const int flag : {0, 1}) EXPECT_EQ(find_groups("staff" + soft_hyphens(40'000), flag), "0:");

  for (const char* limit : {"1", "2", "0"}) {  // 0: none
    write("LdapSetting.ini", std::string("[LDAP_Setting]\nSearchLimit=") + limit + "\n");
    ASSERT_EQ(LdapModule::load_db_cache(), 0);
    EXPECT_EQ(find_users("bob", 1), *limit == '1' ? "4: bob" : "0: bob bob");
    EXPECT_EQ(find_users("bo", 0), *limit == '1'   ? "4: bob"
                                   : *limit == '2' ? "4: bob bob"
                                                   : "0: bob bob carl");
    EXPECT_EQ(find_groups("staff", 1), *limit == '1' ? "4: <Staff>" : "0: <Staff> <staff>");
  }

  // U+FFFD and U+FFFE: the index takes them for the same, and would find both.
  write("directory.ldif",
        "dn: cn=1,dc=x\nobjectClass: user\ncn:: Ye+/vXo=\n\n"
        "dn: cn=2,dc=x\nobjectClass: user\ncn:: Ye+/vno=\n");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(find_users("a\xEF\xBF\xBDz", 0), "0: a\xEF\xBF\xBDz");

  // The index would take seconds for so long a part of one name, and minutes in a large directory.
  const std::string part = std::string(30000, 'x') + "y";
  write("directory.ldif", "dn: cn=long,dc=x\nobjectClass: user\nuid: long\ncn: X" + part + "z\n");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_NE(find_users(part, 0), "0:");
  EXPECT_EQ(find_users(part + "y", 0), "0:");
}

TEST_F(DirectoryQueriesTest, GroupsOfAPatternAreWithoutThoseThatOnlyHoldEachOther) {
  EXPECT_EQ(groups_in("taf", 0), "0: <Circle> <unix> <Writers>")
      << "Staff is in Circle only, no match itself";
  EXPECT_EQ(groups_in("circle", 1), "0: <Staff> <Writers>");
  EXPECT_EQ(groups_in("", 1), "32:");
  for (const int flag : {0, 1}) EXPECT_EQ(groups_in("circle" + soft_hyphens(40'000), flag), "32:");
  EXPECT_EQ(users_of({"writers", "no such", "unix", "writers"}, 0),
            "0: [Writers bob@corp.example.com zoe@corp.example.com] [unix bob@lab.example.com]"
            " [Writers bob@corp.example.com zoe@corp.example.com]");
  EXPECT_EQ(users_of({"staff"}, 0), "32:") << "two groups have that cn";
}

TEST_F(DirectoryQueriesTest, WhoIsNotOneUserWithAPasswordProvesNothing) {
  EXPECT_TRUE(proves("CORP\\ZOE", "second-secret"));
  EXPECT_FALSE(proves("CORP\\ZOE", "SECOND-SECRET"));
  EXPECT_FALSE(proves("zoe", nullptr));
  EXPECT_FALSE(proves(nullptr, "zoe-secret"));
  EXPECT_FALSE(proves("bob", "bob-secret")) << "there are two";
  EXPECT_FALSE(proves("J\xC3\xB6rg Gro\xC3\x9F", "x")) << "the scheme is unknown";
  EXPECT_FALSE(proves("lab\\bob", "lab-secret")) << "disabled";
}

}  // namespace
