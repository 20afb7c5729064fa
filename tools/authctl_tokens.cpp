// The commands that carry tokens: a whole exchange as its client, or messages that somebody else made.
#include <unistd.h>

#include <iostream>
#include <string>
#include <string_view>

#include "libvelder/Base64.h"
#include "tools/authctl_input.h"
#include "tools/authctl_session.h"
#include "tools/gss_client.h"

namespace authctl {
namespace {

using gss_client::Client;
using velder_client::Connection;

// A token line from standard input; empty after a complaint.
std::string read_token(std::string_view what) {
  auto line = read_line(STDIN_FILENO, kMaxToken);
  if (!line) {
    complain(std::string(what) + ": " + line.error());
    return {};
  }
  if (line->ends_with('\r')) line->pop_back();
  if (line->empty()) complain(std::string(what) + ": the line is empty");
  return std::move(*line);
}

// One leg of the NTLM exchange. Without an answer it sets the exit code and returns false. Wipes the token.
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

void print_content(const Velder::NTLMAuthResponse& answer) {
  if (answer.result() == 0) std::cout << printable(answer.responsecontent()) << '\n';
}

// Messages that somebody else makes, each on a line.
int carry_ntlm_messages(const Settings& settings) {
  std::string token = read_token("type 1 message");
  if (token.empty()) return kExitUsage;
  int exit_code = kExitNoAnswer;
  std::optional<Connection> connection = connect(settings, &exit_code);
  Velder::NTLMAuthResponse challenge;
  if (!connection || !ntlm_leg(*connection, 1, settings, token, challenge, &exit_code)) return exit_code;
  // Shown at once: whoever makes the type 3 message needs the challenge for it.
  exit_code = show(settings, challenge, Family::kToken, print_content);
  if (exit_code != kExitSuccess) return exit_code;

  token = read_token("type 3 message");
  if (token.empty()) return kExitUsage;
  Velder::NTLMAuthResponse verdict;
  if (!ntlm_leg(*connection, 2, settings, token, verdict, &exit_code)) return exit_code;
  return show(settings, verdict, Family::kToken, print_content);
}

// Our own message in base64; empty after a complaint.
std::string make_token(Client& client, std::string_view received) {
  auto token = client.next(received);
  if (!token) {
    complain(token.error());
    return {};
  }
  std::string text = velder::encode_base64(*token);
  velder_client::wipe(*token);
  return text;
}

int log_on_by_ntlm(const Settings& settings) {
  auto password = read_password("Password of " + printable(settings.name) + ": ");
  if (!password) {
    complain("no password: " + password.error());
    return kExitUsage;
  }
  auto client = Client::ntlm(settings.name, *password);
  velder_client::wipe(*password);
  if (!client) {
    complain(client.error());
    return kExitUsage;
  }
  std::string token = make_token(*client, {});
  if (token.empty()) return kExitUsage;
  int exit_code = kExitNoAnswer;
  std::optional<Connection> connection = connect(settings, &exit_code);
  Velder::NTLMAuthResponse challenge;
  if (!connection || !ntlm_leg(*connection, 1, settings, token, challenge, &exit_code)) return exit_code;
  if (challenge.result() != 0) return show(settings, challenge, Family::kToken, print_content);

  std::string received;
  velder::decode_base64(challenge.responsecontent(), received);
  token = make_token(*client, received);
  if (token.empty()) return kExitNoAnswer;  // what came is no challenge
  Velder::NTLMAuthResponse verdict;
  if (!ntlm_leg(*connection, 2, settings, token, verdict, &exit_code)) return exit_code;
  return show(settings, verdict, Family::kToken, print_content);
}

void print_negotiate_answer(const Velder::NEGOAuthResponse& answer) {
  print_field(std::cout, "result", std::to_string(answer.result()));
  print_field(std::cout, "principal", answer.clientinfo());
  print_field(std::cout, "answer", answer.returnmsg());
  print_field(std::cout, "next leg", answer.neednego() ? "needed" : "not needed");
}

// Whether the daemon's answer proves that it is the service, as browsers want to know.
bool daemon_is_proven(Client& client, const Velder::NEGOAuthResponse& answer) {
  std::string received;
  if (!velder::decode_base64(answer.returnmsg(), received)) {
    complain("what the daemon answered is not base64");
    return false;
  }
  const auto last = client.next(received);
  if (!last) complain(last.error());
  return last && client.done();
}

}  // namespace

int ntlm(const Settings& settings) {
  return settings.name.empty() ? carry_ntlm_messages(settings) : log_on_by_ntlm(settings);
}

int negotiate(const Settings& settings) {
  std::optional<Client> client;
  std::string token;
  if (!settings.service.empty()) {
    auto made = Client::kerberos(settings.service);
    if (!made) {
      complain(made.error());
      return kExitUsage;
    }
    client = std::move(*made);
    token = make_token(*client, {});
  } else {
    token = settings.token == "-" ? read_token("token") : settings.token;
  }
  if (token.empty()) return kExitUsage;
  Velder::NEGOAuthRequest request;
  request.set_requestcontent(token);
  velder_client::wipe(token);
  int exit_code = kExitNoAnswer;
  std::optional<Connection> connection = connect(settings, &exit_code);
  Velder::NEGOAuthResponse answer;
  const bool answered =
      connection && ask_on(*connection, Velder::NEGO_AUTH_REQUEST, request, answer, &exit_code);
  velder_client::wipe(*request.mutable_requestcontent());
  if (!answered) return exit_code;
  exit_code = show(settings, answer, Family::kToken, print_negotiate_answer);
  if (exit_code == kExitSuccess && client && !daemon_is_proven(*client, answer)) return kExitOtherResult;
  return exit_code;
}

}  // namespace authctl
