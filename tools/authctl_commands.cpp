#include "tools/authctl_commands.h"

#include <iostream>
#include <string>

#include "tools/authctl_input.h"
#include "tools/authctl_session.h"

namespace authctl {
namespace {

void nothing_to_print(const google::protobuf::Message& /*answer*/) {}

void say_when_empty(int result, int entries) {
  if (result == 0 && entries == 0) complain("nothing found");
}

int ask_for_groups(const Settings& settings, Velder::MessageType type) {
  Velder::GroupSearchRequest request;
  request.set_name(settings.name);
  request.set_fullmatch(settings.full_match ? 1 : 0);
  const auto print = [](const Velder::GroupSearchResponse& answer) {
    print_groups(std::cout, answer.grouplist());
    say_when_empty(answer.result(), answer.grouplist_size());
  };
  return ask<Velder::GroupSearchResponse>(settings, type, request, Family::kDirectory, print);
}

}  // namespace

int user_search(const Settings& settings) {
  Velder::UserSearchRequest request;
  request.set_name(settings.name);
  request.set_fullmatch(settings.full_match ? 1 : 0);
  const auto print = [&](const Velder::UserSearchResponse& answer) {
    print_users(std::cout, answer.userlist(), settings.long_list ? Columns::kAll : Columns::kUsual);
    say_when_empty(answer.result(), answer.userlist_size());
  };
  return ask<Velder::UserSearchResponse>(settings, Velder::USER_SEARCH_REQUEST, request, Family::kDirectory,
                                         print);
}

int group_search(const Settings& settings) {
  return ask_for_groups(settings, Velder::GROUP_SEARCH_REQUEST);
}

int group_groups(const Settings& settings) {
  return ask_for_groups(settings, Velder::GROUP_GROUP_QUERY_REQUEST);
}

int user_groups(const Settings& settings) {
  Velder::UserGroupQueryRequest request;
  request.set_user_ln(settings.name);
  const auto print = [](const Velder::UserGroupQueryResponse& answer) {
    print_groups(std::cout, answer.grouplist());
    say_when_empty(answer.result(), answer.grouplist_size());
  };
  return ask<Velder::UserGroupQueryResponse>(settings, Velder::USER_GROUP_QUERY_REQUEST, request,
                                             Family::kDirectory, print);
}

int all_users(const Settings& settings) {
  Velder::AllUserQueryRequest request;
  request.set_isdn(settings.by_dn ? 1 : 0);
  for (const std::string& group : settings.groups) request.add_grouplist(group);
  const auto print = [](const Velder::AllUserQueryResponse& answer) {
    print_group_users(std::cout, answer.groupuserlist());
    say_when_empty(answer.result(), answer.groupuserlist_size());
  };
  return ask<Velder::AllUserQueryResponse>(settings, Velder::All_USERS_QUERY_REQUEST, request,
                                           Family::kDirectory, print);
}

int user_info(const Settings& settings) {
  Velder::UserInfoQueryRequest request;
  request.set_user_ln(settings.name);
  const auto print = [](const Velder::UserInfoQueryResponse& answer) {
    // The user may be known while the look-up of the groups failed.
    if (answer.result() == 0 || !answer.userinfo().dn().empty())
      print_user_info(std::cout, answer.userinfo());
  };
  return ask<Velder::UserInfoQueryResponse>(settings, Velder::USER_INFO_QUERY_REQUEST, request,
                                            Family::kDirectory, print);
}

int validate(const Settings& settings) {
  auto password = read_password("Password of " + printable(settings.name) + ": ");
  if (!password) {
    complain("no password: " + password.error());
    return kExitUsage;
  }
  Velder::UserValidateRequest request;
  request.set_user_ln(settings.name);
  request.set_password(*password);
  velder_client::wipe(*password);
  const auto print = [](const Velder::UserValidateResponse& answer) {
    if (answer.result() == 0) std::cout << "the password is right\n";
  };
  const int exit_code = ask<Velder::UserValidateResponse>(settings, Velder::USER_VALIDATE_REQUEST, request,
                                                          Family::kPassword, print);
  velder_client::wipe(*request.mutable_password());
  return exit_code;
}

int bind_address(const Settings& settings) {
  Velder::IPUserBindRequest request;
  request.set_ip(settings.ip);
  request.set_user_ln(settings.name);
  return ask<Velder::IPUserBindResponse>(settings, Velder::IP_USER_BIND_REQUEST, request, Family::kBinding,
                                         nothing_to_print);
}

int unbind_address(const Settings& settings) {
  Velder::IPUserUnBindRequest request;
  request.set_ip(settings.ip);
  return ask<Velder::IPUserUnBindResponse>(settings, Velder::IP_USER_UNBIND_REQUEST, request,
                                           Family::kBinding, nothing_to_print);
}

int ip_query(const Settings& settings) {
  Velder::IPUserQueryRequest request;
  request.set_ip(settings.ip);
  const auto print = [](const Velder::IPUserQueryResponse& answer) {
    if (answer.result() != 0) return;
    if (answer.has_expire_at()) print_field(std::cout, "expires", time_text(answer.expire_at()));
    if (answer.has_userinfo()) print_user_info(std::cout, answer.userinfo());
  };
  return ask<Velder::IPUserQueryResponse>(settings, Velder::IP_USER_QUERY_REQUEST, request, Family::kBinding,
                                          print);
}

int ip_auth(const Settings& settings) {
  Velder::IPAuthRequest request;
  request.set_ip(settings.ip);
  if (settings.wait) request.set_async(1);
  if (settings.scope == "dc") request.set_scope(1);
  if (settings.scope == "client") request.set_scope(2);
  if (settings.scope == "both") request.set_scope(3);
  const auto print = [&](const Velder::IPAuthResponse& answer) {
    if (answer.has_userinfo()) print_user_info(std::cout, answer.userinfo());
    if (answer.result() == 0 && !settings.wait) {
      complain("the daemon asks the agent in the background; ip-query tells what came of it");
    }
  };
  return ask<Velder::IPAuthResponse>(settings, Velder::WMI_AUTH_REQUEST, request, Family::kAgent, print);
}

int export_bindings(const Settings& settings) {
  Velder::IPUserCacheExportRequest request;
  request.set_file_path(settings.name);
  return ask<Velder::IPUserCacheExportResponse>(settings, Velder::IP_USER_CACHE_EXPORT_REQUEST, request,
                                                Family::kExport, nothing_to_print);
}

}  // namespace authctl
