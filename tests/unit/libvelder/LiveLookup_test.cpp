// What only the ldap source has: snapshots that are old, half or damaged, reloads, and a domain that is down.
#include "libvelder/LiveLookup.h"

#include <thread>

#include "libvelder/LdapSource.h"
#include "tests/unit/libvelder/FakeLdapServer.h"
#include "tests/unit/libvelder/SampleDirectory.h"

namespace {

constexpr char kLena[] = "0: lena@lab.example.com";
constexpr char kAnna[] = "0: anna@corp.example.com";

constexpr char kCorp[] = ",dc=corp,dc=example,dc=com";
constexpr char kLab[] = ",dc=lab,dc=example,dc=com";

using Entry = fake::Directory::Entry;

// "cn=anna,ou=people" in a domain is anna, whose password is "anna-secret".
Entry user(const std::string& rdns, const std::string& domain,
           const std::vector<fake::Attribute>& more = {}) {
  const std::string uid = rdns.substr(3, rdns.find(',') - 3);
  Entry one{rdns + domain,
            {{"objectClass", {"user"}},
             {"sAMAccountName", {uid}},
             {"cn", {uid}},
             {"userPassword", {uid + "-secret"}}}};
  one.attributes.insert(one.attributes.end(), more.begin(), more.end());
  return one;
}

Entry group(const std::string& cn, const std::string& domain, const std::vector<std::string>& members,
            const char* attribute = "member") {
  return {"cn=" + cn + domain, {{"objectClass", {"group"}}, {"cn", {cn}}, {attribute, members}}};
}

// Entries of corp are found by their DN in one search for many; those of lab, which does not know the
// attribute, one by one.
class LiveLookupTest : public SampleDirectory {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(prldap_install_routines(nullptr, 1), 0); }
  void SetUp() override {
    write_settings("");
    ASSERT_EQ(initialize(), 0);
  }

  void write_settings(const std::string& general, const std::string& more_servers = "") const {
    write("LdapSetting.ini",
          "[LDAP_Setting]\n" + general +
              "\n[Domain_1]\nDnsName=corp.example.com\nSchema=rfc2307\nServers=" + corp_.url() +
              more_servers + "\n[Domain_2]\nDnsName=lab.example.com\nServers=" + lab_.url() + "\n");
  }
  // What is wrong with a snapshot of the first `domains`.
  std::string try_to_synchronise(size_t domains) const {
    auto settings = velder::load_settings(workdir_).value();
    settings.domains.resize(domains);
    const auto report = velder::sync_from_servers(workdir_, settings, {});
    return report ? "" : report.error().text;
  }
  // Everybody in the other domains is unknown to it.
  void synchronise(size_t domains) const {
    ASSERT_EQ(try_to_synchronise(domains), "");
    ASSERT_EQ(LdapModule::load_db_cache(), 0);
  }
  int searches() const { return corp_.searches() + lab_.searches(); }

  fake::Directory corp_{
      {{"dc=corp,dc=example,dc=com", {{"objectClass", {"domain"}}}},
       user("cn=anna,ou=people", kCorp, {{"memberOf", {std::string("cn=said") + kCorp}}}),
       user("cn=off", kCorp, {{"userAccountControl", {"514"}}}),
       user("cn=shared", kCorp),
       group("inner", kCorp, {"cn=anna,ou=people" + std::string(kCorp), std::string("cn=lena") + kLab}),
       group("ring one", kCorp,
             {std::string("cn=inner") + kCorp, std::string("cn=posix") + kCorp,
              std::string("cn=ring two") + kCorp}),
       group("ring two", kCorp, {std::string("cn=ring one") + kCorp}),
       group("said", kCorp, {}),
       group("posix", kCorp, {"anna", "twin"}, "memberUid"),
       user("cn=twin,ou=people", kCorp),
       user("cn=twin,ou=old", kCorp)}};
  fake::Directory lab_{
      {user("cn=lena", kLab, {{"objectSid", {"S-1-5-21-1-2-3-1105"}}, {"primaryGroupID", {"513"}}}),
       user("cn=shared", kLab, {{"objectSid", {"S-1-5-21-9-9-9-1106"}}, {"primaryGroupID", {"513"}}}),
       group("Users", kLab, {"S-1-5-21-1-2-3-513"}, "objectSid"),
       group("Staff", kLab, {std::string("cn=Users") + kLab})}};
};

