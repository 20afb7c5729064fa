// A working directory of its own for each test, and a small directory with one of every kind in it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <list>
#include <sstream>
#include <string>
#include <string_view>

#include "libvelder/LdapModule.h"
#include "tests/unit/Support.h"

using support::in_child;
using support::read_file;

// LDIF of an entry a line: DN, object class, attributes; a line may go on behind two blanks. %c and %l stand
// for the two domains of the tests.
inline std::string ldif_of(std::string entries) {
  const auto replace = [](std::string& text, std::string_view from, std::string_view to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
      text.replace(at, from.size(), to);
  };
  replace(entries, "\n  |", "|");
  replace(entries, "%c", ",dc=corp,dc=example,dc=com");
  replace(entries, "%l", ",dc=lab,dc=example,dc=com");
  std::istringstream lines(entries);
  std::string ldif;
  for (std::string line; std::getline(lines, line);) {
    line.replace(line.find('|'), 1, "\nobjectClass: ");
    replace(line, "|", "\n");
    ldif += "dn: " + line + "\n\n";
  }
  return ldif;
}

// Two domains: corp.example.com (CORP) and lab.example.com. "Strasse" is written with a sharp s once; cn and
// dn are in an order that is neither that of the file nor that of the bytes.
inline const std::string kSampleLdif = ldif_of(R"(dc=corp,dc=example,dc=com|domain
CN=Zoe Adams,OU=People%c|user|cn: Zoe Adams|sAMAccountName: zoe|uid: ignored
  |userPrincipalName: z.adams@example.com|userPassword: {CLEARTEXT}zoe-secret|userPassword: second-secret
  |primaryGroupID: 513|objectSid: S-1-5-21-1-2-3-1105
cn=bob brown,ou=People%c|inetOrgPerson|cn: bob brown|uid: bob|userPassword: bob-secret
  |memberOf: cn=Writers,ou=Groups%c|memberOf: cn=No Such Group%c
cn=Bob Brown,ou=People%l|person|cn: Bob Brown|uid: bob|userAccountControl: 514|userPassword: lab-secret
cn=Carl,ou=People%l|posixAccount|cn: Carl|uid: carl|userPrincipalName: bob@lab.example.com
cn=Jörg Groß,ou=People%c|user|cn: Jörg Groß|userPassword: {UNKNOWN}x
cn=100%_*\22\5C odd%l|person|cn: 100%_*"\ odd|uid: odd
cn=PC1%c|user|objectClass: computer|cn: PC1|sAMAccountName: PC1$
cn=%c|person
cn=Writers,ou=Groups%c|groupOfUniqueNames|cn: Writers
  |uniqueMember: CN=Zoe Adams, OU=People, DC=corp, DC=example, DC=com#'0101'B|uniqueMember: cn=nobody%c
cn=Staff,ou=Groups%c|groupOfNames|cn: Staff|member: cn=Writers,ou=Groups%c|member: cn=Circle,ou=Groups%c
cn=Circle,ou=Groups%c|group|cn: Circle|member: cn=Staff,ou=Groups%c|member: cn=Circle,ou=Groups%c
cn=Domain Users,cn=Users%c|group|cn: Domain Users|objectSid:: AQUAAAAAAAUVAAAAAQAAAAIAAAADAAAAAQIAAA==
cn=unix,ou=Groups%l|posixGroup|cn: unix|memberUid: BOB
cn=staff,ou=Groups%l|groupOfNames|cn: staff|member: cn=unix,ou=Groups%l
)");

class SampleDirectory : public ::testing::Test {
 protected:
  SampleDirectory() { write("directory.ldif", kSampleLdif); }

  std::string path(const std::string& name) const { return workdir_ + "/" + name; }
  std::string snapshot() const { return path("directory.db"); }

  // Beside and renamed, as an administrator should.
  void write(const std::string& name, const std::string& text) const {
    support::write_file(path(name) + ".draft", text);
    std::filesystem::rename(path(name) + ".draft", path(name));
  }
  int initialize() const { return LdapModule::initialize(workdir_.c_str(), true); }

  // Answers as one line, "code: first second ...", for comparing.
  static std::string groups_of(const std::string& user) {
    std::list<GroupMeta> groups;
    return line(LdapModule::get_user_groups(user, groups), groups);
  }
  static std::string groups_in(const std::string& group, int flag) {
    std::list<GroupMeta> groups;
    return line(LdapModule::get_group_groups(group, flag, groups), groups);
  }
  static std::string find_groups(const std::string& name, int flag) {
    std::list<GroupMeta> groups;
    return line(LdapModule::search_groups(name, flag, groups), groups);
  }
  static std::string find_users(const std::string& name, int flag) {
    std::list<UserMeta> users;
    return line(LdapModule::search_users(name, flag, users), users);
  }
  static std::string users_of(std::list<std::string> groups, int is_dn) {
    std::list<GroupUserMeta> records;
    return line(LdapModule::get_all_users(std::move(groups), is_dn, records), records);
  }
  static std::string who_is(const std::string& user) {
    std::string domain_dns, uid, cn, dn, upn;
    const int code = LdapModule::get_user_info(user, domain_dns, uid, cn, dn, upn);
    return std::to_string(code) + (code == 0 ? ": " + uid + "@" + domain_dns : "");
  }
  static bool proves(const char* user, const char* password) {
    return LdapModule::validate_credential(user, password, nullptr);
  }

  const support::TempDir folder_;
  const std::string root_ = folder_.path();
  std::string workdir_ = root_;

 private:
  static std::string text_of(const UserMeta& user) { return user.uid; }
  static std::string text_of(const GroupMeta& group) { return "<" + group.cn + ">"; }
  static std::string text_of(const GroupUserMeta& record) {
    std::string text = "[" + record.group_dn.substr(3, record.group_dn.find(',') - 3);
    for (const std::string& user : record.users) text += " " + user;
    return text + "]";
  }
  template <class List>
  static std::string line(int code, const List& list) {
    std::string text = std::to_string(code) + ":";
    for (const auto& one : list) text += " " + text_of(one);
    return text;
  }
};
