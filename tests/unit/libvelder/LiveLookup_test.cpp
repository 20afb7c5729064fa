// The ldap source against a real server: the same questions before and after the first snapshot, names that
// try to be more than names, and a server that stops, freezes and comes back.
#include "libvelder/LiveLookup.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include "brellog/VrLog.h"
#include "libvelder/LdapSource.h"
#include "libvelder/Settings.h"
#include "libvelder/UnknownNames.h"
#include "tests/unit/libvelder/LiveDirectoryData.h"
#include "tests/unit/libvelder/SampleDirectory.h"
#include "tests/unit/libvelder/Slapd.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class LiveLookupTest : public SampleDirectory {
 protected:
  void SetUp() override {
    SampleDirectory::SetUp();
    if (!Slapd::installed()) GTEST_SKIP() << "slapd is not installed";
    server_ = std::make_unique<Slapd>(root_ + "/slapd", kLiveSuffix, kLiveSchema, live_ldif());
    ASSERT_TRUE(server_->start()) << server_->load_log();
    write_settings("");
    ASSERT_EQ(initialize(), 0);
  }
  void TearDown() override {
    server_.reset();
    SampleDirectory::TearDown();
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
  size_t binds() const { return server_->logged(" method=128"); }
  size_t binds_as(const std::string& dn) const {
    return server_->logged(" BIND dn=\"" + dn + "\" method=128");
  }
  size_t refused_binds() const { return server_->logged(" err=49 "); }

  static milliseconds time_of(const std::function<void()>& work) {
    const auto begin = steady_clock::now();
    work();
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
  }
  static bool comes_true(const std::function<bool()>& condition) {
    for (int tries = 0; tries < 300; ++tries) {
      if (condition()) return true;
      std::this_thread::sleep_for(milliseconds(50));
    }
    return false;
  }

  std::unique_ptr<Slapd> server_;
};

struct Case {
  const char* what;
  std::function<std::string()> ask;
  std::string expected;
};

std::string addresses_of_many() {
  std::string text;
  for (int number = 100; number < 100 + kManyUsers; ++number) {
    text += " m" + std::to_string(number) + "@corp.example.com";
  }
  return text;
}

class LiveAnswersTest : public LiveLookupTest {
 protected:
  static std::vector<Case> cases();
};