TEST_F(LiveLookupTest, ServersAndTheirSnapshotGiveTheSameAnswers) {
  const auto expect_all = [](const char* source) {
    SCOPED_TRACE(source);
    EXPECT_EQ(groups_of("lena"), "0: <inner> <ring one> <ring two> <Staff> <Users>");
    EXPECT_EQ(groups_of("anna"), "0: <inner> <posix> <ring one> <ring two> <said>");
    EXPECT_EQ(groups_of("cn=twin,ou=old,dc=corp,dc=example,dc=com"), "0:") << "there are two of the uid";
    EXPECT_EQ(groups_of("LAB\\shared"), "0:") << "the primary group is another authority's";
    EXPECT_EQ(groups_in("ring one", 1), "0: <inner> <posix> <ring two>");
    EXPECT_EQ(users_of({"ring two", "said", "Staff", "posix"}, 0),
              "0: [ring two anna@corp.example.com lena@lab.example.com] [said anna@corp.example.com]"
              " [Staff lena@lab.example.com] [posix anna@corp.example.com]");
  };
  expect_all("servers");
  ASSERT_NO_FATAL_FAILURE(synchronise(2));
  expect_all("snapshot");
}

TEST_F(LiveLookupTest, ADomainInsideAnotherKeepsItsOwnAndNoneIsPublishedWithoutTheOthers) {
  // Without dc in its names; what both of its domains hold comes twice.
  fake::Directory zoo(
      {user("cn=rat,ou=cage", ",o=zoo"), user("cn=mole", ",o=zoo"),
       group("pets", ",o=zoo", {"cn=rat,ou=cage,o=zoo", "cn=anna,ou=people" + std::string(kCorp)})});
  const std::string two_domains = read_file(path("LdapSetting.ini"));
  const auto set_cage = [&](const std::string& base) {
    std::string text =
        two_domains + "[Domain_3]\nDnsName=zoo.example.com\nBaseDN=o=zoo\nServers=" + zoo.url();
    text += "\n[Domain_4]\nDnsName=cage.example.com\nBaseDN=" + base + "\nServers=" + zoo.url() + "\n";
    write("LdapSetting.ini", text);
    ASSERT_EQ(LdapModule::load_db_cache(), 0);
  };
  const auto expect_all = [](const char* source) {
    SCOPED_TRACE(source);
    EXPECT_EQ(who_is("CAGE\\rat") + who_is("ZOO\\mole"), "0: rat@cage.example.com0: mole@zoo.example.com");
    EXPECT_EQ(who_is("ZOO\\rat"), "32");
    EXPECT_EQ(find_users("rat", 1), "0: rat");
    EXPECT_EQ(groups_of("anna"), "0: <inner> <pets> <posix> <ring one> <ring two> <said>");
    EXPECT_EQ(users_of({"pets"}, 0), "0: [pets anna@corp.example.com rat@cage.example.com]");
    EXPECT_TRUE(proves("CAGE\\rat", "rat-secret") && !proves("ZOO\\rat", "rat-secret"));
  };
  set_cage("ou=cage,o=zoo");
  expect_all("servers");
  ASSERT_NO_FATAL_FAILURE(synchronise(4));
  expect_all("snapshot");
  const std::string before = read_file(snapshot());
  set_cage("ou=empty,o=zoo");  // lost in the crowd of the others
  EXPECT_NE(try_to_synchronise(4).find("domain cage.example.com: the servers gave no users at all"),
            std::string::npos);
  zoo.mood = fake::Directory::Mood::kDisconnecting;
  EXPECT_NE(try_to_synchronise(4).find(zoo.url()), std::string::npos);
  EXPECT_EQ(read_file(snapshot()), before);
}

TEST_F(LiveLookupTest, StaleSnapshotDoesNotKeepPeopleOut) {
  ASSERT_NO_FATAL_FAILURE(synchronise(2));
  EXPECT_FALSE(proves("off", "off-secret"));
  corp_.replace({user("cn=anna,ou=old", kCorp), user("cn=off", kCorp)});
  EXPECT_TRUE(proves("off", "off-secret")) << "enabled since";
  EXPECT_FALSE(proves("anna", "wrong"));
  EXPECT_TRUE(proves("anna", "anna-secret")) << "moved since";
  EXPECT_EQ(corp_.binds("cn=anna,ou=old,dc=corp,dc=example,dc=com"), 2) << "one wrong, one right";
}

TEST_F(LiveLookupTest, AReloadForgetsNoRefusedPassword) {
  EXPECT_FALSE(proves("shared", "shared-secret")) << "in two domains";
  EXPECT_EQ(corp_.binds("cn=shared,dc=corp,dc=example,dc=com"), 0);
  EXPECT_TRUE(proves("CORP\\shared", "shared-secret"));
  EXPECT_FALSE(proves("anna", "wrong"));
  write_settings("SearchLimit=7");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_FALSE(proves("CORP\\anna", "wrong"));
  EXPECT_EQ(corp_.binds("cn=anna,ou=people,dc=corp,dc=example,dc=com"), 1);
}

