#include "handler/HandlerInternal.h"

QuickWork g_user_look_ups;

int get_user_attributes(const std::string& user, UserRecord& record) {
  return LdapWrapper::get_user_info(user, record.domain_dns, record.uid, record.cn, record.dn, record.upn);
}

int get_user_record(const std::string& user, UserRecord& record) {
  const int code = get_user_attributes(user, record);
  return code != 0 ? code : LdapWrapper::get_user_groups(user, record.groups);
}

void fill_user_info(const std::string& user_ln, UserRecord& record, Velder::UserInfo* info) {
  info->set_user_ln(user_ln);
  info->set_domain_dns(record.domain_dns);
  info->set_uid(record.uid);
  info->set_cn(record.cn);
  info->set_dn(record.dn);
  info->set_upn(record.upn);
  fill_groups(record.groups, info->mutable_grouplist());
}

void fill_groups(std::list<GroupMeta>& groups,
                 google::protobuf::RepeatedPtrField<Velder::GroupInfo>* group_list) {
  for (GroupMeta& group : groups) {
    Velder::GroupInfo* info = group_list->Add();
    info->set_dn(std::move(group.dn));
    info->set_cn(std::move(group.cn));
  }
}
