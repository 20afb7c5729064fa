#include <google/protobuf/io/coded_stream.h>

#include <cstring>

#include "handler/HandlerInternal.h"

namespace {

using google::protobuf::io::CodedOutputStream;
using Info = Velder::UserInfo;
using Group = Velder::GroupInfo;

// Of a text or message field whose number is below 16: the tag, the length, and what is in it.
size_t size_of_field(size_t length) {
  return 1 + CodedOutputStream::VarintSize32(static_cast<uint32_t>(length)) + length;
}

uint8_t* put_head(int field, size_t length, uint8_t* to) {
  *to++ = static_cast<uint8_t>(field << 3 | 2);
  return CodedOutputStream::WriteVarint32ToArray(static_cast<uint32_t>(length), to);
}

uint8_t* put_text(int field, std::string_view text, uint8_t* to) {
  to = put_head(field, text.size(), to);
  if (!text.empty()) memcpy(to, text.data(), text.size());
  return to + text.size();
}

size_t size_of_group(const KnownUser::Group& group) {
  return size_of_field(group.cn.size()) + size_of_field(group.dn.size());
}

}  // namespace

QuickWork g_user_look_ups;

// In the order of the fields' numbers, as the message's own code would write it.
void append_user_info(int field, const std::string& user_ln, const KnownUser& user, std::string& encoded) {
  size_t length = size_of_field(user_ln.size());
  for (const std::string_view text : {user.domain_dns, user.uid, user.cn, user.dn, user.upn}) {
    length += size_of_field(text.size());
  }
  for (const KnownUser::Group& group : user.groups) length += size_of_field(size_of_group(group));

  const size_t before = encoded.size();
  encoded.resize(before + size_of_field(length));
  auto* to = reinterpret_cast<uint8_t*>(encoded.data() + before);
  to = put_head(field, length, to);
  to = put_text(Info::kUserLnFieldNumber, user_ln, to);
  to = put_text(Info::kDomainDnsFieldNumber, user.domain_dns, to);
  to = put_text(Info::kUidFieldNumber, user.uid, to);
  to = put_text(Info::kCnFieldNumber, user.cn, to);
  to = put_text(Info::kDnFieldNumber, user.dn, to);
  to = put_text(Info::kUpnFieldNumber, user.upn, to);
  for (const KnownUser::Group& group : user.groups) {
    to = put_head(Info::kGroupListFieldNumber, size_of_group(group), to);
    to = put_text(Group::kCnFieldNumber, group.cn, to);
    to = put_text(Group::kDnFieldNumber, group.dn, to);
  }
}

int encode_user(int field, const std::string& user, bool groups_anyway, std::string& encoded) {
  return g_user_look_ups.run([&] {
    if (const auto known = LdapWrapper::get_known_user(user)) {
      append_user_info(field, user, *known, encoded);
      return 0;
    }
    std::string domain_dns, uid, cn, dn, upn;
    std::list<GroupMeta> groups;
    int code = LdapWrapper::get_user_info(user, domain_dns, uid, cn, dn, upn);
    if (code == 0 || groups_anyway) code |= LdapWrapper::get_user_groups(user, groups);
    KnownUser found{domain_dns, uid, cn, dn, upn, {}};
    for (const GroupMeta& group : groups) found.groups.push_back({group.dn, group.cn});
    append_user_info(field, user, found, encoded);
    return code;
  });
}

void fill_groups(std::list<GroupMeta>& groups,
                 google::protobuf::RepeatedPtrField<Velder::GroupInfo>* group_list) {
  for (GroupMeta& group : groups) {
    Velder::GroupInfo* info = group_list->Add();
    info->set_dn(std::move(group.dn));
    info->set_cn(std::move(group.cn));
  }
}
