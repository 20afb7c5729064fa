#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "libvelder/LdapSource.h"
#include "libvelder/Snapshot.h"
#include "tests/unit/libvelder/SampleDirectory.h"

namespace {

class LdapModuleTest : public SampleDirectory {
 protected:
  static constexpr char kOneUser[] = "dn: cn=Eve,dc=corp,dc=example,dc=com\nobjectClass: user\ncn: Eve\n";

  // Runs `body` in a child process; what it returned, or 1000 and the signal that ended it.
  static int in_child(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    int status = 0;
    if (waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  }
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
  EXPECT_EQ(read(path("precious")), "not a snapshot");
  for (const char* name : {"directory.db", "directory.db.lock"}) {
    struct stat status {};
    ASSERT_EQ(lstat(path(name).c_str(), &status), 0) << name;
    EXPECT_EQ(status.st_mode & 07777, 0600U) << name;
  }
  EXPECT_FALSE(std::filesystem::exists(path("directory.db.new")));
}

TEST_F(LdapModuleTest, InitializeRefusesWhatItCannotServe) {
  for (const std::string& ldif :
       {std::string("dn: not a name\nobjectClass: user\ncn: x\n"), std::string(kOneUser) + "\n" + kOneUser}) {
    write("directory.ldif", ldif);
    EXPECT_NE(initialize(), 0) << ldif;
    EXPECT_FALSE(std::filesystem::exists(snapshot()));
    EXPECT_FALSE(std::filesystem::exists(path("directory.db.new")));
  }
  EXPECT_NE(LdapModule::initialize(nullptr, true), 0);
  EXPECT_NE(LdapModule::initialize((root_ + "/nowhere").c_str(), true), 0) << "cannot be written";
  std::filesystem::remove(path("directory.ldif"));
  std::filesystem::create_directory(path("directory.ldif"));
  EXPECT_NE(initialize(), 0) << "a directory is no LDIF file";
}

TEST_F(LdapModuleTest, OnlyAChangeBuildsAnew) {
  ASSERT_EQ(initialize(), 0);
  const ino_t first = inode();
  ASSERT_EQ(initialize(), 0);
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
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
  EXPECT_EQ(who_is("HQ\\zoe"), "0: zoe@corp.example.com");
  EXPECT_EQ(who_is("CORP\\zoe"), "32");
  write("directory.ldif", kOneUser);
  EXPECT_EQ(who_is("zoe"), "0: zoe@corp.example.com") << "not before the reload";
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(who_is("zoe") + " " + who_is("eve"), "32 0: Eve@corp.example.com");
}

TEST_F(LdapModuleTest, ReplacedOrRemovedFileDoesNotDisturbReaders) {
  ASSERT_EQ(initialize(), 0);
  ASSERT_EQ(who_is("zoe"), "0: zoe@corp.example.com");
  std::filesystem::remove(snapshot());
  EXPECT_EQ(who_is("zoe"), "0: zoe@corp.example.com");
  write("directory.db", "something else");
  EXPECT_EQ(groups_of("zoe"), "0: <Circle> <Domain Users> <Staff> <Writers>");
  std::thread([] { EXPECT_EQ(who_is("zoe"), "0: zoe@corp.example.com"); }).join();
  EXPECT_EQ(in_child([] { return who_is("zoe") == "0: zoe@corp.example.com" ? 0 : 1; }), 0)
      << "a child that finds it broken builds it";
}

TEST_F(LdapModuleTest, OddAndLongWorkingDirectoriesServe) {
  std::string longest = "/" + std::string(200, 'l') + "/" + std::string(200, 'm') + "/";
  longest += std::string(511 - root_.size() - longest.size(), 'n');
  for (const std::string& name : {std::string("/a?immutable=0&mode=rw"), std::string("/50%20#x"),
                                  std::string("/\xC3\xA4\xFF"), longest}) {
    workdir_ = root_ + name;
    std::filesystem::create_directories(workdir_);
    write("directory.ldif", kSampleLdif);
    write("LdapSetting.ini",
          "[LDAP_Setting]\nSource=ldif\n[Domain_1]\nDnsName=corp.example.com\nNetbiosName=HQ\n");
    EXPECT_EQ(initialize(), 0) << name;
    EXPECT_EQ(who_is("HQ\\zoe"), "0: zoe@corp.example.com") << name;
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
  for (const char* cut : {"", "[LDAP_Setting]\n", "[LDAP_Setting]\nSyncInt", "[LDAP_Sett"}) {
    write("LdapSetting.ini", cut);
    EXPECT_NE(LdapModule::load_db_cache(), 0) << cut;
    EXPECT_EQ(find_users("", 0), "0: alice") << cut;
    EXPECT_NE(initialize(), 0) << cut;
    EXPECT_TRUE(velder::present_ldap_snapshot(workdir_)) << cut;
  }
}

TEST_F(LdapModuleTest, LdifThatIsAwayAtAReloadIsNotAnEmptyOne) {
  ASSERT_EQ(initialize(), 0);
  std::filesystem::rename(path("directory.ldif"), path("away"));
  EXPECT_NE(LdapModule::load_db_cache(), 0);
  EXPECT_EQ(who_is("zoe"), "0: zoe@corp.example.com");
  std::filesystem::rename(path("away"), path("directory.ldif"));
  EXPECT_EQ(LdapModule::load_db_cache(), 0);
}

TEST_F(LdapModuleTest, ADirectoryThatIsGoneProvesNobody) {
  ASSERT_EQ(initialize(), 0);
  std::filesystem::remove_all(root_);
  EXPECT_EQ(who_is("zoe"), "1");
  EXPECT_FALSE(proves("zoe", "zoe-secret"));
  std::string client = "x", answer = "y";
  bool more = true;
  EXPECT_FALSE(LdapModule::validate_negotiate_message("YII=", client, answer, more));
  EXPECT_EQ(client + answer, "");
  EXPECT_FALSE(more);
}

TEST_F(LdapModuleTest, ChildOfAForkOpensItsOwn) {
  ASSERT_EQ(initialize(), 0);
  const auto descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = descriptors();
  ASSERT_EQ(initialize(), 0);
  EXPECT_EQ(descriptors(), before);
  ASSERT_EQ(who_is("zoe"), "0: zoe@corp.example.com");
  // The parent has a connection now. The child sees the new data, the parent goes on with the old.
  write("directory.ldif", kOneUser);
  EXPECT_EQ(in_child([] {
              if (LdapModule::load_db_cache() != 0) return 2;
              int failed = 0;
              std::thread([&] { failed += who_is("eve") != "0: Eve@corp.example.com"; }).join();
              return failed + (who_is("zoe") != "32");
            }),
            0);
  EXPECT_EQ(who_is("zoe"), "0: zoe@corp.example.com");
}

TEST_F(LdapModuleTest, ForkDuringLookUpsLeavesTheChildAble) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer's own allocator may be locked in the child";
#endif
  ASSERT_EQ(initialize(), 0);
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) EXPECT_EQ(who_is("odd"), "0: odd@lab.example.com");
  });
  for (int round = 0; round < 20; ++round) {
    EXPECT_EQ(in_child([] { return who_is("zoe") == "0: zoe@corp.example.com" ? 0 : 1; }), 0);
  }
  stop = true;
  reader.join();
}

