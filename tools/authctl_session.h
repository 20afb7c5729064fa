// What all commands of authctl do alike: connect, ask, show the answer, say how it ended.
#pragma once

#include <iostream>
#include <optional>
#include <string_view>

#include "client/Connection.h"
#include "handler/Velder.pb.h"
#include "tools/authctl_commands.h"
#include "tools/authctl_format.h"

namespace authctl {

// A line for the user. It may quote what the daemon, a resolver or the user said.
void complain(std::string_view text);

// Nothing after a complaint; the exit code is set then.
std::optional<velder_client::Connection> connect(const Settings& settings, int* exit_code);

// Sends the request; without an answer it complains, sets the exit code and returns false.
bool ask_on(velder_client::Connection& connection, int type, const google::protobuf::Message& request,
            google::protobuf::Message& answer, int* exit_code);

// The exit code for a result; one that is not 0 is told.
int report_result(Family family, int result);

// A result that cannot be written, on a full disk for one, must not look like a success.
int flushed(int exit_code);

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
  std::optional<velder_client::Connection> connection = connect(settings, &exit_code);
  Response answer;
  if (!connection || !ask_on(*connection, type, request, answer, &exit_code)) return exit_code;
  return show(settings, answer, family, print);
}

}  // namespace authctl
