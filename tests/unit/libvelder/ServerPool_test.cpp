#include "libvelder/ServerPool.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include "libvelder/LdapModule.h"
#include "tests/unit/libvelder/FakeLdapServer.h"

namespace {

using namespace std::chrono_literals;
using velder::BindVerdict;
using velder::Domain;
using velder::LdapConnection;
using velder::LdifRecord;
using velder::Result;
using velder::ServerPool;

using Clock = std::chrono::steady_clock;
constexpr auto kSoon = 4s;

// A server with one entry and two accounts (reader/reading, alice/good) that can be made to misbehave.
class Directory {
 public:
  enum class Mood { kWell, kFrozen, kDisconnecting, kUnavailable };

  std::string url() const { return server_.url(); }
  int connections() const { return server_.connections(); }
  int binds(const std::string& dn) {
    const std::lock_guard lock(mutex_);
    return binds_[dn];
  }
  std::atomic<Mood> mood = Mood::kWell;
  std::atomic<int> searches_per_connection = 1000;  // the next one closes it

 private:
  void serve(fake::Peer& peer) {
    int searches = 0;
    while (const auto request = peer.receive()) {
      if (request->operation == 0x60) count_bind(request->dn);
      if (mood == Mood::kFrozen) return peer.do_nothing();
      if (mood == Mood::kDisconnecting || request->operation == 0x42) return;
      if (request->operation == 0x60)
        peer.send(fake::result(request->id, fake::kBindResponse, judge(*request)));
      if (request->operation != 0x63) continue;
      if (++searches > searches_per_connection) return;
      peer.send(fake::entry(request->id, "cn=here,dc=x", {{"url", {url()}}}));
      peer.send(fake::result(request->id, fake::kSearchDone, 0));
    }
  }
  void count_bind(const std::string& dn) {
    const std::lock_guard lock(mutex_);
    ++binds_[dn];
  }
  int judge(const fake::Request& request) const {
    if (mood == Mood::kUnavailable) return 52;
    const std::map<std::string, std::string> accounts{
        {"cn=reader", "reading"}, {"cn=alice", "good"}, {"", ""}};
    const auto found = accounts.find(request.dn);
    return found != accounts.end() && found->second == request.password ? 0 : 49;
  }

  std::mutex mutex_;
  std::map<std::string, int> binds_;
  fake::Server server_{[this](fake::Peer& peer) { serve(peer); }};
};

class ServerPoolTest : public testing::Test {
 protected:
  // As every program does before it has threads: the client library sets itself up in its first session.
  static void SetUpTestSuite() { ASSERT_EQ(prldap_install_routines(nullptr, 1), 0); }