std::vector<Case> LiveAnswersTest::cases() {
  const auto who = [](const char* name) { return [name] { return who_is(name); }; };
  const auto groups = [](const char* name) { return [name] { return groups_of(name); }; };
  const auto inside = [](const char* name, int flag) { return [=] { return groups_in(name, flag); }; };
  const auto users = [](const char* name, int is_dn) { return [=] { return users_of({name}, is_dn); }; };
  const auto find = [](const char* name, int flag) { return [=] { return find_users(name, flag); }; };
  const auto find_group = [](const char* name, int flag) { return [=] { return find_groups(name, flag); }; };
  const std::string rings = " <inner> <Outer> <ring one> <ring two>";
  return {
      {"bare uid", who("ANNA"), "0: anna@corp.example.com"},
      {"bare uid of two domains", who("shared"), "32"},
      {"NetBIOS name", who("hq\\shared"), "0: shared@corp.example.com"},
      {"NetBIOS name by default", who("LAB\\shared"), "0: shared@lab.example.com"},
      {"DNS name before", who("lab.example.com\\lena"), "0: lena@lab.example.com"},
      {"DNS name behind", who("Shared@Lab.Example.com"), "0: shared@lab.example.com"},
      {"another domain's name", who("HQ\\lena"), "32"},
      {"no domain's name", who("NOWHERE\\lena"), "32"},
      {"NetBIOS name behind", who("shared@LAB"), "32"},
      {"principal name", who("L.Meyer@example.com"), "0: lena@lab.example.com"},
      {"cn of a user with a uid", who("Lena Meyer"), "32"},
      {"twice in one domain", who("HQ\\twin"), "32"},
      {"DN", who("UID=twin, OU=Old, DC=corp,DC=example,DC=com"), "0: twin@corp.example.com"},
      {"DN of no user", who("cn=inner,dc=corp,dc=example,dc=com"), "32"},
      {"DN of a computer", who("cn=PC1,dc=lab,dc=example,dc=com"), "32"},
      {"DN of a contact", who("cn=Contact,dc=lab,dc=example,dc=com"), "32"},
      {"DN of nobody", who("uid=x,dc=corp,dc=example,dc=com"), "32"},
      {"DN outside", who("uid=anna,dc=example,dc=org"), "32"},
      {"group as user", who("inner"), "32"},
      {"special characters", who("HQ\\o,*(d)\\\"d"), "0: o,*(d)\\\"d@corp.example.com"},
      {"DN with special characters", who("uid=o\\,*(d)\\\\\\\"d,ou=people,dc=corp,dc=example,dc=com"),
       "0: o,*(d)\\\"d@corp.example.com"},
      {"accents", who("HQ\\J\xC3\x96RG"), "0: j\xC3\xB6rg@corp.example.com"},
      {"composed accents", who("jo\xCC\x88rg"), "0: j\xC3\xB6rg@corp.example.com"},

      {"direct and nested in a cycle", groups("anna"), "0:" + rings},
      {"by uid, in a group within a group", groups("bert"), "0: <Outer> <posix> <ring one> <ring two>"},
      {"uid of two users in memberUid", groups("uid=twin,ou=old,dc=corp,dc=example,dc=com"), "0:"},
      {"said by the entries only", groups("carla"), "0: <above said> <said>"},
      {"of another domain, and primary", groups("lena"), "0: <Domain Users>" + rings + " <Staff>"},
      {"primary group of another authority", groups("LAB\\shared"), "0:"},
      {"of nobody", groups("nobody"), "32:"},

      {"nested", inside("Outer", 1), "0: <inner> <posix>"},
      {"nested in a cycle", inside("cn=ring one,dc=corp,dc=example,dc=com", 1),
       "0: <inner> <Outer> <posix> <ring two>"},
      {"nested by memberOf", inside("above said", 1), "0: <said>"},
      {"cn of two groups", inside("Staff", 1), "32:"},
      {"DN of one of them", inside("CN=Staff,DC=lab,DC=example,DC=com", 1), "0: <Domain Users>"},
      {"part of cn", inside("R", 0), "0: <inner> <Outer> <posix> <ring one> <ring two>"},
      {"every cn", inside("", 0), "0: <Domain Users> <inner> <Outer> <posix> <ring one> <ring two> <said>"},
      {"no cn", inside("xyz", 0), "32:"},
      {"part that is a pattern", inside("*", 0), "32:"},

      {"members of nested groups", users("ring two", 0),
       "0: [ring two anna@corp.example.com Bert@corp.example.com lena@lab.example.com]"},
      {"members who say it themselves", users("above said", 0), "0: [above said carla@corp.example.com]"},
      {"primary group", users("cn=Staff,dc=lab,dc=example,dc=com", 1), "0: [Staff lena@lab.example.com]"},
      {"more members than one question names", users("Many", 0), "0: [Many" + addresses_of_many() + "]"},
      {"several groups",
       [] {
         return users_of({"said", "no", "posix", "Staff"}, 0);
       },
       "0: [said carla@corp.example.com] [posix Bert@corp.example.com]"},
      {"no group", users("no", 0), "32:"},

      {"whole cn", find("anna berg", 1), "0: anna carla"},
      {"whole principal name", find("l.meyer@EXAMPLE.com", 1), "0: lena"},
      {"part of cn and uid", find("AR", 0), "0: carla shared shared"},
      {"part with accents", find("\xC3\x96RG S", 0), "0: j\xC3\xB6rg"},
      {"part that is a pattern", find("*", 0), "0: o,*(d)\\\"d"},
      {"part that closes the filter", find(")(uid=", 0), "0:"},
      {"nobody", find("xyz", 0), "0:"},
      {"whole cn of two groups", find_group("STAFF", 1), "0: <Staff> <Staff>"},
      {"part of a group's cn", find_group("ing", 0), "0: <ring one> <ring two>"},
  };
}

TEST_F(LiveAnswersTest, ServersAndTheirSnapshotGiveTheSameAnswers) {
  for (const Case& row : cases()) EXPECT_EQ(row.ask(), row.expected) << "live: " << row.what;
  ASSERT_NO_FATAL_FAILURE(synchronise());
  server_->stop();
  for (const Case& row : cases()) EXPECT_EQ(row.ask(), row.expected) << "snapshot: " << row.what;
}

TEST_F(LiveLookupTest, ManyMembersTakeFewQuestions) {
  EXPECT_EQ(users_of({"Many"}, 0), "0: [Many" + addresses_of_many() + "]");
  EXPECT_LE(searches(), 12U);
}

TEST_F(LiveLookupTest, SearchLimitCutsTheListAndSaysSo) {
  write_settings("SearchLimit=5");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  std::list<UserMeta> users;
  EXPECT_EQ(LdapModule::search_users("m1", 0, users), kDirectorySizeLimit);
  EXPECT_EQ(users.size(), 5U);
  for (const UserMeta& user : users) EXPECT_EQ(user.uid.substr(0, 2), "m1");
  EXPECT_EQ(find_users("m10", 0).substr(0, 2), "4:");
  EXPECT_EQ(find_users("m105", 0), "0: m105");
  EXPECT_EQ(find_users("anna berg", 1), "0: anna carla");
  EXPECT_EQ(groups_in("", 0).substr(0, 2), "0:") << "the limit is of searches only";
}

