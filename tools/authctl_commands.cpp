#include "tools/authctl_commands.h"

#include <unistd.h>

#include <iostream>
#include <optional>
#include <string_view>

#include "client/Connection.h"
#include "handler/Velder.pb.h"
#include "tools/authctl_format.h"
#include "tools/authctl_input.h"

namespace authctl {
namespace {

using velder_client::Connection;
using velder_client::ErrorKind;

// Messages may quote what the daemon, a resolver or the user said.
void complain(std::string_view text) {
  std::cerr << "authctl: " << printable(text) << '\n';
}

int exit_code_of(const velder_client::Error& error) {
  const bool own_fault = error.kind == ErrorKind::kInvalidRequest || error.kind == ErrorKind::kInvalidAddress;
  return own_fault ? kExitUsage : kExitNoAnswer;
}

std::optional<Connection> connect(const Settings& settings, int* exit_code) {
  velder_client::Options options;
  options.connect_timeout = settings.timeout;
  options.call_timeout = settings.timeout;
  auto connection = Connection::open(settings.server, options);
  if (connection) return std::move(*connection);
  complain(connection.error().text);
  *exit_code = exit_code_of(connection.error());
  return std::nullopt;
}

// Sends the request; without an answer it complains, sets the exit code and returns false.
bool ask_on(Connection& connection, int type, const google::protobuf::Message& request,
            google::protobuf::Message& answer, int* exit_code) {
  const auto called = connection.call(type, request, answer);
  if (called) return true;
  complain(called.error().text);
  *exit_code = exit_code_of(called.error());
  return false;
}

int report_result(Family family, int result) {
  if (result == 0) return kExitSuccess;
  const std::string_view words = result_words(family, result);
  std::string text = "result " + std::to_string(result);
  if (!words.empty()) text.append(": ").append(words);
  complain(text);
  return kExitOtherResult;
}

// A result that cannot be written, on a full disk for one, must not look like a success.
int flushed(int exit_code) {
  if (std::cout.flush()) return exit_code;
  complain("cannot write to standard output");
  return kExitNoAnswer;
}

// Prints an answer as JSON or through `print`, then the result code.
template <class Response, class Print>
int show(const Settings& settings, const Response& answer, Family family, Print print) {
  if (settings.json) {
    std::cout << to_json(answer) << '\n';
  } else {
    print(answer);
  }
  return flushed(report_result(family, answer.result()));
}

// The whole life of a command with one request.
template <class Response, class Request, class Print>
int ask(const Settings& settings, Velder::MessageType type, const Request& request, Family family,
        Print print) {
  int exit_code = kExitNoAnswer;
  std::optional<Connection> connection = connect(settings, &exit_code);
  Response answer;
  if (!connection || !ask_on(*connection, type, request, answer, &exit_code)) return exit_code;
  return show(settings, answer, family, print);
}

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

// A token line from standard input; empty after a complaint.
std::string read_token(std::string_view what) {
  auto line = read_line(STDIN_FILENO);
  if (!line) {
    complain(std::string(what) + ": " + line.error());
    return {};
  }
  if (line->ends_with('\r')) line->pop_back();
  if (line->empty()) complain(std::string(what) + ": the line is empty");
  return std::move(*line);
}

// One leg of the NTLM exchange. Without an answer it sets the exit code and returns false.
bool ntlm_leg(Connection& connection, int message_type, const Settings& settings, std::string& token,
              Velder::NTLMAuthResponse& answer, int* exit_code) {
  Velder::NTLMAuthRequest request;
  request.set_messagetype(message_type);
  request.set_clientip(settings.ip);
  request.set_requestcontent(token);
  velder_client::wipe(token);
  const bool answered = ask_on(connection, Velder::NTLM_AUTH_REQUEST, request, answer, exit_code);
  velder_client::wipe(*request.mutable_requestcontent());
  return answered;
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

int ntlm(const Settings& settings) {
  std::string token = read_token("type 1 message");
  if (token.empty()) return kExitUsage;
  int exit_code = kExitNoAnswer;
  std::optional<Connection> connection = connect(settings, &exit_code);
  Velder::NTLMAuthResponse challenge;
  if (!connection || !ntlm_leg(*connection, 1, settings, token, challenge, &exit_code)) return exit_code;
  const auto print = [](const Velder::NTLMAuthResponse& answer) {
    if (answer.result() == 0) std::cout << printable(answer.responsecontent()) << '\n';
  };
  // Shown at once: whoever makes the type 3 message needs the challenge for it.
  exit_code = show(settings, challenge, Family::kToken, print);
  if (exit_code != kExitSuccess) return exit_code;

  token = read_token("type 3 message");
  if (token.empty()) return kExitUsage;
  Velder::NTLMAuthResponse verdict;
  if (!ntlm_leg(*connection, 2, settings, token, verdict, &exit_code)) return exit_code;
  return show(settings, verdict, Family::kToken, print);
}

int negotiate(const Settings& settings) {
  std::string token = settings.token == "-" ? read_token("token") : settings.token;
  if (token.empty()) return kExitUsage;
  Velder::NEGOAuthRequest request;
  request.set_requestcontent(token);
  velder_client::wipe(token);
  const auto print = [](const Velder::NEGOAuthResponse& answer) {
    print_field(std::cout, "result", std::to_string(answer.result()));
    print_field(std::cout, "principal", answer.clientinfo());
    print_field(std::cout, "answer", answer.returnmsg());
    print_field(std::cout, "next leg", answer.neednego() ? "needed" : "not needed");
  };
  const int exit_code =
      ask<Velder::NEGOAuthResponse>(settings, Velder::NEGO_AUTH_REQUEST, request, Family::kToken, print);
  velder_client::wipe(*request.mutable_requestcontent());
  return exit_code;
}

}  // namespace authctl
