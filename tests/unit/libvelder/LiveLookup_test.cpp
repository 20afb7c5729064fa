// The ldap source against a real server: the same questions before and after the first snapshot, snapshots
// that are old, half or damaged, reloads, and a domain that is down.
#include "libvelder/LiveLookup.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "libvelder/LdapSource.h"
#include "libvelder/Settings.h"
#include "tests/unit/libvelder/LiveDirectoryData.h"
#include "tests/unit/libvelder/Slapd.h"

namespace {

class LiveLookupTest : public SampleDirectory {
 protected:
  void SetUp() override {
    SampleDirectory::SetUp();
    if (!Slapd::installed()) GTEST_SKIP() << "slapd is not installed";
    server_ = make_server("slapd", live_ldif());
    server_->start();
    write_settings("");
    ASSERT_EQ(initialize(), 0);
  }
  void TearDown() override {
    server_.reset();
    SampleDirectory::TearDown();
  }

  std::unique_ptr<Slapd> make_server(const std::string& name, const std::string& ldif) const {
    return std::make_unique<Slapd>(root_ + "/" + name, Slapd::Content{kLiveSuffix, ldif, kLiveSchema});
  }
  void write_settings(const std::string& general, const std::string& corp_server = "") const {
    const std::string times = "ConnectTimeout=1\nOperationTimeout=1\n";
    const std::string corp = corp_server.empty() ? server_->url() : corp_server;
    write("LdapSetting.ini", "[LDAP_Setting]\n" + general +
                                 "\n[Domain_1]\nDnsName=corp.example.com\nNetbiosName=HQ\n"
                                 "Schema=rfc2307\nServers=" +
                                 corp + "\n" + times + "[Domain_2]\nDnsName=lab.example.com\nServers=" +
                                 server_->url() + "\n" + times);
  }
  void synchronise() const {
    const auto settings = velder::load_settings(workdir_);
    ASSERT_TRUE(settings);
    const auto report = velder::sync_from_servers(workdir_, *settings, {});
    ASSERT_TRUE(report) << report.error().text;
    ASSERT_EQ(LdapModule::load_db_cache(), 0);
  }
  size_t searches() const { return server_->logged(" SRCH base="); }
  static size_t binds_as(const Slapd& server, const std::string& dn) {
    return server.logged(" BIND dn=\"" + dn + ",dc=corp,dc=example,dc=com\" method=128");
  }

