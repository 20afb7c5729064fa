// Directory queries: parse, ask the directory library, fill, reply. The library's code becomes `result`,
// and a reply is sent whatever it is.
#include <strings.h>

#include <cstring>
#include <iterator>
#include <memory>
#include <utility>

#include "brellog/VrLog.h"
#include "cache/Cache.h"
#include "handler/EventHandler.h"
#include "handler/HandlerInternal.h"

namespace {

constexpr int kUserInfoLifetime = 86400;  // seconds; failures are kept as long as answers

QuickWork g_password_checks;

// A search name that begins with "^" asks for common names that begin with the rest.
struct SearchName {
  explicit SearchName(const std::string& name)
      : prefix_only(name.starts_with('^')), text(name, prefix_only ? 1 : 0) {}

  [[nodiscard]] bool keeps(const std::string& cn) const {
    return !prefix_only || strncasecmp(cn.c_str(), text.c_str(), text.size()) == 0;
  }

  bool prefix_only;
  std::string text;
};

// Result lists can be longer than a socket buffer: these replies are sent as the client takes them.
Outcome reply_deferred(const Frame& frame, const google::protobuf::Message& response) {
  auto task = std::make_unique<SendDataTask>();
  task->fd = frame.fd;
  message2buffer(frame.type + 1, &response, task->data);
  task->sent = 0;
  task->events = EVENT_READ;
  task->callback = tcp_read_socket_handler;
  task->arg = nullptr;
  send_data_handler(frame.fd, EVENT_WRITE, task.release());
  return Outcome::kHandedOver;
}

void fill_found_user(const UserMeta& user, Velder::UserInfo* info) {
  const std::string domain_dns = LdapModule::dn_to_dns_name(user.dn.c_str());
  const std::string user_ln = user.uid + "@" + domain_dns;
  info->set_dn(user.dn);
  info->set_cn(user.cn);
  info->set_uid(user.uid);
  info->set_domain_dns(domain_dns);
  info->set_user_ln(user_ln);
  info->set_upn(user.upn.empty() ? user_ln : user.upn);
}

// Asks the directory for user information and puts the answer into the reply cache. `answer` gets the body
// behind what it holds.
int look_up_user_info(const std::string& user_ln, bool cacheable, std::string& answer) {
  const uint32_t generation = Velder::reply_cache_generation();
  const size_t head = answer.size();
  std::string info;
  Velder::UserInfoQueryResponse response;
  response.set_result(encode_user(Velder::UserInfoQueryResponse::kUserInfoFieldNumber, user_ln, true, info));
  response.AppendPartialToString(&answer);
  answer += info;
  if (cacheable &&
      Velder::update_reply_cache(Velder::USER_INFO_QUERY_REQUEST, user_ln.c_str(),
                                 std::string_view(answer).substr(head), kUserInfoLifetime, generation) != 0) {
    VRLOG(kLogInfo, "Error: fail to update reply cache");
  }
  return response.result();
}

}  // namespace

Outcome handle_user_search(Frame& frame) {
  Velder::UserSearchRequest request;
  if (!parse_request(frame, &request)) return Outcome::kClose;

  const SearchName name(request.name());
  std::list<UserMeta> users;
  Velder::UserSearchResponse response;
  response.set_result(LdapWrapper::search_users(name.text, request.fullmatch(), users));
  for (const UserMeta& user : users) {
    if (name.keeps(user.cn)) fill_found_user(user, response.add_userlist());
  }
  VRLOG(kLogDebug, "message_type(%d), user(%s), rc(%d)", frame.type, name.text.c_str(), response.result());
  return reply_deferred(frame, response);
}

Outcome handle_group_search(Frame& frame) {
  Velder::GroupSearchRequest request;
  if (!parse_request(frame, &request)) return Outcome::kClose;

  const SearchName name(request.name());
  std::list<GroupMeta> groups;
  Velder::GroupSearchResponse response;
  response.set_result(LdapWrapper::search_groups(name.text, request.fullmatch(), groups));
  groups.remove_if([&](const GroupMeta& group) { return !name.keeps(group.cn); });
  fill_groups(groups, response.mutable_grouplist());
  VRLOG(kLogDebug, "message_type(%d) group(%s), rc(%d)", frame.type, name.text.c_str(), response.result());
  return reply_deferred(frame, response);
}