TEST_F(LiveLookupTest, DomainThatIsDownLeavesTheOthersUsable) {
  corp_.mood = fake::Directory::Mood::kDisconnecting;
  EXPECT_EQ(who_is("LAB\\lena"), kLena);
  EXPECT_EQ(who_is("lena@lab.example.com"), kLena);
  EXPECT_EQ(who_is("CORP\\lena"), "81");
  EXPECT_EQ(who_is("lena"), "81") << "the other domain may have one, too";
  EXPECT_EQ(groups_of("LAB\\lena"), "81:") << "a shorter list would be a wrong one";
  EXPECT_TRUE(proves("LAB\\lena", "lena-secret"));
}

TEST_F(LiveLookupTest, ServersAreAskedForWhatTheSnapshotDoesNotKnowOnceInAWhile) {
  ASSERT_NO_FATAL_FAILURE(synchronise(1));
  EXPECT_EQ(who_is("lena"), kLena);
  EXPECT_EQ(groups_of("lena"), "0: <inner> <ring one> <ring two> <Staff> <Users>");
  EXPECT_TRUE(proves("lena", "lena-secret"));
  EXPECT_EQ(users_of({"no", "Staff"}, 0), "0: [Staff lena@lab.example.com]");
  EXPECT_EQ(who_is("nobody"), "32");
  const int before = searches();
  EXPECT_EQ(who_is("anna"), kAnna);
  EXPECT_EQ(find_users("lena", 0), "0:") << "searches are the snapshot's alone";
  EXPECT_EQ(find_groups("Staff", 0), "0:");
  EXPECT_EQ(groups_in("Staff", 0), "32:");
  EXPECT_EQ(who_is("NOBODY"), "32");
  EXPECT_EQ(groups_of("nobody"), "32:");
  EXPECT_FALSE(proves("nobody", "x"));
  for (const std::string& name :
       {std::string(10'000, 'a'), "uid=" + std::string(10'000, 'x') + ",dc=example"}) {
    EXPECT_EQ(who_is(name), "32") << "longer than any name";
    EXPECT_EQ(users_of({name}, 1), "32:");
  }
  EXPECT_EQ(searches(), before);
  std::list<std::string> groups;
  for (int number = 0; number < 1000; ++number) groups.push_back("no such group " + std::to_string(number));
  EXPECT_EQ(users_of(groups, 0), "32:");
  EXPECT_LE(searches() - before, 200) << "one question is no flood";
}

TEST_F(LiveLookupTest, BrokenReloadKeepsWhatIsInUse) {
  ASSERT_NO_FATAL_FAILURE(synchronise(1));
  const std::string good = read_file(path("LdapSetting.ini"));
  for (const char* file : {"LdapSetting.ini", "directory.db", "no snapshot"}) {
    write("LdapSetting.ini", good);
    write(file, "[LDAP_Setting]\nSource=ldap\n");
    if (file[0] == 'n') std::filesystem::remove(snapshot());
    EXPECT_NE(LdapModule::load_db_cache(), 0) << file;
    EXPECT_EQ(find_users("", 0), "0: anna off shared twin twin") << file << ": from the snapshot";
    EXPECT_EQ(who_is("lena"), kLena) << file << ": from the servers";
  }
}

TEST_F(LiveLookupTest, DamagedOrForeignSnapshotIsNoSnapshot) {
  write("directory.db", "no snapshot");
  EXPECT_EQ(initialize(), 0);
  EXPECT_EQ(find_users("lena", 1), "0: lena") << "from the servers";
  const std::string servers = read_file(path("LdapSetting.ini"));
  write("LdapSetting.ini", "");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(who_is("zoe"), "0: zoe@corp.example.com") << "of the LDIF file";
  write("LdapSetting.ini", servers);
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(who_is("zoe"), "32") << "of a source that is no longer configured";
  EXPECT_EQ(find_users("lena", 1), "0: lena");
}

TEST_F(LiveLookupTest, ReloadsDoNotDisturbQuestionsUnderWay) {
  ASSERT_NO_FATAL_FAILURE(synchronise(1));
  std::atomic<bool> stop{false};
  std::vector<std::jthread> clients;
  for (int client = 0; client < 3; ++client) {
    clients.emplace_back([&] {
      while (!stop) {
        EXPECT_EQ(who_is("lena") + who_is("anna"), std::string(kLena) + kAnna);
        EXPECT_TRUE(proves("lena", "lena-secret"));
      }
    });
  }
  for (int round = 0; round < 20; ++round) {
    write_settings("SearchLimit=" + std::to_string(10 + round), round % 2 == 0 ? " " + lab_.url() : "");
    EXPECT_EQ(LdapModule::load_db_cache(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  stop = true;
}

}  // namespace
