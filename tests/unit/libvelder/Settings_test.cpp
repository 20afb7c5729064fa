#include "libvelder/Settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace velder {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SettingsTest : public testing::Test {
 protected:
  SettingsTest() {
    std::string pattern = testing::TempDir() + "settings.XXXXXX";
    workdir_ = ::mkdtemp(pattern.data());
  }
  ~SettingsTest() override { std::filesystem::remove_all(workdir_); }

  Result<Settings> load(const std::string& text) {
    std::ofstream(workdir_ + "/LdapSetting.ini") << text;
    return load_settings(workdir_);
  }

  std::string workdir_;
};

TEST_F(SettingsTest, AMissingFileGivesTheDefaults) {
  const Result<Settings> settings = load_settings(workdir_);
  ASSERT_TRUE(settings.has_value()) << settings.error().text;
  EXPECT_EQ(settings->source, Source::kLdif);
  EXPECT_EQ(settings->ldif_file, workdir_ + "/directory.ldif");
  EXPECT_EQ(settings->search_limit, 1000U);
  EXPECT_EQ(settings->shrink_guard, 20U);
  EXPECT_EQ(settings->refused_password_memory, 60U);
  EXPECT_THAT(settings->domains, IsEmpty());
  EXPECT_TRUE(settings->negotiate_replay_cache);
}

TEST_F(SettingsTest, EveryKeyIsRead) {
  const Result<Settings> settings = load(R"([LDAP_Setting]
SyncInterval=30
Source = LDAP
LdifFile=/data/other.ldif
SearchLimit = 0
ShrinkGuard=100
RefusedPasswordMemory=5
[Domain_10]
DnsName=Lab.Example
Servers = ldaps://[2001:db8::1]:1636/
NetbiosName=LABOR
StartTLS=no
[Domain_2]
DnsName=corp.example
Servers = ldap://dc1.corp.example	LDAP://10.0.0.1:389
BaseDN=OU=People,DC=corp,DC=example
BindDN=reader@corp.example
BindPasswordFile=secret
StartTLS=Yes
CACertFile=/etc/ca.pem
Schema=rfc2307bis
ConnectTimeout=1
OperationTimeout=60
[NTLM]
UserFile=users
[Negotiate]
Keytab=http.keytab
Service=HTTP@proxy.example
ReplayCache=no
)");
  ASSERT_TRUE(settings.has_value()) << settings.error().text;
  EXPECT_THAT(settings->warnings, IsEmpty());
  EXPECT_EQ(settings->source, Source::kLdap);
  EXPECT_EQ(settings->ldif_file, "/data/other.ldif");
  EXPECT_EQ(settings->search_limit, 0U);
  EXPECT_EQ(settings->shrink_guard, 100U);
  EXPECT_EQ(settings->refused_password_memory, 5U);
  EXPECT_EQ(settings->ntlm_user_file, workdir_ + "/users");
  EXPECT_EQ(settings->negotiate_keytab, workdir_ + "/http.keytab");
  EXPECT_EQ(settings->negotiate_service, "HTTP@proxy.example");
  EXPECT_FALSE(settings->negotiate_replay_cache);

  ASSERT_EQ(settings->domains.size(), 2U);
  const Domain& corp = settings->domains[0];
  EXPECT_EQ(corp.section, "Domain_2") << "ordered by number, not as text";
  EXPECT_EQ(corp.netbios_name, "CORP");
  EXPECT_THAT(corp.servers, ElementsAre("ldap://dc1.corp.example", "LDAP://10.0.0.1:389"));
  EXPECT_EQ(corp.base_dn, "OU=People,DC=corp,DC=example");
  EXPECT_EQ(corp.bind_dn, "reader@corp.example");
  EXPECT_EQ(corp.bind_password_file, workdir_ + "/secret");
  EXPECT_TRUE(corp.start_tls);
  EXPECT_EQ(corp.ca_cert_file, "/etc/ca.pem");
  EXPECT_EQ(corp.schema, Schema::kRfc2307bis);
  EXPECT_EQ(corp.connect_timeout, 1U);
  EXPECT_EQ(corp.operation_timeout, 60U);
  const Domain& lab = settings->domains[1];
  EXPECT_EQ(lab.dns_name, "lab.example");
  EXPECT_EQ(lab.base_dn, "DC=lab,DC=example");
  EXPECT_EQ(lab.schema, Schema::kAd);
  EXPECT_EQ(lab.connect_timeout, 3U);
  EXPECT_EQ(lab.operation_timeout, 10U);

  EXPECT_EQ(netbios_name_of(*settings, "LAB.example"), "LABOR");
  EXPECT_EQ(netbios_name_of(*settings, "sub.corp.example"), "SUB");
  EXPECT_EQ(netbios_name_of(*settings, ""), "");
}

