#include "tests/unit/libvelder/SampleDirectory.h"

namespace {

class DirectoryQueriesTest : public SampleDirectory {
 protected:
  void SetUp() override {
    SampleDirectory::SetUp();
    write("LdapSetting.ini", "[LDAP_Setting]\nSearchLimit=100\n");
    ASSERT_EQ(initialize(), 0);
  }
};

TEST_F(DirectoryQueriesTest, UserIsFoundByEachOfItsNamesAndByNothingElse) {
  const struct {
    const char* name;
    const char* answer;
  } kRows[] = {
      {"zoe", "0: zoe@corp.example.com"},
      {"ZOE", "0: zoe@corp.example.com"},
      {"CORP\\zoe", "0: zoe@corp.example.com"},
      {"corp.example.com\\Zoe", "0: zoe@corp.example.com"},
      {"zoe@CORP.example.com", "0: zoe@corp.example.com"},
      {"Z.Adams@Example.com", "0: zoe@corp.example.com"},
      {"cn=zoe adams , ou=people,dc=CORP,dc=example,dc=com", "0: zoe@corp.example.com"},
      {"J\xC3\x96RG GROSS", "0: J\xC3\xB6rg Gro\xC3\x9F@corp.example.com"},
      {"jo\xCC\x88rg gross", "0: J\xC3\xB6rg Gro\xC3\x9F@corp.example.com"},
      {"corp\\bob", "0: bob@corp.example.com"},
      {"LAB\\bob", "0: bob@lab.example.com"},
      {"bob@corp.example.com", "0: bob@corp.example.com"},
      // Several users: refused.
      {"bob", "32"},
      {"bob@lab.example.com", "32"},  // of one the principal name
      // Nobody: a cn is no name to be identified by, a NetBIOS name stands in front only.
      {"Zoe Adams", "32"},
      {"ignored", "32"},
      {"zoe@CORP", "32"},
      {"LAB\\zoe", "32"},
      {"\\zoe", "32"},
      {"zo", "32"},
      {"zo%", "32"},
      {"PC1$", "32"},
      {"", "32"},
      {"cn=zoe adams", "32"},
      {"=,=", "32"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(who_is(row.name), row.answer) << row.name;
    EXPECT_EQ(who_is(row.name), row.answer) << row.name << ", again";  // what was found is kept
  }
  EXPECT_EQ(who_is(std::string("zoe\0", 4)), "32");
}

TEST_F(DirectoryQueriesTest, UserInfoFillsItsFiveTexts) {
  std::string domain_dns, uid, cn, dn, upn;
  ASSERT_EQ(LdapModule::get_user_info("zoe", domain_dns, uid, cn, dn, upn), 0);
  EXPECT_EQ(domain_dns + "|" + uid + "|" + cn + "|" + dn + "|" + upn,
            "corp.example.com|zoe|Zoe Adams|CN=Zoe Adams,OU=People,DC=corp,DC=example,DC=com|"
            "z.adams@example.com");
  ASSERT_EQ(LdapModule::get_user_info("odd", domain_dns, uid, cn, dn, upn), 0);
  EXPECT_EQ(upn, "");
}

TEST_F(DirectoryQueriesTest, SearchesFindWholeNamesOrPartsInTheOrderOfCnAndDn) {
  const struct {
    const char* name;
    int flag;
    const char* answer;
  } kRows[] = {
      {"", 0, "0: odd bob bob carl J\xC3\xB6rg Gro\xC3\x9F zoe"},
      {"", 1, "0:"},
      {"bob brown", 1, "0: bob bob"},
      {"BOB", 1, "0: bob bob"},
      {"bob@lab.example.com", 1, "0: carl"},
      {"bo", 1, "0:"},
      {"bo", 0, "0: bob bob carl"},  // two characters: not from the index
      {"B BR", 0, "0: bob bob"},
      {"example.com", 0, "0: carl zoe"},
      {"gross", 0, "0: J\xC3\xB6rg Gro\xC3\x9F"},
      {"\xC3\xB6", 0, "0: J\xC3\xB6rg Gro\xC3\x9F"},
      {"%", 0, "0: odd"},
      {"_*\"\\", 0, "0: odd"},
      {"\"", 0, "0: odd"},
      {"b*b", 0, "0:"},
      {"bob OR zoe", 0, "0:"},
      {"uid:zoe", 0, "0:"},
      {"\xFF\xFE\xFD", 0, "0:"},
      {"bob", -1, "0: bob bob"},
  };
  for (const auto& row : kRows) EXPECT_EQ(find_users(row.name, row.flag), row.answer) << row.name;
  EXPECT_EQ(find_users(std::string("b\0b", 3), 0), "0:");
  EXPECT_EQ(find_groups("", 0), "0: <Circle> <Domain Users> <Staff> <staff> <unix> <Writers>");
  EXPECT_EQ(find_groups("staff", 1), "0: <Staff> <staff>");
  EXPECT_EQ(find_groups("R", 0), "0: <Circle> <Domain Users> <Writers>");
}

TEST_F(DirectoryQueriesTest, GroupsOfAUserAreDirectInheritedAndPrimary) {
  EXPECT_EQ(groups_of("zoe"), "0: <Circle> <Domain Users> <Staff> <Writers>");
  EXPECT_EQ(groups_of("corp\\bob"), "0: <Circle> <Staff> <Writers>") << "memberOf alone";
  EXPECT_EQ(groups_of("lab\\bob"), "0: <staff> <unix>") << "memberUid means the own domain";
  EXPECT_EQ(groups_of("carl"), "0:");
  EXPECT_EQ(groups_of("bob"), "32:");
}

TEST_F(DirectoryQueriesTest, GroupsInAGroupAreNestedAtAnyDepthWithoutItself) {
  const struct {
    const char* name;
    int flag;
    const char* answer;
  } kRows[] = {
      {"cn=staff,ou=groups,dc=corp,dc=example,dc=com", 1, "0: <Circle> <Writers>"},
      {"circle", 1, "0: <Staff> <Writers>"},
      {"writers", 1, "0:"},
      {"staff", 1, "32:"},  // one in each domain
      {"no such", 1, "32:"},
      {"no such", 0, "32:"},
      {"", 1, "32:"},
      {"taf", 0, "0: <Circle> <unix> <Writers>"},  // Staff is in Circle only, and Circle was not asked for
      {"c", 0, "0: <Staff> <Writers>"},
      {"", 0, "0: <Circle> <Staff> <unix> <Writers>"},
  };
  for (const auto& row : kRows) EXPECT_EQ(groups_in(row.name, row.flag), row.answer) << row.name;
}

TEST_F(DirectoryQueriesTest, UsersOfGroupsComeByGroupInTheGivenOrder) {
  EXPECT_EQ(users_of({"writers", "no such", "circle", "writers"}, 0),
            "0: [Writers bob@corp.example.com zoe@corp.example.com]"
            " [Circle bob@corp.example.com zoe@corp.example.com]"
            " [Writers bob@corp.example.com zoe@corp.example.com]");
  EXPECT_EQ(users_of({"CN=Staff,ou=groups,dc=lab,dc=example,dc=com"}, 1), "0: [staff bob@lab.example.com]");
  EXPECT_EQ(users_of({"domain users"}, 0), "0: [Domain Users zoe@corp.example.com]");
  EXPECT_EQ(users_of({"staff"}, 0), "32:") << "two groups have that cn";
  EXPECT_EQ(users_of({"writers"}, 1), "32:") << "a cn is no DN";
  EXPECT_EQ(users_of({}, 0), "32:");
}

TEST_F(DirectoryQueriesTest, PasswordsProveTheRightUserOnly) {
  const struct {
    const char* user;
    const char* password;
    bool proven;
  } kRows[] = {
      {"zoe", "zoe-secret", true},
      {"CORP\\ZOE", "second-secret", true},
      {"zoe", "ZOE-SECRET", false},
      {"zoe", "", false},
      {"zoe", nullptr, false},
      {nullptr, "zoe-secret", false},
      {"", "zoe-secret", false},
      {"corp\\bob", "bob-secret", true},
      {"bob", "bob-secret", false},             // ambiguous
      {"lab\\bob", "lab-secret", false},        // disabled
      {"carl", "x", false},                     // has no password
      {"J\xC3\xB6rg Gro\xC3\x9F", "x", false},  // of an unknown scheme
      {"nobody", "x", false},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(proves(row.user, row.password), row.proven) << (row.user == nullptr ? "(null)" : row.user);
  }
}

TEST_F(DirectoryQueriesTest, SearchLimitCutsTheListAndSaysSo) {
  const struct {
    const char* limit;
    const char* anywhere;
    const char* whole;
    const char* groups;
  } kRows[] = {
      {"1", "4: odd", "4: bob", "4: <Circle>"},
      {"2", "4: odd bob", "0: bob bob", "4: <Circle> <Domain Users>"},
      {"6", "0: odd bob bob carl J\xC3\xB6rg Gro\xC3\x9F zoe", "0: bob bob",
       "0: <Circle> <Domain Users> <Staff> <staff> <unix> <Writers>"},
      {"0", "0: odd bob bob carl J\xC3\xB6rg Gro\xC3\x9F zoe", "0: bob bob",
       "0: <Circle> <Domain Users> <Staff> <staff> <unix> <Writers>"},
  };
  for (const auto& row : kRows) {
    write("LdapSetting.ini", std::string("[LDAP_Setting]\nSearchLimit=") + row.limit + "\n");
    ASSERT_EQ(LdapModule::load_db_cache(), 0);
    EXPECT_EQ(find_users("", 0), row.anywhere) << row.limit;
    EXPECT_EQ(find_users("bob", 1), row.whole) << row.limit;
    EXPECT_EQ(find_groups("", 0), row.groups) << row.limit;
  }
}

}  // namespace