  void SetUp() override {
    std::string pattern = testing::TempDir() + "poolXXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
    write_password("reading\n");
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string write_password(std::string_view text, mode_t mode = 0600) {
    const std::string file = folder_ / "password";
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
    EXPECT_EQ(chmod(file.c_str(), mode), 0);
    return file;
  }

  Domain domain(const std::vector<std::string>& servers) const {
    Domain result;
    result.dns_name = "example.com";
    result.base_dn = "cn=here,dc=x";
    result.servers = servers;
    result.bind_dn = "cn=reader";
    result.bind_password_file = folder_ / "password";
    result.connect_timeout = 1;
    result.operation_timeout = 1;
    return result;
  }

  // Reads the entry; which server it came from, or the code of the error.
  static std::string read(ServerPool& pool) {
    std::string from;
    const auto result = pool.read([&](LdapConnection& connection) {
      return connection.search({}, [&](LdifRecord& entry) -> Result<void> {
        from = entry.attributes.at(0).value;
        return {};
      });
    });
    return result ? from : std::to_string(result.error().code);
  }

  static std::string read_until(ServerPool& pool, const std::string& wanted, std::chrono::seconds most) {
    const auto end = Clock::now() + most;
    while (read(pool) != wanted && Clock::now() < end) std::this_thread::sleep_for(50ms);
    return read(pool);
  }

  std::filesystem::path folder_;
};

TEST_F(ServerPoolTest, OneWrongPasswordIsOneBindOnOneServer) {
  Directory first;
  Directory second;
  ServerPool pool(domain({first.url(), second.url()}));
  EXPECT_EQ(pool.check_bind("cn=alice", "bad").verdict, BindVerdict::kWrong);
  EXPECT_EQ(first.binds("cn=alice") + second.binds("cn=alice"), 1);
  EXPECT_EQ(pool.check_bind("cn=alice", "good").verdict, BindVerdict::kProven);
  EXPECT_EQ(first.binds("cn=alice"), 2);
  first.mood = Directory::Mood::kUnavailable;
  EXPECT_EQ(pool.check_bind("cn=alice", "good").verdict, BindVerdict::kCannotTell);
  EXPECT_EQ(second.binds("cn=alice"), 0) << "an answer, whatever it says, is not asked for again elsewhere";
  EXPECT_EQ(pool.check_bind("cn=alice", "good").verdict, BindVerdict::kProven) << "the next one is";
  EXPECT_EQ(second.binds("cn=alice"), 1);
}

TEST_F(ServerPoolTest, ThreadsDoNotQueueBehindAFrozenServer) {
  Directory frozen;
  Directory second;
  frozen.mood = Directory::Mood::kFrozen;
  ServerPool pool(domain({frozen.url(), second.url()}));
  const auto start = Clock::now();
  std::atomic<int> right = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([&, i] {
      const bool good = i % 2 == 0 ? read(pool) == second.url()
                                   : pool.check_bind("cn=alice", "good").verdict == BindVerdict::kProven;
      if (good) ++right;
    });
  for (std::thread& one : threads) one.join();
  EXPECT_EQ(right, 8);
  EXPECT_LT(Clock::now() - start, kSoon);
  const auto later = Clock::now();
  EXPECT_EQ(read(pool), second.url());
  EXPECT_LT(Clock::now() - later, 500ms) << "put aside, so nobody waits for it again";
}

TEST_F(ServerPoolTest, AProbeThatIsRefusedForAWhileDoesNotBringTheServerBack) {
  Directory preferred;
  Directory second;
  preferred.mood = Directory::Mood::kFrozen;
  ServerPool pool(domain({preferred.url(), second.url()}));
  EXPECT_EQ(read(pool), second.url());
  preferred.mood = Directory::Mood::kUnavailable;
  EXPECT_EQ(read_until(pool, preferred.url(), 7s), second.url());
  EXPECT_GE(preferred.binds("cn=reader"), 2) << "it was probed";
}

TEST_F(ServerPoolTest, WithEveryServerAsideCallsFailAtOnceAndARestartIsSeen) {
  Directory only;
  only.mood = Directory::Mood::kDisconnecting;
  ServerPool pool(domain({only.url()}));
  EXPECT_EQ(read(pool), "81");
  const auto start = Clock::now();
  const int before = only.connections();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(read(pool), "81");
  EXPECT_LT(Clock::now() - start, 1s);
  EXPECT_LE(only.connections(), before + 1) << "not every call tries it";
  only.mood = Directory::Mood::kWell;
  EXPECT_EQ(read_until(pool, only.url(), 4s), only.url()) << "before the first probe is due";
}

TEST_F(ServerPoolTest, ASessionThatTheServerClosedIsReplacedSilently) {
  Directory only;
  only.searches_per_connection = 1;
  ServerPool pool(domain({only.url()}));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(read(pool), only.url());
  EXPECT_EQ(only.connections(), 3);
}

TEST_F(ServerPoolTest, AConnectionThatSomebodyBoundReadsForNobodyElse) {
  Directory only;
  ServerPool pool(domain({only.url()}));
  ASSERT_TRUE(pool.read([](LdapConnection& connection) -> Result<void> {
    connection.bind("cn=alice", "good");
    return {};
  }));
  EXPECT_EQ(read(pool), only.url());
  EXPECT_EQ(only.connections(), 2);
  EXPECT_EQ(only.binds("cn=reader"), 2);
}

TEST_F(ServerPoolTest, ARefusedReadingAccountIsNotTriedAgainAndAgain) {
  Directory only;
  ServerPool pool(domain({only.url()}));
  write_password("outdated");
  for (int i = 0; i < 10; ++i) EXPECT_EQ(read(pool), "49");
  EXPECT_EQ(only.binds("cn=reader"), 1);
  EXPECT_EQ(pool.check_bind("cn=alice", "good").verdict, BindVerdict::kProven) << "the server itself works";
  write_password("reading");
  EXPECT_EQ(read(pool), only.url());
}

TEST_F(ServerPoolTest, AChildUsesNothingThatItInherited) {
  Directory only;
  ServerPool pool(domain({only.url()}));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(read(pool), only.url());
  EXPECT_EQ(only.connections(), 1) << "an idle one is used again";
  const pid_t child = fork();
  if (child == 0) {
    const bool good =
        read(pool) == only.url() && pool.check_bind("cn=alice", "good").verdict == BindVerdict::kProven;
    _exit(good ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(only.connections(), 3);
  EXPECT_EQ(read(pool), only.url());
  EXPECT_EQ(only.connections(), 3) << "the parent's connection was left alone";
}

TEST_F(ServerPoolTest, ThePasswordFileMustBeForItsOwnerOnly) {
  const struct {
    std::string text;
    mode_t mode;
    const char* expected;  // the password, or a part of the error
  } rows[] = {
      {"secret\r\n", 0400, "secret"}, {" two words \n\n", 0600, " two words \n"},
      {"secret", 0640, "chmod"},      {"secret", 0604, "chmod"},
      {"\n", 0600, "empty"},          {std::string(5000, 'x'), 0600, "longer"},
  };
  for (const auto& row : rows) {
    const auto password = velder::read_password_file(write_password(row.text, row.mode));
    if (password)
      EXPECT_EQ(*password, row.expected);
    else
      EXPECT_NE(password.error().text.find(row.expected), std::string::npos) << password.error().text;
  }
  EXPECT_FALSE(velder::read_password_file(folder_));
  const std::string pipe = folder_ / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_FALSE(velder::read_password_file(pipe)) << "and it does not wait for a writer";
}

}  // namespace