TEST_F(SettingsTest, TheSourceFollowsTheDomainSections) {
  const Result<Settings> ldap = load("[Domain_1]\nDnsName=a.b\nServers=ldap://x\n");
  ASSERT_TRUE(ldap.has_value()) << ldap.error().text;
  EXPECT_EQ(ldap->source, Source::kLdap);
  const Result<Settings> ldif = load("[LDAP_Setting]\nSource=ldif\n[Domain_1]\nDnsName=a.b\n");
  ASSERT_TRUE(ldif.has_value()) << ldif.error().text;
  EXPECT_EQ(ldif->source, Source::kLdif);
}

struct Wrong {
  std::string text;
  std::string key;  // with its section
  std::string expected;
};

TEST_F(SettingsTest, WrongValuesAreNamed) {
  const std::string general = "[LDAP_Setting]\n";
  const std::string domain = "[Domain_1]\nDnsName=a.b\nServers=ldap://x\n";
  const std::vector<Wrong> cases = {
      {general + "Source ldap\n", "line 2: '=' missing", "key = value"},
      {"[LDAP_Setting\n", "line 1: closing ']' missing", "[section]"},
      {"Source=ldif\n", "line 1: no section before it", "[section]"},
      {general + "Source=file\n", "[LDAP_Setting] Source is \"file\"", "ldif, ldap"},
      {general + "Source=ldap\n", "[LDAP_Setting] Source is \"ldap\"", "[Domain_1]"},
      {general + "SearchLimit=\n", "SearchLimit is \"\"", "a number from 0"},
      {general + "SearchLimit=10x\n", "SearchLimit is \"10x\"", "a number from 0"},
      {general + "SearchLimit=-1\n", "SearchLimit", "a number"},
      {general + "SearchLimit=99999999999999999999\n", "SearchLimit", "a number"},
      {general + "ShrinkGuard=101\n", "ShrinkGuard is \"101\"", "from 0 to 100"},
      {general + "RefusedPasswordMemory=1.5\n", "RefusedPasswordMemory", "a number"},
      {"[Domain_1]\nServers=ldap://x\n", "[Domain_1] DnsName is missing", "DNS domain name"},
      {"[Domain_1]\nDnsName=a..b\nServers=ldap://x\n", "DnsName is \"a..b\"", "DNS domain name"},
      {"[Domain_1]\nDnsName=a\\b\nServers=ldap://x\n", "DnsName", "DNS domain name"},
      {"[Domain_1]\nDnsName=a.b\n", "[Domain_1] Servers is missing", "ldap://"},
      {"[Domain_1]\nDnsName=a.b\nServers=http://x\n", "Servers is \"http://x\"", "ldap://"},
      {"[Domain_1]\nDnsName=a.b\nServers=x\n", "Servers", "ldap://"},
      {"[Domain_1]\nDnsName=a.b\nServers=ldap://\n", "Servers", "ldap://"},
      {"[Domain_1]\nDnsName=a.b\nServers=ldap://x:0\n", "Servers", "ldap://"},
      {"[Domain_1]\nDnsName=a.b\nServers=ldap://x:65536\n", "Servers", "ldap://"},
      {"[Domain_1]\nDnsName=a.b\nServers=ldap://x/DC=a\n", "Servers", "ldap://"},
      {"[Domain_1]\nDnsName=a.b\nServers=ldap://[::1\n", "Servers", "ldap://"},
      {"[Domain_1]\nDnsName=a.b\nServers=ldap://x,ldap://y\n", "Servers", "ldap://"},
      {"[Domain_1]\nDnsName=a.b\nServers=ldaps://x\nStartTLS=yes\n", "StartTLS is \"yes\"", "no, because"},
      {domain + "StartTLS=true\n", "StartTLS is \"true\"", "yes, no"},
      {domain + "Schema=openldap\n", "Schema is \"openldap\"", "ad, rfc2307, rfc2307bis"},
      {domain + "ConnectTimeout=0\n", "ConnectTimeout is \"0\"", "from 1"},
      {domain + "OperationTimeout=abc\n", "OperationTimeout", "from 1"},
      {domain + "BaseDN=people\n", "BaseDN is \"people\"", "distinguished name"},
      {domain + "NetbiosName=A\\B\n", "NetbiosName", "NetBIOS"},
      {domain + "BindDN=cn=x\n", "[Domain_1] BindPasswordFile is missing", "BindDN is set"},
      {domain + "BindPasswordFile=x\n", "[Domain_1] BindDN is missing", "BindPasswordFile is set"},
      {domain + "[Domain_2]\nDnsName=A.B\nServers=ldap://y\n", "[Domain_2] DnsName is \"A.B\"", "[Domain_1]"},
      {"[Domain_x]\nDnsName=a.b\n", "[Domain_x]", "Domain_<number>"},
      {"[domain_1]\nDnsName=a.b\n", "[domain_1]", "Domain_<number>"},
      {"[Domain_01]\nDnsName=a.b\n", "[Domain_01]", "Domain_<number>"},
      {"[Negotiate]\nReplayCache=0\n", "[Negotiate] ReplayCache is \"0\"", "yes, no"},
      {"[Negotiate]\nService=HTTP@a HTTP@b\n", "[Negotiate] Service", "one name"},
      {"[Negotiate]\nService=HTTP/a\n", "[Negotiate] Service is \"HTTP/a\"", "one name"},
  };
  for (const Wrong& row : cases) {
    const Result<Settings> settings = load(row.text);
    ASSERT_FALSE(settings.has_value()) << row.text;
    const std::string text = settings.error().text;
    EXPECT_THAT(text, HasSubstr(workdir_ + "/LdapSetting.ini: ")) << row.text;
    EXPECT_THAT(text, HasSubstr(row.key)) << row.text;
    EXPECT_THAT(text, HasSubstr(row.expected)) << row.text;
  }
}