  std::unique_ptr<Slapd> server_;
};

TEST_F(LiveLookupTest, ServersAndTheirSnapshotGiveTheSameAnswers) {
  const auto who = [](const char* name) { return [name] { return who_is(name); }; };
  const auto groups = [](const char* name) { return [name] { return groups_of(name); }; };
  const auto inside = [](const char* name, int flag) { return [=] { return groups_in(name, flag); }; };
  const auto users = [](const char* name, int is_dn) { return [=] { return users_of({name}, is_dn); }; };
  const auto find = [](const char* name, int flag) { return [=] { return find_users(name, flag); }; };
  const auto find_group = [](const char* name, int flag) { return [=] { return find_groups(name, flag); }; };
  const std::string rings = " <inner> <Outer> <ring one> <ring two>";
  std::string many;
  for (int number = 100; number < 100 + kManyUsers; ++number)
    many += " m" + std::to_string(number) + "@corp.example.com";
  const struct {
    const char* what;
    std::function<std::string()> ask;
    std::string expected;
  } rows[] = {
      {"bare uid of two domains", who("shared"), "32"},
      {"NetBIOS name", who("hq\\shared"), "0: shared@corp.example.com"},
      {"NetBIOS name by default", who("LAB\\shared"), "0: shared@lab.example.com"},
      {"DNS name behind", who("Shared@Lab.Example.com"), "0: shared@lab.example.com"},
      {"another domain's name", who("HQ\\lena"), "32"},
      {"NetBIOS name behind", who("shared@LAB"), "32"},
      {"principal name", who("L.Meyer@example.com"), "0: lena@lab.example.com"},
      {"twice in one domain", who("HQ\\twin"), "32"},
      {"DN", who("UID=twin, OU=Old, DC=corp,DC=example,DC=com"), "0: twin@corp.example.com"},
      {"DN of no user", who("cn=inner,dc=corp,dc=example,dc=com"), "32"},
      {"DN of a computer", who("cn=PC1,dc=lab,dc=example,dc=com"), "32"},
      {"DN of a contact", who("cn=Contact,dc=lab,dc=example,dc=com"), "32"},
      {"composed accents", who("jo\xCC\x88rg"), "0: j\xC3\xB6rg@corp.example.com"},

      {"direct and nested in a cycle", groups("anna"), "0:" + rings},
      {"by uid, in a group within a group", groups("bert"), "0: <Outer> <posix> <ring one> <ring two>"},
      {"uid of two users in memberUid", groups("uid=twin,ou=old,dc=corp,dc=example,dc=com"), "0:"},
      {"said by the entries only", groups("carla"), "0: <above said> <said>"},
      {"of another domain, and primary", groups("lena"), "0: <Domain Users>" + rings + " <Staff>"},
      {"primary group of another authority", groups("LAB\\shared"), "0:"},

      {"nested in a cycle", inside("cn=ring one,dc=corp,dc=example,dc=com", 1),
       "0: <inner> <Outer> <posix> <ring two>"},
      {"nested by memberOf", inside("above said", 1), "0: <said>"},
      {"cn of two groups", inside("Staff", 1), "32:"},
      {"DN of one of them", inside("CN=Staff,DC=lab,DC=example,DC=com", 1), "0: <Domain Users>"},
      {"no cn", inside("xyz", 0), "32:"},
      {"part of cn", inside("R", 0), "0: <inner> <Outer> <posix> <ring one> <ring two>"},
      {"every cn", inside("", 0), "0: <Domain Users> <inner> <Outer> <posix> <ring one> <ring two> <said>"},

      {"members of nested groups", users("ring two", 0),
       "0: [ring two anna@corp.example.com Bert@corp.example.com lena@lab.example.com]"},
      {"members who say it themselves", users("above said", 0), "0: [above said carla@corp.example.com]"},
      {"primary group", users("cn=Staff,dc=lab,dc=example,dc=com", 1), "0: [Staff lena@lab.example.com]"},
      {"more members than one question names", users("Many", 0), "0: [Many" + many + "]"},

      {"whole cn", find("anna berg", 1), "0: anna carla"},
      {"part of cn and uid", find("AR", 0), "0: carla shared shared"},
      {"part with accents", find("\xC3\x96RG S", 0), "0: j\xC3\xB6rg"},
      {"whole cn of two groups", find_group("STAFF", 1), "0: <Staff> <Staff>"},
      {"part of a group's cn", find_group("ing", 0), "0: <ring one> <ring two>"},
  };
  for (const auto& row : rows) EXPECT_EQ(row.ask(), row.expected) << "live: " << row.what;
  const size_t before = searches();
  EXPECT_EQ(users_of({"Many"}, 0), "0: [Many" + many + "]");
  EXPECT_LE(searches() - before, 12U) << "many members take few questions";
  ASSERT_NO_FATAL_FAILURE(synchronise());
  server_->stop();
  for (const auto& row : rows) EXPECT_EQ(row.ask(), row.expected) << "snapshot: " << row.what;
}

TEST_F(LiveLookupTest, SearchLimitCutsTheListAndSaysSo) {
  write_settings("SearchLimit=5");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  std::list<UserMeta> users;
  EXPECT_EQ(LdapModule::search_users("m1", 0, users), kDirectorySizeLimit);
  EXPECT_EQ(users.size(), 5U);
  EXPECT_EQ(find_users("anna berg", 1), "0: anna carla");
  EXPECT_EQ(groups_in("", 0).substr(0, 2), "0:") << "the limit is of searches only";
}

TEST_F(LiveLookupTest, NamesLongerThanAnyAreNotAsked) {
  const size_t before = searches();
  for (const std::string& name :
       {std::string(10'000, 'a'), "uid=" + std::string(10'000, 'x') + ",dc=example"}) {
    EXPECT_EQ(who_is(name), "32");
    EXPECT_EQ(groups_in(name, 1), "32:");
    EXPECT_EQ(users_of({name}, 1), "32:");
    EXPECT_EQ(find_users(name, 0), "0:");
  }
  EXPECT_EQ(searches(), before);
}

TEST_F(LiveLookupTest, StaleSnapshotDoesNotKeepPeopleOut) {
  ASSERT_NO_FATAL_FAILURE(synchronise());
  std::string changed = live_ldif();
  changed.replace(changed.find("dn: uid=anna,ou=people"), 22, "dn: uid=anna,ou=old");
  changed.replace(changed.find("userAccountControl: 514"), 23, "userAccountControl: 512");
  const auto today = make_server("today", changed);
  today->start();
  EXPECT_FALSE(proves("off", "off-secret"));
  write_settings("", today->url());
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_TRUE(proves("off", "off-secret")) << "enabled since";
  EXPECT_FALSE(proves("anna", "wrong"));
  EXPECT_TRUE(proves("anna", "anna-secret")) << "moved since";
  EXPECT_EQ(binds_as(*today, "uid=anna,ou=old"), 2U) << "one wrong, one right";
}

TEST_F(LiveLookupTest, AReloadForgetsNoRefusedPassword) {
  EXPECT_FALSE(proves("shared", "corp-secret")) << "in two domains";
  EXPECT_EQ(binds_as(*server_, "uid=shared,ou=people"), 0U);
  EXPECT_TRUE(proves("HQ\\shared", "corp-secret"));
  EXPECT_FALSE(proves("anna", "wrong"));
  write_settings("SearchLimit=7");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_FALSE(proves("HQ\\anna", "wrong"));
  EXPECT_EQ(binds_as(*server_, "uid=anna,ou=people"), 1U);
}

TEST_F(LiveLookupTest, DomainThatIsDownLeavesTheOthersUsable) {
  write_settings("", make_server("down", "")->url());  // never started
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(who_is("LAB\\lena"), "0: lena@lab.example.com");
  EXPECT_EQ(who_is("lena@lab.example.com"), "0: lena@lab.example.com");
  EXPECT_EQ(who_is("HQ\\lena"), "81");
  EXPECT_EQ(who_is("lena"), "81") << "the other domain may have one, too";
  EXPECT_EQ(groups_of("LAB\\lena"), "81:") << "a shorter list would be a wrong one";
  EXPECT_TRUE(proves("LAB\\lena", "lena-secret"));
  EXPECT_FALSE(proves("HQ\\anna", "anna-secret"));
}

// A snapshot of one domain only, so that everybody in the other one is unknown to it.
class HalfSnapshotTest : public LiveLookupTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(LiveLookupTest::SetUp());
    if (!Slapd::installed()) return;
    auto settings = velder::load_settings(workdir_);
    ASSERT_TRUE(settings);
    settings->domains.pop_back();
    const auto report = velder::sync_from_servers(workdir_, *settings, {});
    ASSERT_TRUE(report) << report.error().text;
    ASSERT_EQ(LdapModule::load_db_cache(), 0);
  }
};

