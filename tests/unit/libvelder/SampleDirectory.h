// A working directory of its own for each test, and a small directory with one of every kind in it.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <list>
#include <sstream>
#include <string>
#include <vector>

#include "libvelder/LdapModule.h"

// Two domains: corp.example.com (CORP) and lab.example.com. "Strasse" is written with a sharp s once; cn and
// dn are in an order that is neither that of the file nor that of the bytes.
inline constexpr char kSampleLdif[] = R"(version: 1

dn: dc=corp,dc=example,dc=com
objectClass: domain

dn: CN=Zoe Adams,OU=People,DC=corp,DC=example,DC=com
objectClass: user
cn: Zoe Adams
sAMAccountName: zoe
uid: ignored
userPrincipalName: z.adams@example.com
userPassword: {CLEARTEXT}zoe-secret
userPassword: second-secret
primaryGroupID: 513
objectSid: S-1-5-21-1-2-3-1105

dn: cn=bob brown,ou=People,dc=corp,dc=example,dc=com
objectClass: inetOrgPerson
cn: bob brown
uid: bob
userPassword: bob-secret
memberOf: cn=Writers,ou=Groups,dc=corp,dc=example,dc=com
memberOf: cn=No Such Group,dc=corp,dc=example,dc=com

dn: cn=Bob Brown,ou=People,dc=lab,dc=example,dc=com
objectClass: person
cn: Bob Brown
uid: bob
userAccountControl: 514
userPassword: lab-secret

dn: cn=Carl,ou=People,dc=lab,dc=example,dc=com
objectClass: posixAccount
cn: Carl
uid: carl
userPrincipalName: bob@lab.example.com

dn:: Y249SsO2cmcgR3Jvw58sb3U9UGVvcGxlLGRjPWNvcnAsZGM9ZXhhbXBsZSxkYz1jb20=
objectClass: user
cn:: SsO2cmcgR3Jvw58=
userPassword: {UNKNOWN}x

dn: cn=100%_*\22\5C odd,dc=lab,dc=example,dc=com
objectClass: person
cn: 100%_*"\ odd
uid: odd

dn: cn=PC1,dc=corp,dc=example,dc=com
objectClass: user
objectClass: computer
cn: PC1
sAMAccountName: PC1$

dn: cn=,dc=corp,dc=example,dc=com
objectClass: person

dn: cn=Writers,ou=Groups,dc=corp,dc=example,dc=com
objectClass: groupOfUniqueNames
cn: Writers
uniqueMember: CN=Zoe Adams, OU=People, DC=corp, DC=example, DC=com#'0101'B
uniqueMember: cn=nobody,dc=corp,dc=example,dc=com

dn: cn=Staff,ou=Groups,dc=corp,dc=example,dc=com
objectClass: groupOfNames
cn: Staff
member: cn=Writers,ou=Groups,dc=corp,dc=example,dc=com
member: cn=Circle,ou=Groups,dc=corp,dc=example,dc=com

dn: cn=Circle,ou=Groups,dc=corp,dc=example,dc=com
objectClass: group
cn: Circle
member: cn=Staff,ou=Groups,dc=corp,dc=example,dc=com
member: cn=Circle,ou=Groups,dc=corp,dc=example,dc=com

dn: cn=Domain Users,cn=Users,dc=corp,dc=example,dc=com
objectClass: group
cn: Domain Users
objectSid:: AQUAAAAAAAUVAAAAAQAAAAIAAAADAAAAAQIAAA==

dn: cn=unix,ou=Groups,dc=lab,dc=example,dc=com
objectClass: posixGroup
cn: unix
memberUid: BOB

dn: cn=staff,ou=Groups,dc=lab,dc=example,dc=com
objectClass: groupOfNames
cn: staff
member: cn=unix,ou=Groups,dc=lab,dc=example,dc=com
)";

class SampleDirectory : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string name = (std::filesystem::temp_directory_path() / "velder-XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    root_ = name;
    workdir_ = root_;
    write("directory.ldif", kSampleLdif);
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::permissions(root_, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(root_, ignored);
  }

  std::string path(const std::string& name) const { return workdir_ + "/" + name; }
  std::string snapshot() const { return path("directory.db"); }

  // Beside and renamed, as an administrator should.
  void write(const std::string& name, const std::string& text) const {
    const std::string draft = path(name) + ".draft";
    std::ofstream(draft, std::ios::binary) << text;
    std::filesystem::rename(draft, path(name));
  }
  static std::string read(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
  }
  int initialize() const { return LdapModule::initialize(workdir_.c_str(), true); }

  // Answers as one line, "code: first second ...", for comparing.
  static std::string groups_of(const std::string& user) {
    std::list<GroupMeta> groups;
    const int code = LdapModule::get_user_groups(user, groups);
    return line(code, groups);
  }
  static std::string groups_in(const std::string& group, int flag) {
    std::list<GroupMeta> groups;
    const int code = LdapModule::get_group_groups(group, flag, groups);
    return line(code, groups);
  }
  static std::string find_users(const std::string& name, int flag) {
    std::list<UserMeta> users;
    const int code = LdapModule::search_users(name, flag, users);
    std::string text = std::to_string(code) + ":";
    for (const UserMeta& user : users) text += " " + user.uid;
    return text;
  }
  static std::string find_groups(const std::string& name, int flag) {
    std::list<GroupMeta> groups;
    const int code = LdapModule::search_groups(name, flag, groups);
    return line(code, groups);
  }
  static std::string users_of(std::list<std::string> groups, int is_dn) {
    std::list<GroupUserMeta> records;
    const int code = LdapModule::get_all_users(std::move(groups), is_dn, records);
    std::string text = std::to_string(code) + ":";
    for (const GroupUserMeta& record : records) {
      text += " [" + record.group_dn.substr(3, record.group_dn.find(',') - 3);
      for (const std::string& user : record.users) text += " " + user;
      text += "]";
    }
    return text;
  }
  static std::string who_is(const std::string& user) {
    std::string domain_dns, uid, cn, dn, upn;
    const int code = LdapModule::get_user_info(user, domain_dns, uid, cn, dn, upn);
    return std::to_string(code) + (code == 0 ? ": " + uid + "@" + domain_dns : "");
  }
  static bool proves(const char* user, const char* password) {
    return LdapModule::validate_credential(user, password, nullptr);
  }

  std::string root_;
  std::string workdir_;

 private:
  static std::string line(int code, const std::list<GroupMeta>& groups) {
    std::string text = std::to_string(code) + ":";
    for (const GroupMeta& group : groups) text += " <" + group.cn + ">";
    return text;
  }
};
