#include "libvelder/Settings.h"

#include <gmock/gmock.h>

#include "tests/unit/libvelder/SampleDirectory.h"

namespace velder {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// Everything that was read, in the order of the documentation.
std::string listed(const Settings& settings) {
  std::ostringstream text;
  text << (settings.source == Source::kLdap ? "ldap " : "ldif ") << settings.ldif_file << " "
       << settings.search_limit << " " << settings.shrink_guard << " " << settings.sync_time_limit << " "
       << settings.refused_password_memory << " " << settings.ntlm_user_file << " "
       << settings.negotiate_keytab << " " << settings.negotiate_service << " "
       << settings.negotiate_replay_cache;
  for (const Domain& one : settings.domains) {
    text << "\n" << one.section << " " << one.dns_name << " " << one.netbios_name;
    for (const std::string& url : one.servers) text << (url == one.servers.front() ? " " : ",") << url;
    text << " " << one.base_dn << " " << one.bind_dn << " " << one.bind_password_file << " " << one.start_tls
         << " " << one.ca_cert_file << (one.schema == Schema::kAd ? " ad " : " rfc2307bis ")
         << one.connect_timeout << " " << one.operation_timeout;
  }
  return text.str();
}

class SettingsTest : public SampleDirectory {
 protected:
  Result<Settings> load(const std::string& text) const {
    write("LdapSetting.ini", text);
    return load_settings(workdir_);
  }
};

TEST_F(SettingsTest, EveryKeyIsRead) {
  const Result<Settings> none = load_settings(workdir_);
  ASSERT_TRUE(none.has_value()) << none.error().text;
  EXPECT_EQ(listed(*none), "ldif " + workdir_ + "/directory.ldif 1000 20 120 60    1");
  const Result<Settings> settings = load(R"([LDAP_Setting]
SyncInterval=30
LdifFile=/data/other.ldif
SearchLimit = 0
ShrinkGuard=100
SyncTimeLimit=15
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
  EXPECT_EQ(listed(*settings),
            "ldap /data/other.ldif 0 100 15 5 " + workdir_ + "/users " + workdir_ +
                "/http.keytab HTTP@proxy.example 0"
                "\nDomain_2 corp.example CORP ldap://dc1.corp.example,LDAP://10.0.0.1:389 "
                "OU=People,DC=corp,DC=example reader@corp.example " +
                workdir_ +
                "/secret 1 /etc/ca.pem rfc2307bis 1 60"
                "\nDomain_10 lab.example LABOR ldaps://[2001:db8::1]:1636/ DC=lab,DC=example   0  ad 3 10");
  EXPECT_EQ(netbios_name_of(*settings, "LAB.example"), "LABOR");
  EXPECT_EQ(netbios_name_of(*settings, "sub.corp.example"), "SUB");
  const Result<Settings> ldif = load("[LDAP_Setting]\nSource=LDIF\n[Domain_1]\nDnsName=a.b\n");
  ASSERT_TRUE(ldif.has_value()) << ldif.error().text;
  EXPECT_EQ(ldif->source, Source::kLdif) << "although there is a domain";
}

TEST_F(SettingsTest, WrongValuesAreNamed) {
  const std::string general = "[LDAP_Setting]\n";
  const std::string domain = "[Domain_1]\nDnsName=a.b\nServers=ldap://x\n";
  const std::string named = "[Domain_1]\nDnsName=a.b\nServers=";
  const struct {
    std::string text;
    std::string key;  // with its section
    std::string expected;
  } cases[] = {
      {"Source=ldif\n", "line 1: no section before it", "[section]"},
      {general + "Source=ldap\n", "[LDAP_Setting] Source is \"ldap\"", "[Domain_1]"},
      {general + "SearchLimit=10x\n", "SearchLimit is \"10x\"", "a number from 0"},
      {"[Domain_1]\nServers=ldap://x\n", "[Domain_1] DnsName is missing", "DNS domain name"},
      {"[Domain_1]\nDnsName=a\\b\n", "DnsName", "DNS domain name"},
      {named + "http://x\n", "Servers is \"http://x\"", "ldap://"},
      {named + "ldap://x:0\n", "Servers", "ldap://"},
      {named + "ldap://x:65536\n", "Servers", "ldap://"},
      {named + "ldap://[::1\n", "Servers", "ldap://"},
      {named + "ldap://x,ldap://y\n", "Servers", "ldap://"},
      {named + "ldaps://x\nStartTLS=yes\n", "StartTLS is \"yes\"", "no, because"},
      {domain + "StartTLS=true\n", "StartTLS is \"true\"", "yes, no"},
      {domain + "ConnectTimeout=0\n", "ConnectTimeout is \"0\"", "from 1"},
      {domain + "BaseDN=people\n", "BaseDN is \"people\"", "distinguished name"},
      {domain + "NetbiosName=A\\B\n", "NetbiosName", "NetBIOS"},
      {domain + "BindDN=cn=x\n", "[Domain_1] BindPasswordFile is missing", "BindDN is set"},
      {domain + "BindPasswordFile=x\n", "[Domain_1] BindDN is missing", "BindPasswordFile is set"},
      {domain + "[Domain_2]\nDnsName=A.B\nServers=ldap://y\n", "[Domain_2] DnsName is \"A.B\"", "[Domain_1]"},
      {"[Domain_01]\nDnsName=a.b\n", "[Domain_01]", "Domain_<number>"},
      {"[Negotiate]\nService=HTTP@a HTTP@b\n", "[Negotiate] Service", "one name"},
  };
  for (const auto& row : cases) {
    const Result<Settings> settings = load(row.text);
    ASSERT_FALSE(settings.has_value()) << row.text;
    const std::string text = settings.error().text;
    EXPECT_THAT(text, StartsWith(workdir_ + "/LdapSetting.ini: ")) << row.text;
    EXPECT_THAT(text, HasSubstr(row.key)) << row.text;
    EXPECT_THAT(text, HasSubstr(row.expected)) << row.text;
  }
  std::filesystem::remove(path("LdapSetting.ini"));
  std::filesystem::create_directory(path("LdapSetting.ini"));
  EXPECT_THAT(load_settings(workdir_).error().text, HasSubstr("LdapSetting.ini: cannot be read"));
}

TEST_F(SettingsTest, ProblemsOfAllSectionsAreFoundInOneRunWithTheirLines) {
  load(
      "[Negotiat]\nKeytab=x\n"                                                               // 1, 2
      "[Domain_1]\nServers=http://x\nSchema=rfc\n"                                           // 3 to 5
      "[Domain_2]\nDnsName=a.b\nServers=ldap://x\nConnectTimeout=1\nConnectTimeout=0\n"      // 6 to 10
      "[Domain_x]\nDnsName=b.c\n[Domain_3]\nDnsName=A.b\nServers=ldap://y\nNetbiosName=B\n"  // 11 to 16
      "[Domain_4]\nDnsName=b.d\nServers=ldap://y\nBindPassword=hush\n"                       // 17 to 20
      "[LDAP_Setting]\nsearchlimit=5\nSyncInterval=soon\n");                                 // 21 to 23
  std::vector<std::string> found;
  for (const SettingsProblem& problem : examine_settings(workdir_).problems) {
    found.push_back((problem.fatal ? "!" : "?") + std::to_string(problem.line) + " " + problem.text);
    EXPECT_THAT(found.back(), Not(HasSubstr("hush")));
  }
  EXPECT_THAT(found,
              testing::UnorderedElementsAre(
                  StartsWith("?1 the section [Negotiat] is not known"),
                  StartsWith("!3 [Domain_1] DnsName is missing"), StartsWith("!4 [Domain_1] Servers is"),
                  StartsWith("!5 [Domain_1] Schema is"), StartsWith("!10 [Domain_2] ConnectTimeout is \"0\""),
                  StartsWith("?10 [Domain_2] ConnectTimeout is given again"),
                  StartsWith("!11 [Domain_x], expected"), StartsWith("!14 [Domain_3] DnsName is \"A.b\""),
                  StartsWith("?20 [Domain_4] BindPassword is not known"),
                  HasSubstr("[Domain_3] and [Domain_4] have the same NetbiosName B"),
                  StartsWith("?22 [LDAP_Setting] searchlimit is not known, did you mean SearchLimit?"),
                  StartsWith("?23 [LDAP_Setting] SyncInterval is \"soon\"")));
  const Result<Settings> settings = load("[LDAP_Setting]\nsearchlimit=5\n");
  ASSERT_TRUE(settings.has_value()) << "a warning only";
  EXPECT_EQ(settings->search_limit, 1000U);
  EXPECT_EQ(settings->warnings.size(), 1U);
}

}  // namespace
}  // namespace velder