Outcome handle_user_groups(Frame& frame) {
  Velder::UserGroupQueryRequest request;
  if (!parse_request(frame, &request)) return Outcome::kClose;

  std::list<GroupMeta> groups;
  Velder::UserGroupQueryResponse response;
  response.set_result(
      g_user_look_ups.run([&] { return LdapWrapper::get_user_groups(request.user_ln(), groups); }));
  fill_groups(groups, response.mutable_grouplist());
  VRLOG(kLogDebug, "message_type(%d) user(%s), rc(%d)", frame.type, request.user_ln().c_str(),
        response.result());
  return reply(frame, response);
}

Outcome handle_user_validate(Frame& frame) {
  Velder::UserValidateRequest request;
  const WipeAtEnd wiped(request, &Velder::UserValidateRequest::mutable_password);
  if (!parse_request(frame, &request)) return Outcome::kClose;

  Velder::UserValidateResponse response;
  response.set_result(g_password_checks.run([&] {
    return LdapWrapper::validate_credential(whole_text(request.user_ln()), whole_text(request.password()));
  }));
  VRLOG(kLogDebug, "messge_type(%d), validate user(%s), rc(%d)", frame.type,
        request.user_ln().c_str(),  // sic
        response.result());
  return reply(frame, response);
}

Outcome handle_user_info(Frame& frame) {
  Velder::UserInfoQueryRequest request;
  if (!parse_request(frame, &request)) return Outcome::kClose;

  const std::string& user_ln = request.user_ln();
  // The cache's keys end at a NUL: a name with one inside would share the entry of its first half.
  const bool cacheable = user_ln.find('\0') == std::string::npos;
  std::string answer(kHeaderBytes, '\0');
  int result = 0;
  if (cacheable && Velder::search_reply_cache(frame.type, user_ln.c_str(), answer) == 0) {
    VRLOG(kLogDebug, "Debug: in reply cache (%s)", user_ln.c_str());
  } else {
    result = look_up_user_info(user_ln, cacheable, answer);
  }
  VRLOG(kLogDebug, "messge_type(%d), user(%s), rc(%d)", frame.type, user_ln.c_str(), result);  // sic
  return reply_encoded(frame, answer);
}

Outcome handle_group_groups(Frame& frame) {
  Velder::GroupSearchRequest request;
  if (!parse_request(frame, &request)) return Outcome::kClose;

  std::list<GroupMeta> groups;
  Velder::GroupSearchResponse response;
  response.set_result(LdapWrapper::get_group_groups(request.name(), request.fullmatch(), groups));
  fill_groups(groups, response.mutable_grouplist());
  VRLOG(kLogDebug, "message_type(%d) group(%s), rc(%d)", frame.type, request.name().c_str(),
        response.result());
  return reply(frame, response);
}

Outcome handle_all_users(Frame& frame) {
  Velder::AllUserQueryRequest request;
  if (!parse_request(frame, &request)) return Outcome::kClose;

  auto& names = *request.mutable_grouplist();
  std::list<std::string> groups(std::make_move_iterator(names.begin()), std::make_move_iterator(names.end()));
  std::list<GroupUserMeta> group_users;
  Velder::AllUserQueryResponse response;
  response.set_result(LdapWrapper::get_all_users(std::move(groups), request.isdn(), group_users));
  for (const GroupUserMeta& group : group_users) {
    Velder::GroupUsers* record = response.add_groupuserlist();
    record->set_group_dn(group.group_dn);
    for (const std::string& user : group.users) record->add_userlist(user);
  }
  VRLOG(kLogDebug, "message_type(%d), rc(%d)", frame.type, response.result());
  return reply(frame, response);
}