TEST_F(SettingsTest, WhatNobodyReadsIsAWarning) {
  const Result<Settings> settings = load(
      "[LDAP_Setting]\nsearchlimit=5\nFoo=1\nSyncInterval=soon\n[Other]\nx=y\n"
      "[Domain_1]\nDnsName=a.x\nServers=ldap://x\nBindPassword=hush\n"
      "[Domain_2]\nDnsName=a.y\nServers=ldap://y\n");
  ASSERT_TRUE(settings.has_value()) << settings.error().text;
  EXPECT_EQ(settings->search_limit, 1000U);
  EXPECT_THAT(settings->warnings, testing::UnorderedElementsAre(
                                      HasSubstr("searchlimit is not known, did you mean SearchLimit?"),
                                      HasSubstr("[LDAP_Setting] Foo is not known"), HasSubstr("SyncInterval"),
                                      HasSubstr("[Other]"), HasSubstr("[Domain_1] BindPassword is not known"),
                                      HasSubstr("same NetbiosName A")));
  for (const std::string& warning : settings->warnings) EXPECT_THAT(warning, Not(HasSubstr("hush")));
}

TEST_F(SettingsTest, AllProblemsAreFoundInOneRunWithTheirLines) {
  std::ofstream(workdir_ + "/LdapSetting.ini") << "[LDAP_Setting]\n"                       // 1
                                                  "SearchLimit=many\n"                     // 2
                                                  "ShrinkGard=10\n"                        // 3
                                                  "no syntax\n"                            // 4
                                                  "[Negotiat]\n"                           // 5
                                                  "Keytab=x\n"                             // 6
                                                  "[Domain_1]\n"                           // 7
                                                  "Servers=http://x\n"                     // 8
                                                  "Schema=rfc\n"                           // 9
                                                  "[Domain_2]\n"                           // 10
                                                  "DnsName=a.b\nServers=ldap://x\n"        // 11, 12
                                                  "ConnectTimeout=1\nConnectTimeout=0\n";  // 13, 14
  std::vector<std::string> found;
  for (const SettingsProblem& problem : examine_settings(workdir_).problems) {
    found.push_back((problem.fatal ? "!" : "?") + std::to_string(problem.line) + " " +
                    problem.text.substr(0, problem.text.find(',')) +
                    (problem.text.find("did you mean") == std::string::npos
                         ? ""
                         : problem.text.substr(problem.text.rfind(' '))));
  }
  EXPECT_THAT(found,
              testing::UnorderedElementsAre(
                  "!2 [LDAP_Setting] SearchLimit is \"many\"",
                  "?3 [LDAP_Setting] ShrinkGard is not known ShrinkGuard?", "!4 '=' missing",
                  "?5 the section [Negotiat] is not known [Negotiate]?", "!7 [Domain_1] DnsName is missing",
                  "!8 [Domain_1] Servers is \"http://x\"", "!9 [Domain_1] Schema is \"rfc\"",
                  "!14 [Domain_2] ConnectTimeout is \"0\"", "?14 [Domain_2] ConnectTimeout is given again"));
  EXPECT_FALSE(load_settings(workdir_).has_value());
}

TEST_F(SettingsTest, AFileThatCannotBeReadIsAnError) {
  ASSERT_EQ(::mkdir((workdir_ + "/LdapSetting.ini").c_str(), 0700), 0);
  const Result<Settings> settings = load_settings(workdir_);
  ASSERT_FALSE(settings.has_value());
  EXPECT_THAT(settings.error().text, HasSubstr("LdapSetting.ini: cannot be read"));
}

TEST_F(SettingsTest, AWorkingDirectoryOfFullLengthWorks) {
  std::string workdir = workdir_;
  while (workdir.size() + 101 < 510) workdir += "/" + std::string(100, 'd');
  workdir += "/" + std::string(510 - workdir.size(), 'd');
  ASSERT_EQ(workdir.size(), 511U);
  std::filesystem::create_directories(workdir);
  std::ofstream(workdir + "/LdapSetting.ini") << "[LDAP_Setting]\nSearchLimit=7\n";
  const Result<Settings> settings = load_settings(workdir);
  ASSERT_TRUE(settings.has_value()) << settings.error().text;
  EXPECT_EQ(settings->search_limit, 7U);
  EXPECT_EQ(settings->ldif_file, workdir + "/directory.ldif");
}

}  // namespace
}  // namespace velder
