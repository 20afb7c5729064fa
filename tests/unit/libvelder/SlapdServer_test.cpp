// Sessions and pools with a real server. Skipped where slapd is not installed.
#include "tests/unit/libvelder/SlapdServer.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>

#include "libvelder/BindCheck.h"
#include "libvelder/ServerPool.h"

namespace {

using namespace std::chrono_literals;
using velder::BindVerdict;
using velder::Domain;
using velder::LdapConnection;
using velder::LdifRecord;
using velder::Result;
using velder::SearchRequest;
using velder::ServerPool;

using Clock = std::chrono::steady_clock;

class SlapdTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (slapd::installed()) server_ = std::make_unique<slapd::Server>();
  }
  static void TearDownTestSuite() { server_.reset(); }
  void SetUp() override {
    if (!server_) GTEST_SKIP() << "slapd or openssl is not installed";
  }

  static LdapConnection open_as(const std::string& name) {
    auto connection = LdapConnection::open(server_->domain(), server_->url());
    if (!connection) throw std::runtime_error(connection.error().text);
    const auto bound = connection->bind("cn=" + name + ",dc=example,dc=com", "secret");
    EXPECT_EQ(bound.verdict, BindVerdict::kProven) << bound.text;
    return std::move(*connection);
  }

  struct Found {
    int code = 0;
    std::set<std::string> dns;
  };
  static Found search(LdapConnection& connection, const std::string& filter) {
    SearchRequest request;
    request.base = "dc=example,dc=com";
    request.filter = filter;
    request.attributes = {"cn"};
    Found found;
    const auto result = connection.search(request, [&](LdifRecord& entry) -> Result<void> {
      found.dns.insert(entry.dn);
      return {};
    });
    found.code = result ? 0 : result.error().code;
    return found;
  }

  static std::unique_ptr<slapd::Server> server_;
};
std::unique_ptr<slapd::Server> SlapdTest::server_;

TEST_F(SlapdTest, CertificatesAreCheckedForEachSessionByItself) {
  const struct {
    const char* name;
    const char* ca;
    bool start_tls;
    std::string url;
    const char* error;  // null: connected
  } rows[] = {
      {"ldaps", "ca.pem", false, server_->tls_url(), nullptr},
      {"ldaps, another CA", "other-ca.pem", false, server_->tls_url(), "other-ca.pem"},
      {"ldaps after a failure", "ca.pem", false, server_->tls_url(), nullptr},
      {"StartTLS", "ca.pem", true, server_->url(), nullptr},
      {"StartTLS, another CA", "other-ca.pem", true, server_->url(), "other-ca.pem"},
      {"the system's CAs", "", false, server_->tls_url(), "the system trusts"},
      {"a name that the certificate lacks", "ca.pem", false, server_->tls_url("localhost"), "no TLS: "},
      {"no such file", "missing.pem", false, server_->tls_url(), "cannot read"},
      {"a file without certificates", "slapd.conf", false, server_->tls_url(), "no TLS"},
      {"a plain port", "ca.pem", false, "ldaps" + server_->url().substr(4), "no TLS"},
  };
  for (const auto& row : rows) {
    Domain domain = server_->domain();
    domain.ca_cert_file = *row.ca == '\0' ? "" : server_->file(row.ca);
    domain.start_tls = row.start_tls;
    velder::OpenStages stages;
    auto connection = LdapConnection::open(domain, row.url, &stages);
    ASSERT_EQ(connection.has_value(), row.error == nullptr) << row.name << ": " << connection.error().text;
    EXPECT_EQ(stages.tls, row.error == nullptr) << row.name;
    if (connection) {
      EXPECT_EQ(connection->bind("uid=user7,ou=people,dc=example,dc=com", "pw7").verdict,
                BindVerdict::kProven);
    } else {
      EXPECT_EQ(connection.error().code, 81) << row.name;
      EXPECT_NE(connection.error().text.find(row.error), std::string::npos)
          << row.name << ": " << connection.error().text;
    }
  }
}

TEST_F(SlapdTest, EverythingIsReadInPagesAcrossTheServersSizeLimit) {
  LdapConnection connection = open_as("reader");
  const Found found = search(connection, "(uid=user*)");
  EXPECT_EQ(found.code, 0);
  EXPECT_EQ(found.dns.size(), size_t{slapd::kUsers});
}

TEST_F(SlapdTest, ASizeLimitLeavesWhatWasReadBefore) {
  LdapConnection connection = open_as("small");
  const Found found = search(connection, "(uid=user*)");
  EXPECT_EQ(found.code, 4);
  EXPECT_EQ(found.dns.size(), 300U);
}

TEST_F(SlapdTest, AServerWithoutPagesIsReadAllTheSame) {
  LdapConnection connection = open_as("pageless");
  const Found found = search(connection, "(uid=user*)");
  EXPECT_EQ(found.code, 0);
  EXPECT_EQ(found.dns.size(), size_t{slapd::kUsers});
}