TEST_F(LdapModuleTest, LookUpsUnderReloadsSeeOneOfTheTwoStates) {
  ASSERT_EQ(initialize(), 0);
  std::atomic<bool> stop{false};
  std::atomic<int> answers{0};
  std::vector<std::thread> readers;
  for (int reader = 0; reader < 3; ++reader) {
    readers.emplace_back([&] {
      while (!stop) {
        const std::string groups = groups_of("zoe");
        EXPECT_TRUE(groups == "32:" || groups == "0: <Circle> <Domain Users> <Staff> <Writers>") << groups;
        ++answers;
      }
    });
  }
  std::thread second([&] {
    while (!stop) EXPECT_EQ(LdapModule::load_db_cache(), 0);
  });
  for (int round = 0; round < 20; ++round) {
    write("directory.ldif", round % 2 == 0 ? std::string(kOneUser) : kSampleLdif);
    EXPECT_EQ(LdapModule::load_db_cache(), 0);
    EXPECT_EQ(who_is("eve"), round % 2 == 0 ? "0: Eve@corp.example.com" : "32");
  }
  stop = true;
  second.join();
  for (std::thread& reader : readers) reader.join();
  EXPECT_GT(answers, 0);
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

  std::string more = "\ndn: cn=crypt,dc=x\nobjectClass: user\ncn: crypt\nuserPassword: {CRYPT}$1$ab$cd\n";
  more += "\ndn: cn=many,dc=x\nobjectClass: user\ncn: many\n";
  for (int i = 0; i < 17; ++i) more += "userPassword: " + std::to_string(i) + "\n";
  more += "\ndn: cn=well-known,dc=x\nobjectClass: user\ncn: well-known\n";
  for (int i = 0; i < 501; ++i) more += "memberOf: cn=g" + std::to_string(i) + ",dc=x\n";
  for (int i = 0; i < 501; ++i) {
    more += "\ndn: cn=g" + std::to_string(i) + ",dc=x\nobjectClass: group\ncn: g\n";
  }
  for (int i = 0; i < 501; ++i) {
    more += "\ndn: cn=same" + std::to_string(i) + ",dc=x\nobjectClass: user\ncn: same\nuid: same\n";
  }
  write("directory.ldif", kSampleLdif + more);
  ASSERT_EQ(initialize(), 0);
  EXPECT_TRUE(ask("zoe")) << "the snapshot was to be opened";
  EXPECT_FALSE(ask("zoe") || ask("many") || ask("nobody") || ask("bob"));
  EXPECT_FALSE(check("zoe") || check("nobody") || list("zoe"));
  EXPECT_TRUE(check("crypt"));
  EXPECT_TRUE(check("many"));
  EXPECT_TRUE(ask("same")) << "all of that name are looked at";
  for (int round = 0; round < 2; ++round) EXPECT_TRUE(list("well-known")) << "too many groups to be kept";
  EXPECT_FALSE(ask("well-known"));
  const std::string listed = groups_of("well-known");
  EXPECT_EQ(std::count(listed.begin(), listed.end(), '<'), 501);
  EXPECT_TRUE(announces([] { find_users("zoe", 0); }));
  EXPECT_TRUE(announces([] { groups_in("staff", 0); }));
  EXPECT_TRUE(announces([] { users_of({"writers"}, 0); }));

  write("directory.ldif", kSampleLdif);
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_TRUE(list("zoe")) << "another snapshot";
  EXPECT_FALSE(list("zoe"));

  std::filesystem::remove(snapshot());
  write("LdapSetting.ini", "[Domain_1]\nDnsName=corp.example.com\nServers=ldap://127.0.0.1:1\n");
  ASSERT_EQ(LdapModule::load_db_cache(), 0);
  EXPECT_TRUE(ask("zoe"));
  EXPECT_TRUE(ask("zoe")) << "the servers again";
  EXPECT_TRUE(check("zoe"));
  LdapModule::call_before_long_work(nullptr);
}

TEST_F(LdapModuleTest, OneProcessBuildsAndTheOthersUseWhatItBuilt) {
  std::vector<pid_t> children;
  for (int child = 0; child < 6; ++child) {
    const pid_t pid = fork();
    if (pid == 0) _exit(initialize() == 0 && who_is("zoe") == "0: zoe@corp.example.com" ? 0 : 1);
    children.push_back(pid);
  }
  for (const pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  const ino_t built = inode();
  ASSERT_EQ(initialize(), 0);
  EXPECT_EQ(inode(), built);
}

}  // namespace