TEST_F(HalfSnapshotTest, ServersAreAskedForWhatTheSnapshotDoesNotKnow) {
  EXPECT_EQ(who_is("lena"), "0: lena@lab.example.com");
  EXPECT_EQ(groups_of("lena"), "0: <Domain Users> <inner> <Outer> <ring one> <ring two> <Staff>");
  EXPECT_TRUE(proves("lena", "lena-secret"));
  EXPECT_EQ(groups_in("cn=Staff,dc=lab,dc=example,dc=com", 1), "0: <Domain Users>");
  EXPECT_EQ(users_of({"no", "Domain Users", "inner"}, 0),
            "0: [Domain Users lena@lab.example.com] [inner anna@corp.example.com]");
  const size_t before = searches();
  EXPECT_EQ(who_is("anna"), "0: anna@corp.example.com");
  EXPECT_EQ(who_is("HQ\\twin"), "32") << "known, and several";
  EXPECT_EQ(find_users("lena", 0), "0:") << "searches are the snapshot's alone";
  EXPECT_EQ(find_groups("Domain", 0), "0:");
  EXPECT_EQ(groups_in("Domain", 0), "32:");
  EXPECT_EQ(searches(), before);
}

TEST_F(HalfSnapshotTest, UnknownNamesAreAskedForOnceInAWhile) {
  EXPECT_EQ(who_is("nobody"), "32");
  const size_t before = searches();
  for (int round = 0; round < 100; ++round) {
    EXPECT_EQ(who_is("NOBODY"), "32");
    EXPECT_EQ(groups_of("nobody"), "32:");
    EXPECT_FALSE(proves("nobody", "x"));
  }
  EXPECT_EQ(searches(), before);
  std::list<std::string> many;
  for (int number = 0; number < 1000; ++number) many.push_back("no such group " + std::to_string(number));
  many.push_back("inner");
  std::list<GroupUserMeta> found;
  EXPECT_EQ(LdapModule::get_all_users(many, 0, found), 0);
  EXPECT_EQ(found.size(), 1U);
  EXPECT_LE(searches() - before, 200U) << "one question is no flood";
}

