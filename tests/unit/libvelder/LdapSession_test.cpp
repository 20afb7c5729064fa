// Sessions with a real server, where the integration tests do not look: several in one process, a server
// without pages, answers beyond a TLS record. Skipped where slapd is not installed.
#include <gtest/gtest.h>

#include <memory>

#include "libvelder/LdapConnection.h"
#include "tests/unit/libvelder/Slapd.h"

namespace {

using velder::BindVerdict;
using velder::LdapConnection;
using velder::LdifRecord;
using velder::Result;
using velder::SearchRequest;

class LdapSessionTest : public testing::Test {
 protected:
  static constexpr size_t kUsers = 1200;

  void SetUp() override {
    if (!Slapd::installed()) GTEST_SKIP() << "slapd or openssl is not installed";
    std::string pattern = testing::TempDir() + "sessionXXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
    for (uint32_t i = 0, seed = 1; i < 300'000; ++i, seed = seed * 1664525 + 1013904223)
      long_text_ += static_cast<char>('a' + (seed >> 24) % 26);  // nothing in it repeats itself
    std::string accounts = account("reset", "pwdReset: TRUE") + account("long", "description: " + long_text_);
    for (size_t i = 0; i < kUsers; ++i) accounts += account("user" + std::to_string(i), "uid: x");
    server_ = std::make_unique<Slapd>(
        folder_,
        Slapd::Content{"dc=x",
                       "dn: dc=x\nobjectClass: domain\ndc: x\n\n"
                       "dn: cn=policy,dc=x\nobjectClass: device\nobjectClass: pwdPolicy\ncn: policy\n"
                       "pwdAttribute: userPassword\npwdMustChange: TRUE\n\n" +
                           accounts,
                       "moduleload ppolicy\n",
                       "limits * size.soft=unlimited size.hard=unlimited size.prtotal=disabled\n"
                       "overlay ppolicy\nppolicy_default \"cn=policy,dc=x\"\n",
                       true});
    server_->start();
  }
  void TearDown() override {
    server_.reset();
    if (!folder_.empty()) std::filesystem::remove_all(folder_);
  }

  static std::string account(const std::string& name, const std::string& more) {
    return "dn: cn=" + name + ",dc=x\nobjectClass: inetOrgPerson\ncn: " + name +
           "\nsn: x\nuserPassword: secret\n" + more + "\n\n";
  }
  velder::Domain domain(const std::string& ca) const {
    velder::Domain result;
    result.ca_cert_file = ca.empty() ? "" : server_->file(ca);
    result.connect_timeout = 2;
    result.operation_timeout = 5;
    return result;
  }
  // The values of `attribute` that a search finds.
  static std::vector<std::string> values(LdapConnection& connection, const std::string& filter,
                                         const std::string& attribute) {
    SearchRequest request;
    request.base = "dc=x";
    request.filter = filter;
    request.attributes = {attribute};
    std::vector<std::string> found;
    const auto result = connection.search(request, [&](LdifRecord& entry) -> Result<void> {
      for (const auto& one : entry.attributes) found.push_back(one.value);
      return {};
    });
    EXPECT_TRUE(result) << result.error().text;
    return found;
  }

  std::string folder_;
  std::string long_text_;
  std::unique_ptr<Slapd> server_;
};

TEST_F(LdapSessionTest, CertificatesAreCheckedForEachSessionByItself) {
  const struct {
    const char* name;
    const char* ca;
    bool start_tls;
    std::string url;
    const char* error;  // null: connected
  } rows[] = {
      {"ldaps", "ca.pem", false, server_->tls_url(), nullptr},
      {"ldaps, another CA", "other-ca.pem", false, server_->tls_url(), "other-ca.pem"},
      {"StartTLS after a failure", "ca.pem", true, server_->url(), nullptr},
      {"the system's CAs", "", false, server_->tls_url(), "the system trusts"},
      {"a file without certificates", "slapd.conf", false, server_->tls_url(), "no TLS"},
      {"a plain port", "ca.pem", false, "ldaps" + server_->url().substr(4), "no TLS"},
  };
  for (const auto& row : rows) {
    velder::Domain settings = domain(row.ca);
    settings.start_tls = row.start_tls;
    velder::OpenStages stages;
    auto connection = LdapConnection::open(settings, row.url, &stages);
    ASSERT_EQ(connection.has_value(), row.error == nullptr) << row.name;
    EXPECT_EQ(stages.tls, row.error == nullptr) << row.name;
    if (connection) {
      EXPECT_EQ(connection->bind("cn=user7,dc=x", "secret").verdict, BindVerdict::kProven) << row.name;
    } else {
      EXPECT_EQ(connection.error().code, 81) << row.name;
      EXPECT_NE(connection.error().text.find(row.error), std::string::npos) << connection.error().text;
    }
  }
}

TEST_F(LdapSessionTest, WithoutPagesAndBeyondOneRecordEverythingIsRead) {
  auto connection = LdapConnection::open(domain("ca.pem"), server_->tls_url());
  ASSERT_TRUE(connection) << connection.error().text;
  ASSERT_EQ(connection->bind("cn=user7,dc=x", "secret").verdict, BindVerdict::kProven);
  EXPECT_EQ(values(*connection, "(cn=user*)", "cn").size(), kUsers);
  std::string filter = "(|(cn=long)";
  for (int i = 0; i < 5'000; ++i) filter += "(uid=nobody" + std::to_string(i) + ")";
  EXPECT_TRUE(values(*connection, filter + ")", "description") == std::vector{long_text_});
}

TEST_F(LdapSessionTest, APasswordThatMustBeChangedProvesNothing) {
  auto connection = LdapConnection::open(domain(""), server_->url());
  ASSERT_TRUE(connection) << connection.error().text;
  EXPECT_EQ(connection->bind("cn=reset,dc=x", "secret").verdict, BindVerdict::kAccount);
  EXPECT_FALSE(connection->bound());
  EXPECT_EQ(connection->bind("cn=user7,dc=x", "secret").verdict, BindVerdict::kProven);
  EXPECT_TRUE(connection->bound());
  EXPECT_EQ(connection->bind("cn=user7,dc=x", "wrong").verdict, BindVerdict::kWrong);
  EXPECT_FALSE(connection->bound()) << "a refused bind leaves nobody";
}

}  // namespace
