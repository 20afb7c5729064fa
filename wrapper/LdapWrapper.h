// The daemon's face of the directory library: forwards every call, adds nothing. Callable from every
// thread; results are the library's, see libvelder/LdapModule.h.
#pragma once

#include <list>
#include <memory>
#include <string>

#include "libvelder/LdapModule.h"

class LdapWrapper {
 public:
  static int initialize(const char* workdir, bool flag);
  static int search_users(const std::string& name, int flag, std::list<UserMeta>& users);
  static int search_groups(const std::string& name, int flag, std::list<GroupMeta>& groups);
  static int get_user_groups(const std::string& user, std::list<GroupMeta>& groups);
  static int get_group_groups(const std::string& group, int flag, std::list<GroupMeta>& groups);
  static int get_all_users(std::list<std::string> groups, int is_dn, std::list<GroupUserMeta>& group_users);
  static int get_user_info(const std::string& user, std::string& domain_dns, std::string& uid,
                           std::string& cn, std::string& dn, std::string& upn);
  static std::shared_ptr<const KnownUser> get_known_user(const std::string& user);

  // 0 when the library proved the credential, else -1.
  static int validate_credential(const char* user, const char* password);
  static int validate_negotiate_message(const char* token, std::string& clientinfo, std::string& returnmsg,
                                        bool& neednego);

 private:
  static LdapModule ldap;  // one per process: the library exists as long as this does
};