TEST_F(SlapdTest, ABigRequestAndABigAnswerPassThroughTls) {
  auto connection = LdapConnection::open(server_->domain(), server_->tls_url());
  ASSERT_TRUE(connection) << connection.error().text;
  ASSERT_EQ(connection->bind("cn=reader,dc=example,dc=com", "secret").verdict, BindVerdict::kProven);
  SearchRequest request;
  request.base = "dc=example,dc=com";
  request.attributes = {"jpegPhoto"};
  request.filter = "(|(cn=photo)";
  for (int i = 0; i < 5'000; ++i) request.filter += "(uid=nobody" + std::to_string(i) + ")";
  request.filter += ")";
  std::string photo;
  const auto result = connection->search(request, [&](LdifRecord& entry) -> Result<void> {
    photo = entry.attributes.at(0).value;
    return {};
  });
  ASSERT_TRUE(result) << result.error().text;
  EXPECT_TRUE(photo == slapd::Server::photo()) << photo.size();
}

TEST_F(SlapdTest, PasswordsAreProvenOrNot) {
  auto connection = LdapConnection::open(server_->domain(), server_->url());
  ASSERT_TRUE(connection);
  const std::string user = "uid=user8,ou=people,dc=example,dc=com";
  EXPECT_EQ(connection->bind(user, "pw8").verdict, BindVerdict::kProven);
  EXPECT_EQ(*connection->who_am_i(), "dn:" + user);
  EXPECT_EQ(connection->bind(user, "PW8").verdict, BindVerdict::kWrong);
  EXPECT_EQ(*connection->who_am_i(), "") << "a refused bind leaves nobody";
  EXPECT_EQ(connection->bind("uid=nobody,dc=example,dc=com", "pw8").verdict, BindVerdict::kWrong);
  EXPECT_EQ(connection->bind(user, "").verdict, BindVerdict::kWrong);
  EXPECT_EQ(connection->bind("no dn", "pw8").verdict, BindVerdict::kCannotTell);
  EXPECT_EQ(connection->bind("cn=reset,dc=example,dc=com", "secret").verdict, BindVerdict::kAccount);
  EXPECT_FALSE(connection->bound());
}

TEST_F(SlapdTest, ALockedAccountIsToldFromAWrongPassword) {
  const ServerPool::Probes none = ServerPool::Probes::kNone;
  ServerPool pool(server_->domain(), none);
  velder::BindCheck check(60);
  const std::string user = "cn=locked,dc=example,dc=com";
  // Repeating one wrong password costs the account one failure of three.
  for (int i = 0; i < 10; ++i) EXPECT_EQ(check.check(pool, user, "wrong").verdict, BindVerdict::kWrong);
  EXPECT_EQ(check.check(pool, user, "secret").verdict, BindVerdict::kProven) << "locked by repetition";
  for (const char* password : {"a", "b", "c"})
    EXPECT_EQ(check.check(pool, user, password).verdict, BindVerdict::kWrong);
  const auto locked = check.check(pool, user, "secret");
  EXPECT_EQ(locked.verdict, BindVerdict::kAccount) << locked.text;
  EXPECT_NE(locked.text.find("locked"), std::string::npos) << locked.text;
}

TEST_F(SlapdTest, TheServerDescribesItself) {
  auto connection = LdapConnection::open(server_->domain(), server_->url());
  ASSERT_TRUE(connection);
  const auto root = connection->read_root_dse();
  ASSERT_TRUE(root) << root.error().text;
  EXPECT_EQ(root->naming_contexts, std::vector<std::string>{"dc=example,dc=com"});
  EXPECT_TRUE(root->offers_paging);

  Domain domain = server_->domain();
  domain.servers = {server_->tls_url()};
  domain.schema = velder::Schema::kRfc2307bis;
  const auto good = ServerPool(domain, ServerPool::Probes::kNone).probe_all().at(0);
  EXPECT_TRUE(good.works() && good.tls && good.bound && good.base_found && good.offers_paging) << good.error;
  EXPECT_EQ(good.naming_contexts, 1U);
  domain.base_dn = "dc=example,dc=org";
  const auto bad = ServerPool(domain, ServerPool::Probes::kNone).probe_all().at(0);
  EXPECT_TRUE(bad.bound && !bad.base_found);
  EXPECT_NE(bad.error.find("No such object"), std::string::npos) << bad.error;
}

TEST_F(SlapdTest, AFrozenServerIsLeftAndThePreferredOneComesBack) {
  const slapd::Server second;
  Domain domain = server_->domain();
  domain.servers = {server_->url(), second.url()};
  domain.connect_timeout = domain.operation_timeout = 1;
  ServerPool pool(domain);
  const auto read_from = [&] {
    std::string url;
    const auto result = pool.read([&](LdapConnection& connection) -> Result<void> {
      url = connection.url();
      auto root = connection.read_root_dse();
      if (!root) return tl::unexpected(root.error());
      return {};
    });
    return result ? url : result.error().text;
  };
  const std::string user = "uid=user9,ou=people,dc=example,dc=com";
  EXPECT_EQ(read_from(), server_->url());

  server_->freeze();
  const auto start = Clock::now();
  EXPECT_EQ(pool.check_bind(user, "pw9").verdict, BindVerdict::kProven);
  EXPECT_EQ(read_from(), second.url());
  EXPECT_LT(Clock::now() - start, 4s);

  server_->thaw();
  const auto end = Clock::now() + 20s;
  while (read_from() != server_->url() && Clock::now() < end) std::this_thread::sleep_for(50ms);
  EXPECT_EQ(read_from(), server_->url());
  EXPECT_EQ(pool.check_bind(user, "pw9").verdict, BindVerdict::kProven);
}

}  // namespace
