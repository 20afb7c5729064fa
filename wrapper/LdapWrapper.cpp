#include "wrapper/LdapWrapper.h"

#include <utility>

LdapModule LdapWrapper::ldap;

int LdapWrapper::initialize(const char* workdir, bool flag) {
  return LdapModule::initialize(workdir, flag);
}

int LdapWrapper::search_users(const std::string& name, int flag, std::list<UserMeta>& users) {
  return LdapModule::search_users(name, flag, users);
}

int LdapWrapper::search_groups(const std::string& name, int flag, std::list<GroupMeta>& groups) {
  return LdapModule::search_groups(name, flag, groups);
}

int LdapWrapper::get_user_groups(const std::string& user, std::list<GroupMeta>& groups) {
  return LdapModule::get_user_groups(user, groups);
}

int LdapWrapper::get_group_groups(const std::string& group, int flag, std::list<GroupMeta>& groups) {
  return LdapModule::get_group_groups(group, flag, groups);
}

int LdapWrapper::get_all_users(std::list<std::string> groups, int is_dn,
                               std::list<GroupUserMeta>& group_users) {
  return LdapModule::get_all_users(std::move(groups), is_dn, group_users);
}

int LdapWrapper::get_user_info(const std::string& user, std::string& domain_dns, std::string& uid,
                               std::string& cn, std::string& dn, std::string& upn) {
  return LdapModule::get_user_info(user, domain_dns, uid, cn, dn, upn);
}

std::shared_ptr<const KnownUser> LdapWrapper::get_known_user(const std::string& user) {
  return LdapModule::get_known_user(user);
}

int LdapWrapper::validate_credential(const char* user, const char* password) {
  return LdapModule::validate_credential(user, password, nullptr) ? 0 : -1;
}

int LdapWrapper::validate_negotiate_message(const char* token, std::string& clientinfo,
                                            std::string& returnmsg, bool& neednego) {
  return LdapModule::validate_negotiate_message(token, clientinfo, returnmsg, neednego) ? 0 : -1;
}
