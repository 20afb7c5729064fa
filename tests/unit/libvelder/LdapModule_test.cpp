#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "libvelder/LdapSource.h"
#include "libvelder/Snapshot.h"
#include "tests/unit/libvelder/SampleDirectory.h"

namespace {

constexpr char kOneUser[] = "dn: cn=Eve,dc=corp,dc=example,dc=com\nobjectClass: user\ncn: Eve\n";
constexpr char kZoe[] = "0: zoe@corp.example.com";
constexpr char kZoesGroups[] = "0: <Circle> <Domain Users> <Staff> <Writers>";

class LdapModuleTest : public SampleDirectory {
 protected:
  ino_t inode() const {
    struct stat status {};
    return stat(snapshot().c_str(), &status) == 0 ? status.st_ino : 0;
  }
};

TEST_F(LdapModuleTest, SnapshotIsPrivateAndReplacesALink) {
  write("precious", "not a snapshot");
  std::filesystem::create_symlink(path("precious"), snapshot());
  const mode_t before = umask(0);
  EXPECT_EQ(initialize(), 0);
  umask(before);
  EXPECT_EQ(read_file(path("precious")), "not a snapshot");
  for (const char* name : {"directory.db", "directory.db.lock"}) {
    struct stat status {};
    ASSERT_EQ(lstat(path(name).c_str(), &status), 0) << name;
    EXPECT_EQ(status.st_mode & 07777, 0600U) << name;
  }
}

TEST_F(LdapModuleTest, InitializeRefusesWhatItCannotServe) {
  for (const std::string& ldif :
       {std::string("dn: not a name\nobjectClass: user\ncn: x\n"), std::string(kOneUser) + "\n" + kOneUser}) {
    write("directory.ldif", ldif);
    EXPECT_NE(initialize(), 0) << ldif;
    EXPECT_FALSE(std::filesystem::exists(snapshot()) || std::filesystem::exists(path("directory.db.new")));
  }
  EXPECT_NE(LdapModule::initialize((root_ + "/nowhere").c_str(), true), 0) << "cannot be written";
  std::filesystem::remove(path("directory.ldif"));
  std::filesystem::create_directory(path("directory.ldif"));
  EXPECT_NE(initialize(), 0) << "a directory is no LDIF file";
}

TEST_F(LdapModuleTest, OnlyAChangeBuildsAnew) {
  ASSERT_EQ(initialize(), 0);
  const ino_t first = inode();
  ASSERT_EQ(LdapModule::initialize((root_ + "/.").c_str(), true), 0) << "as the script may spell it";
  write("LdapSetting.ini", "[LDAP_Setting]\nSearchLimit=3\n");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(inode(), first) << "nothing that the file holds has changed";
  // Kept open, so that its inode is not given to the next file.
  const int held = open(snapshot().c_str(), O_RDONLY);
  write("LdapSetting.ini",
        "[Domain_1]\nDnsName=corp.example.com\nNetbiosName=HQ\n[LDAP_Setting]\nSource=ldif\n");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_NE(inode(), first);
  close(held);
  EXPECT_EQ(who_is("HQ\\zoe") + " " + who_is("CORP\\zoe"), kZoe + std::string(" 32"));
  std::filesystem::remove(path("directory.ldif"));
  EXPECT_NE(LdapModule::load_db_cache(), 0) << "away is not empty";
  write("directory.ldif", kOneUser);
  EXPECT_EQ(who_is("zoe"), kZoe) << "not before the reload";
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(who_is("zoe") + " " + who_is("eve"), "32 0: Eve@corp.example.com");
}

TEST_F(LdapModuleTest, WhatHappensToTheFilesDoesNotDisturbReaders) {
  ASSERT_EQ(initialize(), 0);
  ASSERT_EQ(who_is("zoe"), kZoe);
  std::filesystem::remove(snapshot());
  EXPECT_EQ(who_is("zoe"), kZoe);
  write("directory.db", "something else");
  EXPECT_EQ(groups_of("zoe"), kZoesGroups);
  std::thread([] { EXPECT_EQ(who_is("zoe"), kZoe); }).join();
  EXPECT_EQ(in_child([] { return who_is("zoe") == kZoe; }), true) << "a child that finds it broken builds it";
  // A child sees new data, its parent goes on with the old.
  write("directory.ldif", kOneUser);
  const auto reload = [] {
    bool good = LdapModule::load_db_cache() == 0 && who_is("zoe") == "32";
    std::thread([&] { good = good && who_is("eve") == "0: Eve@corp.example.com"; }).join();
    return good;
  };
  EXPECT_EQ(in_child(reload), true);
  EXPECT_EQ(who_is("zoe"), kZoe);

  std::filesystem::remove_all(root_);
  const auto proves_nobody = [] {
    std::string client = "x", answer = "y";
    bool more = true;
    return who_is("zoe") == "1" && !proves("zoe", "zoe-secret") &&
           !LdapModule::validate_negotiate_message("YII=", client, answer, more) && client + answer == "" &&
           !more;
  };
  EXPECT_EQ(in_child(proves_nobody), true) << "a directory that is gone proves nobody";
}

TEST_F(LdapModuleTest, OddAndLongWorkingDirectoriesServe) {
  std::string longest = "/" + std::string(200, 'l') + "/" + std::string(200, 'm') + "/";
  longest += std::string(511 - root_.size() - longest.size(), 'n');
  for (const std::string& name :
       {std::string("/a?immutable=0&mode=rw"), std::string("/50%20#x\xC3\xA4\xFF"), longest}) {
    workdir_ = root_ + name;
    std::filesystem::create_directories(workdir_);
    write("directory.ldif", kSampleLdif);
    EXPECT_EQ(initialize(), 0) << name;
    EXPECT_EQ(who_is("zoe"), kZoe) << name;
    EXPECT_TRUE(std::filesystem::exists(snapshot())) << name;
  }
}

TEST_F(LdapModuleTest, SettingsThatWereCutShortKeepTheServersSnapshot) {
  std::filesystem::remove(path("directory.ldif"));
  write("LdapSetting.ini", "[Domain_1]\nDnsName=x\nServers=ldap://127.0.0.1:1\n");
  // As a synchronisation leaves it: one user, of the ldap source.
  velder::SnapshotBuilder builder({}, {});
  ASSERT_TRUE(builder.add({"cn=a,dc=x", {{"objectclass", "person"}, {"cn", "a"}, {"uid", "alice"}}, 1}));
  velder::SnapshotMeta meta;
  meta.source = velder::kLdapSourceName;
  ASSERT_TRUE(builder.write(path(velder::kSnapshotDraftName), meta));
  ASSERT_TRUE(velder::publish_snapshot(workdir_));
  ASSERT_EQ(initialize(), 0);
  for (const char* cut : {"", "[LDAP_Setting]\nSyncInt", "[LDAP_Sett"}) {
    write("LdapSetting.ini", cut);
    EXPECT_NE(LdapModule::load_db_cache(), 0) << cut;
    EXPECT_EQ(find_users("", 0), "0: alice") << cut;
    EXPECT_NE(initialize(), 0) << cut;
    EXPECT_TRUE(velder::present_ldap_snapshot(workdir_)) << cut;
  }
}

TEST_F(LdapModuleTest, LookUpsUnderReloadsSeeOneOfTheTwoStates) {
  const auto descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  ASSERT_EQ(initialize(), 0);
  const auto before = descriptors();
  std::atomic<bool> stop{false};
  std::vector<std::jthread> threads;
  for (int reader = 0; reader < 3; ++reader) {
    threads.emplace_back([&] {
      while (!stop) {
        const std::string groups = groups_of("zoe");
        EXPECT_TRUE(groups == "32:" || groups == kZoesGroups) << groups;
      }
    });
  }
  std::jthread other_reloads([&](const std::stop_token& enough) {
    while (!enough.stop_requested()) EXPECT_EQ(LdapModule::load_db_cache(), 0);
  });
  for (int round = 0; round < 20; ++round) {
    const bool eve = round % 2 == 0;
    write("directory.ldif", eve ? std::string(kOneUser) : kSampleLdif);
    EXPECT_EQ(LdapModule::load_db_cache(), 0);
    EXPECT_EQ(who_is("eve"), eve ? "0: Eve@corp.example.com" : "32");
  }
  other_reloads.request_stop();
  other_reloads.join();
  stop = true;
  threads.clear();
  ASSERT_EQ(initialize(), 0);
  EXPECT_EQ(descriptors(), before);
}

TEST_F(LdapModuleTest, LongWorkIsAnnouncedAndNothingElseIs) {
  static int announced;
  LdapModule::call_before_long_work([] { ++announced; });
  const auto announces = [](const auto& call) {
    announced = 0;
    call();
    return announced > 0;
  };
  const auto ask = [&](const char* user) { return announces([&] { who_is(user); }); };
  const auto check = [&](const char* user) { return announces([&] { proves(user, "wrong"); }); };
  const auto list = [&](const char* user) { return announces([&] { groups_of(user); }); };

  std::string more = "cn=crypt%c|user|cn: crypt|userPassword: {CRYPT}$1$ab$cd\ncn=many%c|user|cn: many";
  for (int i = 0; i < 17; ++i) more += "|userPassword: " + std::to_string(i);
  std::string groups, same, well_known = "\ncn=well-known%c|user|cn: well-known";
  for (int i = 0; i < 501; ++i) {
    const std::string number = std::to_string(i);
    well_known += "|memberOf: cn=g" + number + "%c";
    groups += "\ncn=g" + number + "%c|group|cn: g";
    same += "\ncn=same" + number + "%c|user|cn: same|uid: same";
  }
  write("directory.ldif", kSampleLdif + ldif_of(more + well_known + groups + same));
  ASSERT_EQ(initialize(), 0);
  EXPECT_TRUE(ask("zoe")) << "the snapshot was to be opened";
  EXPECT_FALSE(ask("zoe") || ask("many") || ask("nobody") || ask("bob"));
  EXPECT_FALSE(check("zoe") || check("nobody") || list("zoe"));
  EXPECT_TRUE(check("crypt") && check("many"));
  EXPECT_TRUE(ask("same")) << "all of that name are looked at";
  for (int round = 0; round < 2; ++round) EXPECT_TRUE(list("well-known")) << "too many groups to be kept";
  EXPECT_FALSE(ask("well-known"));
  EXPECT_EQ(groups_of("well-known").size(), 2 + 501 * 4U) << "and all are listed";
  const auto whole = LdapModule::get_known_user("well-known");
  EXPECT_TRUE(whole && whole->groups.size() == 501) << "in two calls it could be half of another snapshot";
  EXPECT_TRUE(announces([] { find_users("zoe", 0); }) && announces([] { groups_in("staff", 0); }) &&
              announces([] { users_of({"writers"}, 0); }));

  std::filesystem::remove(snapshot());
  write("LdapSetting.ini", "[Domain_1]\nDnsName=corp.example.com\nServers=ldap://127.0.0.1:1\n");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  for (int round = 0; round < 2; ++round) EXPECT_TRUE(ask("zoe") && check("zoe")) << "the servers";
  LdapModule::call_before_long_work(nullptr);
}

}  // namespace
