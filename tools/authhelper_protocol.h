// The lines that the proxy and its helpers exchange: one request a line on standard input, one reply a line
// on standard output. Pure functions.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace authhelper {

enum class Mode { kBasic, kNtlm, kNegotiate, kIpUser, kGroup };

enum class LineFault {
  kNone,
  kNoChannel,     // channel numbers are configured, and the line has none: the proxy is configured otherwise
  kNul,           // it would end the text for whoever reads it next
  kMissingField,  // fewer fields than the mode has
  kBadEscape,     // a percent sign without two hexadecimal digits
};

// One request of the proxy. A field may be a password or a token, so all are wiped with their owner.
struct HelperLine {
  HelperLine() = default;
  HelperLine(HelperLine&&) noexcept = default;
  HelperLine& operator=(HelperLine&& other) noexcept;
  ~HelperLine();

  LineFault fault = LineFault::kNone;
  std::string channel;  // its digits; empty without channel numbers
  // basic: user, password. ntlm, negotiate: command, then token, then whatever key_extras adds. ip-user:
  // address. group: user, then the groups. Decoded; what else stands on the line is left out.
  std::vector<std::string> fields;
};

// `line` comes without its end. With a fault there may be no fields; the channel is told whenever it is
// known.
HelperLine parse_helper_line(std::string_view line, Mode mode, bool channels);

enum class Verdict {
  kOk,
  kRefused,    // ERR: the daemon, or the request itself, says no
  kChallenge,  // TT: the client has to go on with `token`
  kBroken,     // BH: nobody knows; what the proxy shows for it is not "wrong password"
};

struct Reply {
  Verdict verdict = Verdict::kBroken;
  std::string user;
  std::optional<std::string> token;  // base64; told with kOk even when empty
  std::string_view message;          // a text of ours; goes to the proxy's log, perhaps to its user
};

// The proxy's buffer does not take a longer line.
constexpr size_t kLongestReply = 32000;

// The reply line without its end; BH for a reply that would be longer than kLongestReply. No value can add
// another one, whatever it holds.
std::string format_reply(const Reply& reply, std::string_view channel);

// Every byte but ASCII letters, digits and "-._@" as %XX.
std::string escape_value(std::string_view value);

// Letters, digits, "+/" and at most two "=" at the end; not empty.
bool is_base64(std::string_view text);

// The address that key_extras brought, or the one that stands for "not known": the daemon wants one.
std::string_view client_address(const std::vector<std::string>& fields);

// user@REALM without the realm.
std::string_view without_realm(std::string_view principal);

}  // namespace authhelper