TEST_F(LiveLookupTest, HostileNamesAreNobodyAndNobodyIsBound) {
  struct Row {
    std::string name;
    size_t most_searches;
  };
  const std::string nul("anna\0)(uid=*", 12);
  const Row rows[] = {{"*", 2},
                      {"a*", 2},
                      {")(uid=*", 2},
                      {"anna)(objectClass=*", 2},
                      {"*)(uid=*))(|(uid=*", 2},
                      {nul, 2},
                      {"\\", 2},
                      {"\\2a", 2},
                      {"HQ\\*", 1},
                      {"*@corp.example.com", 2},
                      {"uid=*,ou=people,dc=corp,dc=example,dc=com", 4},
                      {"uid=anna,ou=people,dc=corp,dc=example,dc=com\\00", 4},
                      {"\xFF\xFE", 2},
                      {"", 0},
                      {std::string(10'000, 'a'), 0},
                      {std::string(10'000, '*'), 0},
                      {"uid=" + std::string(10'000, 'x') + ",dc=corp,dc=example,dc=com", 0}};
  const auto ask_all = [&] {
    for (const Row& row : rows) {
      const size_t before = searches();
      EXPECT_EQ(who_is(row.name), "32") << row.name.substr(0, 80);
      EXPECT_LE(searches() - before, row.most_searches) << row.name.substr(0, 80);
      EXPECT_EQ(groups_of(row.name), "32:") << row.name.substr(0, 80);
      EXPECT_EQ(groups_in(row.name, 1), "32:") << row.name.substr(0, 80);
      EXPECT_EQ(users_of({row.name}, 0), "32:") << row.name.substr(0, 80);
      EXPECT_EQ(users_of({row.name}, 1), "32:") << row.name.substr(0, 80);
      // As the daemon has it: a name that holds a NUL never comes here.
      const std::string user = row.name == nul ? "*" : row.name;
      EXPECT_FALSE(proves(user.c_str(), "anna-secret")) << user.substr(0, 80);
    }
  };
  ask_all();
  ASSERT_NO_FATAL_FAILURE(synchronise());
  ask_all();
  EXPECT_EQ(binds(), binds_as("")) << "only anonymous binds, for reading";
}

TEST_F(LiveLookupTest, PasswordsAreProvedByOneBindEach) {
  struct Row {
    const char* user;
    const char* password;
    bool proven;
    size_t binds;
    size_t refused;  // of them
  };
  const Row rows[] = {
      {"anna", "anna-secret", true, 1, 0},
      {"anna", "", false, 0, 0},
      {"anna", "wrong", false, 1, 1},
      {"HQ\\anna", "wrong", false, 0, 0},  // refused a moment ago
      {"HQ\\anna", "anna-secret", true, 1, 0},
      {"anna", "wrong again", false, 1, 1},
      {"lena@lab.example.com", "lena-secret", true, 1, 0},
      {"l.meyer@example.com", "lena-secret", true, 1, 0},
      {"cn=Lena Meyer,dc=lab,dc=example,dc=com", "lena-secret", true, 1, 0},
      {"j\xC3\xB6rg", "joerg-secret", true, 1, 0},
      {"o,*(d)\\\"d", "odd-secret", true, 1, 0},
      {"shared", "corp-secret", false, 0, 0},  // in two domains
      {"HQ\\shared", "corp-secret", true, 1, 0},
      {"LAB\\shared", "corp-secret", false, 1, 1},
      {"twin", "x", false, 0, 0},
      {"inner", "x", false, 0, 0},
      {"nobody", "x", false, 0, 0},
  };
  size_t refused = 0;
  for (const bool with_snapshot : {false, true}) {
    if (with_snapshot) {
      ASSERT_NO_FATAL_FAILURE(synchronise());
      // Another process: nothing is remembered of what was refused.
      write_settings("RefusedPasswordMemory=61");
      ASSERT_EQ(LdapModule::load_db_cache(), 0);
    }
    ASSERT_EQ(who_is("anna"), "0: anna@corp.example.com");
    for (const Row& row : rows) {
      const size_t anonymous = binds_as(""), all = binds();
      EXPECT_EQ(proves(row.user, row.password), row.proven) << row.user << " " << row.password;
      EXPECT_EQ(binds() - all - (binds_as("") - anonymous), row.binds) << row.user << " " << row.password;
      refused += row.refused;
    }
    EXPECT_FALSE(proves("off", "off-secret")) << "disabled, which this server does not mind";
    // A result is logged only after it was sent.
    EXPECT_TRUE(comes_true([&] { return refused_binds() == refused; })) << refused_binds() << " " << refused;
  }
  write_settings("RefusedPasswordMemory=61\nSearchLimit=7");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  const std::string anna = "uid=anna,ou=people,dc=corp,dc=example,dc=com";
  const size_t before = binds_as(anna);
  EXPECT_FALSE(proves("anna", "wrong again"));
  EXPECT_EQ(binds_as(anna), before) << "a reload forgets nothing that protects the account";
}

TEST_F(LiveLookupTest, RefusalsAreToldApartInTheLogAndHoldNoPassword) {
  struct Row {
    const char* user;
    std::string line;
  };
  const std::string at_server = ", " + server_->url() + ": ";
  const Row rows[] = {
      {"anna", "user anna refused: wrong" + at_server},
      {"nobody\n<INF> x", "user nobody\\x0a<INF> x refused: no such user"},
      {"off", "user off refused: disabled or locked, says the entry itself"},
      {"HQ\\shared", "user HQ\\shared refused: wrong" + at_server},
      {"carla", "user carla refused: cannot tell" + at_server},  // the server is gone by then
  };
  VrLog::setConfig(nullptr, nullptr);  // standard output
  VrLog::setLogVerbose(true);
  for (const Row& row : rows) {
    if (row.user == std::string("carla")) {
      ASSERT_EQ(who_is("carla"), "0: carla@corp.example.com");
      ASSERT_NO_FATAL_FAILURE(synchronise());
      server_->stop();
    }
    testing::internal::CaptureStdout();
    EXPECT_FALSE(proves(row.user, "5ecret-of-mine")) << row.user;
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("<INF>"), std::string::npos) << log;
    EXPECT_NE(log.find("password of " + row.line), std::string::npos) << row.line << " in " << log;
    EXPECT_EQ(log.find("5ecret"), std::string::npos) << log;
  }
  VrLog::setLogVerbose(false);
}

TEST_F(LiveLookupTest, StaleSnapshotDoesNotKeepPeopleOut) {
  ASSERT_NO_FATAL_FAILURE(synchronise());
  std::string changed = live_ldif();
  const auto replace = [&](const std::string& from, const std::string& to) {
    const size_t at = changed.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    changed.replace(at, from.size(), to);
  };
  replace("dn: uid=anna,ou=people", "dn: uid=anna,ou=old");
  replace("userAccountControl: 514", "userAccountControl: 512");
  Slapd today(root_ + "/today", kLiveSuffix, kLiveSchema, changed);
  ASSERT_TRUE(today.start()) << today.load_log();
  EXPECT_FALSE(proves("off", "off-secret"));
  write_settings("", today.url());
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_TRUE(proves("off", "off-secret")) << "enabled since";
  EXPECT_FALSE(proves("anna", "wrong"));
  EXPECT_TRUE(proves("anna", "anna-secret")) << "moved since";
  const std::string moved = " BIND dn=\"uid=anna,ou=old,dc=corp,dc=example,dc=com\" method=128";
  EXPECT_EQ(today.logged(moved), 2U) << "one wrong, one right";
}

TEST_F(LiveLookupTest, NoServerAndNoSnapshotIsSaidAtOnce) {
  Slapd nowhere(root_ + "/nowhere", kLiveSuffix, kLiveSchema, live_ldif());  // never started
  server_->stop();
  EXPECT_EQ(initialize(), 0) << "neither a server nor a snapshot is needed to start";
  EXPECT_EQ(who_is("anna"), "81");
  EXPECT_EQ(groups_of("anna"), "81:");
  EXPECT_EQ(find_users("", 0), "81:");
  EXPECT_EQ(users_of({"inner"}, 0), "81:");
  EXPECT_FALSE(proves("anna", "anna-secret"));
  EXPECT_LT(time_of([] { EXPECT_EQ(who_is("HQ\\anna"), "81"); }), milliseconds(500));
  ASSERT_TRUE(server_->start());
  EXPECT_TRUE(comes_true([] { return who_is("anna") == "0: anna@corp.example.com"; }));
  EXPECT_TRUE(comes_true([] { return proves("anna", "anna-secret"); }));
}

TEST_F(LiveLookupTest, DomainThatIsDownLeavesTheOthersUsable) {
  Slapd down(root_ + "/down", kLiveSuffix, kLiveSchema, live_ldif());  // never started
  write_settings("", down.url());
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(who_is("LAB\\lena"), "0: lena@lab.example.com");
  EXPECT_EQ(who_is("lena@lab.example.com"), "0: lena@lab.example.com");
  EXPECT_EQ(who_is("HQ\\lena"), "81");
  EXPECT_EQ(who_is("lena"), "81") << "the other domain may have one, too";
  EXPECT_EQ(groups_of("LAB\\lena"), "81:") << "a shorter list would be a wrong one";
  EXPECT_TRUE(proves("LAB\\lena", "lena-secret"));
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

TEST_F(HalfSnapshotTest, StoppedServersSlowNobody) {
  server_->stop();
  EXPECT_EQ(who_is("lena"), "32") << "when nobody can be asked the snapshot's word counts";
  for (const char* user : {"someone", "lena", "other"}) {
    EXPECT_LT(time_of([&] { EXPECT_EQ(who_is(user), "32"); }), milliseconds(500)) << user;
  }
  EXPECT_LT(time_of([] { EXPECT_EQ(who_is("anna"), "0: anna@corp.example.com"); }), milliseconds(500));
  EXPECT_FALSE(proves("anna", "anna-secret"));
  ASSERT_TRUE(server_->start());
  EXPECT_TRUE(comes_true([] { return who_is("lena") == "0: lena@lab.example.com"; }));
  EXPECT_TRUE(comes_true([] { return proves("anna", "anna-secret"); }));
}

TEST_F(HalfSnapshotTest, FrozenServerIsNoticedByAFewAndUsedAgainLater) {
  ASSERT_EQ(who_is("lena"), "0: lena@lab.example.com");
  server_->freeze();
  std::vector<std::thread> stuck;
  std::atomic<size_t> not_stuck{0};
  for (int client = 0; client < 12; ++client) {
    stuck.emplace_back([client, &not_stuck] {
      const std::string name = "unknown" + std::to_string(client);
      const milliseconds took = time_of([&] { EXPECT_EQ(who_is(name), "32"); });
      EXPECT_LT(took, milliseconds(8000));
      if (took < milliseconds(900)) ++not_stuck;  // OperationTimeout is a second
    });
  }
  for (int round = 0; round < 50; ++round) {
    EXPECT_LT(time_of([] { EXPECT_EQ(who_is("anna"), "0: anna@corp.example.com"); }), milliseconds(500));
  }
  for (std::thread& client : stuck) client.join();
  EXPECT_GE(not_stuck, 12 - velder::UnknownNames::kMostQuestions);
  EXPECT_LT(time_of([] { EXPECT_EQ(who_is("lena"), "32"); }), milliseconds(500));
  EXPECT_LT(time_of([] { EXPECT_FALSE(proves("anna", "anna-secret")); }), milliseconds(8000));
  server_->thaw();
  EXPECT_TRUE(comes_true([] { return who_is("lena") == "0: lena@lab.example.com"; }));
  EXPECT_TRUE(comes_true([] { return proves("anna", "anna-secret"); }));
}

TEST_F(HalfSnapshotTest, BrokenReloadKeepsWhatIsInUse) {
  const std::string good = read(path("LdapSetting.ini"));
  ASSERT_EQ(who_is("anna"), "0: anna@corp.example.com");
  const std::pair<const char*, const char*> rows[] = {
      {"LdapSetting.ini", "[LDAP_Setting]\nSource=ldap\n"},
      {"LdapSetting.ini", "[Domain_1]\nDnsName=corp.example.com\nServers=http://x\n"},
      {"directory.db", "no snapshot"},
      {"directory.db", nullptr}};  // gone
  for (const auto& [file, text] : rows) {
    write("LdapSetting.ini", good);
    if (text == nullptr)
      std::filesystem::remove(path(file));
    else
      write(file, text);
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

TEST_F(HalfSnapshotTest, ChildOfAForkAsksByItself) {
  ASSERT_EQ(who_is("lena"), "0: lena@lab.example.com");
  const auto in_child = [] {
    const pid_t child = fork();
    if (child == 0) {
      const bool good = who_is("anna") == "0: anna@corp.example.com" &&
                        who_is("lena") == "0: lena@lab.example.com" && proves("lena", "lena-secret");
      _exit(good ? 0 : 1);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  EXPECT_EQ(in_child(), 0);
  EXPECT_EQ(groups_of("lena"), "0: <Domain Users> <inner> <Outer> <ring one> <ring two> <Staff>")
      << "the child has closed nothing of ours";
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
    std::this_thread::sleep_for(milliseconds(10));
  }
  stop = true;
  for (std::thread& client : clients) client.join();
}

}  // namespace
