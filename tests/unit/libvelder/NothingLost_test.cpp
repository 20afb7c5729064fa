// What must not empty a directory: settings that were cut short, and a file that is away for a moment.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "libvelder/LdapModule.h"
#include "libvelder/LdapSource.h"
#include "libvelder/Snapshot.h"

namespace {

class NothingLostTest : public testing::Test {
 protected:
  NothingLostTest() {
    char name[] = "/tmp/velder_test.XXXXXX";
    folder_ = mkdtemp(name);
  }
  ~NothingLostTest() override { std::filesystem::remove_all(folder_); }

  void write(const std::string& name, const std::string& text) const {
    std::ofstream(folder_ / name) << text;
  }
  // As a synchronisation leaves it: one user, of the ldap source.
  void publish_servers_snapshot() const {
    velder::SnapshotBuilder builder(velder::Settings{}, velder::BuildOptions{});
    velder::LdifRecord user{"cn=a,dc=x", {{"objectclass", "person"}, {"cn", "a"}, {"uid", "alice"}}, 1};
    ASSERT_TRUE(builder.add(user));
    velder::SnapshotMeta meta;
    meta.source = velder::kLdapSourceName;
    ASSERT_TRUE(builder.write(folder_ / velder::kSnapshotDraftName, meta));
    ASSERT_TRUE(velder::publish_snapshot(folder_));
  }
  static size_t users() {
    std::list<UserMeta> found;
    LdapModule::search_users("", 0, found);
    return found.size();
  }

  std::filesystem::path folder_;
  const std::string servers_ = "[Domain_1]\nDnsName=x\nServers=ldap://127.0.0.1:1\n";
};

TEST_F(NothingLostTest, SettingsThatWereCutShortKeepTheServersSnapshot) {
  write("LdapSetting.ini", servers_);
  publish_servers_snapshot();
  ASSERT_EQ(LdapModule::initialize(folder_.c_str(), true), 0);
  ASSERT_EQ(users(), 1U);
  for (const char* cut : {"", "[LDAP_Setting]\n", "[LDAP_Setting]\nSyncInt", "[LDAP_Sett"}) {
    write("LdapSetting.ini", cut);
    EXPECT_NE(LdapModule::load_db_cache(), 0) << cut;
    EXPECT_EQ(users(), 1U) << cut;
    EXPECT_NE(LdapModule::initialize(folder_.c_str(), true), 0) << cut;
    EXPECT_TRUE(velder::present_ldap_snapshot(folder_)) << cut;
  }
}

TEST_F(NothingLostTest, LdifThatIsAwayAtAReloadIsNotAnEmptyOne) {
  write("directory.ldif", "dn: cn=a,dc=x\nobjectClass: person\ncn: a\nuid: alice\n");
  ASSERT_EQ(LdapModule::initialize(folder_.c_str(), true), 0);
  std::filesystem::rename(folder_ / "directory.ldif", folder_ / "away");
  EXPECT_NE(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(users(), 1U);
  std::filesystem::rename(folder_ / "away", folder_ / "directory.ldif");
  EXPECT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(users(), 1U);
}

TEST_F(NothingLostTest, TextThatFoldsToNothingIsInNoName) {
  write("directory.ldif", "dn: cn=a,dc=x\nobjectClass: person\ncn: a\nuid: alice\n");
  ASSERT_EQ(LdapModule::initialize(folder_.c_str(), true), 0);
  std::list<UserMeta> found;
  EXPECT_EQ(LdapModule::search_users("\xC2\xAD", 0, found), 0);  // a soft hyphen
  EXPECT_TRUE(found.empty());
}

}  // namespace
