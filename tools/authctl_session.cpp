#include "tools/authctl_session.h"

#include <string>
#include <utility>

namespace authctl {
namespace {

using velder_client::Connection;
using velder_client::ErrorKind;

int exit_code_of(const velder_client::Error& error) {
  const bool own_fault = error.kind == ErrorKind::kInvalidRequest || error.kind == ErrorKind::kInvalidAddress;
  return own_fault ? kExitUsage : kExitNoAnswer;
}

}  // namespace

void complain(std::string_view text) {
  std::cerr << "authctl: " << printable(text) << '\n';
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

int flushed(int exit_code) {
  if (std::cout.flush()) return exit_code;
  complain("cannot write to standard output");
  return kExitNoAnswer;
}

}  // namespace authctl