TEST_F(HalfSnapshotTest, BrokenReloadKeepsWhatIsInUse) {
  const std::string good = read(path("LdapSetting.ini"));
  for (const char* file : {"LdapSetting.ini", "directory.db", ""}) {
    write("LdapSetting.ini", good);
    if (*file != '\0')
      write(file, "[LDAP_Setting]\nSource=ldap\n");
    else
      std::filesystem::remove(snapshot());
    EXPECT_NE(LdapModule::load_db_cache(), 0) << file;
    EXPECT_EQ(who_is("anna"), "0: anna@corp.example.com") << file;
    EXPECT_EQ(who_is("lena"), "0: lena@lab.example.com") << file;
  }
  server_->stop();
  EXPECT_EQ(who_is("anna"), "0: anna@corp.example.com") << "from the snapshot that is gone";
}

TEST_F(HalfSnapshotTest, DamagedOrForeignSnapshotIsNoSnapshot) {
  write("directory.db", "no snapshot");
  EXPECT_EQ(initialize(), 0);
  EXPECT_EQ(find_users("lena", 0), "0: lena") << "from the servers";
  const std::string servers = read(path("LdapSetting.ini"));
  write("LdapSetting.ini", "");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(who_is("zoe"), "0: zoe@corp.example.com") << "of the LDIF file";
  write("LdapSetting.ini", servers);
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(who_is("zoe"), "32") << "of a source that is no longer configured";
  EXPECT_EQ(find_users("lena", 0), "0: lena");
  ASSERT_NO_FATAL_FAILURE(synchronise());
  server_->stop();
  EXPECT_EQ(find_users("lena", 0), "0: lena") << "from the new snapshot";
}

TEST_F(HalfSnapshotTest, ReloadsDoNotDisturbQuestionsUnderWay) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> clients;
  for (int client = 0; client < 3; ++client) {
    clients.emplace_back([&] {
      while (!stop) {
        EXPECT_EQ(who_is("lena"), "0: lena@lab.example.com");
        EXPECT_TRUE(proves("lena", "lena-secret"));
        EXPECT_EQ(who_is("anna"), "0: anna@corp.example.com");
      }
    });
  }
  for (int round = 0; round < 20; ++round) {
    write_settings("SearchLimit=" + std::to_string(10 + round),
                   round % 2 == 0 ? server_->url() + " " + server_->url() : "");
    EXPECT_EQ(LdapModule::load_db_cache(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  stop = true;
  for (std::thread& client : clients) client.join();
}

}  // namespace
