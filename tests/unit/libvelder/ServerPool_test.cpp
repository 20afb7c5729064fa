#include "libvelder/ServerPool.h"

#include <sys/stat.h>

#include <thread>

#include "tests/unit/libvelder/FakeLdapServer.h"
#include "tests/unit/libvelder/SampleDirectory.h"

namespace {

using namespace std::chrono_literals;
using velder::BindVerdict;
using velder::Domain;
using velder::LdapConnection;
using velder::LdifRecord;
using velder::Result;
using velder::ServerPool;

using Clock = std::chrono::steady_clock;

// With a reading account, and an entry that says where it is.
struct Directory : fake::Directory {
  explicit Directory(const std::string& name)
      : fake::Directory({{"cn=reader", {{"userPassword", {"reading"}}}},
                         {"cn=alice", {{"name", {name}}, {"userPassword", {"good"}}}}}) {}
};

class ServerPoolTest : public SampleDirectory {
 protected:
  // As every program does before it has threads: the client library sets itself up in its first session.
  static void SetUpTestSuite() { ASSERT_EQ(prldap_install_routines(nullptr, 1), 0); }

  void SetUp() override { write_password("reading\n"); }

  std::string write_password(const std::string& text, mode_t mode = 0600) const {
    write("password", text);
    EXPECT_EQ(chmod(path("password").c_str(), mode), 0);
    return path("password");
  }

  Domain domain(const std::vector<std::string>& servers) const {
    Domain result;
    result.dns_name = "example.com";
    result.base_dn = "cn=here,dc=x";
    result.servers = servers;
    result.bind_dn = "cn=reader";
    result.bind_password_file = path("password");
    result.connect_timeout = 1;
    result.operation_timeout = 1;
    return result;
  }

  // Reads the entry; which server it came from, or the code of the error.
  static std::string ask(ServerPool& pool) {
    std::string from;
    const auto result = pool.read([&](LdapConnection& connection) {
      return connection.search({}, [&](LdifRecord& entry) -> Result<void> {
        from = entry.attributes.at(0).value;
        return {};
      });
    });
    return result ? from : std::to_string(result.error().code);
  }
  static BindVerdict check(ServerPool& pool, const char* password) {
    return pool.check_bind("cn=alice", password).verdict;
  }
};

TEST_F(ServerPoolTest, OnePasswordIsOneBindOnOneServer) {
  Directory first("first");
  Directory second("second");
  ServerPool pool(domain({first.url(), second.url()}));
  EXPECT_EQ(check(pool, "bad"), BindVerdict::kWrong);
  EXPECT_EQ(first.binds("cn=alice") + second.binds("cn=alice"), 1);
  EXPECT_EQ(check(pool, "good"), BindVerdict::kProven);
  EXPECT_EQ(first.binds("cn=alice"), 2);
  first.mood = Directory::Mood::kUnavailable;
  EXPECT_EQ(check(pool, "good"), BindVerdict::kCannotTell);
  EXPECT_EQ(second.binds("cn=alice"), 0) << "an answer, whatever it says, is not asked for again elsewhere";
  EXPECT_EQ(check(pool, "good"), BindVerdict::kProven) << "the next one is";
  EXPECT_EQ(second.binds("cn=alice"), 1);
  const auto end = Clock::now() + 10s;
  while (first.binds("cn=reader") == 0 && Clock::now() < end) std::this_thread::sleep_for(50ms);
  EXPECT_GT(first.binds("cn=reader"), 0) << "it is probed";
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(ask(pool), "second");
  EXPECT_EQ(first.binds("cn=reader"), 1) << "and not used before a probe succeeds";
}

TEST_F(ServerPoolTest, AConnectionThatSomebodyBoundReadsForNobodyElse) {
  Directory only("only");
  ServerPool pool(domain({only.url()}));
  ASSERT_TRUE(pool.read([](LdapConnection& connection) -> Result<void> {
    connection.bind("cn=alice", "good");
    return {};
  }));
  EXPECT_EQ(ask(pool), "only");
  EXPECT_EQ(only.binds("cn=reader"), 2);
}

TEST_F(ServerPoolTest, ARefusedReadingAccountIsNotTriedAgainAndAgain) {
  Directory only("only");
  ServerPool pool(domain({only.url()}));
  write_password("outdated");
  for (int i = 0; i < 10; ++i) EXPECT_EQ(ask(pool), "49");
  EXPECT_EQ(only.binds("cn=reader"), 1);
  EXPECT_EQ(check(pool, "good"), BindVerdict::kProven) << "the server itself works";
  write_password("reading");
  EXPECT_EQ(ask(pool), "only");
}

TEST_F(ServerPoolTest, AChildUsesNothingThatItInherited) {
  Directory only("only");
  ServerPool pool(domain({only.url()}));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ask(pool), "only");
  EXPECT_EQ(only.connections(), 1) << "an idle one is used again";
  const auto reads_and_checks = [&] {
    return ask(pool) == "only" && check(pool, "good") == BindVerdict::kProven;
  };
  EXPECT_EQ(in_child(reads_and_checks), true);
  EXPECT_EQ(only.connections(), 3);
  EXPECT_EQ(ask(pool), "only");
  EXPECT_EQ(only.connections(), 3) << "the parent's connection was left alone";
}

TEST_F(ServerPoolTest, ThePasswordFileIsTakenAsItIsWhenNobodyElseMayReadIt) {
  EXPECT_EQ(velder::read_password_file(write_password("secret\r\n", 0400)), "secret");
  EXPECT_EQ(velder::read_password_file(write_password(" two words \n\n")), " two words \n");
  for (const mode_t mode : {0640U, 0604U})
    EXPECT_FALSE(velder::read_password_file(write_password("secret", mode)));
  EXPECT_FALSE(velder::read_password_file(write_password(std::string(5000, 'x'))));
  const std::string pipe = path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_FALSE(velder::read_password_file(pipe)) << "and it does not wait for a writer";
}

}  // namespace
