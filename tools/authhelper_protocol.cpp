#include "tools/authhelper_protocol.h"

#include <arpa/inet.h>

#include <algorithm>

#include "client/RawFrames.h"

namespace authhelper {
namespace {

// The proxy counts its channels from 0 in an int.
constexpr size_t kLongestChannel = 10;
constexpr std::string_view kUnknownAddress = "0.0.0.0";

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

bool is_letter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

int hex_value(char c) {
  if (is_digit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Appends to `out`, which must have the room: a password must not be left behind in a buffer that grew.
bool unescape(std::string_view text, std::string& out) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (text.size() - i < 3) return false;
    const int high = hex_value(text[i + 1]);
    const int low = hex_value(text[i + 2]);
    if (high < 0 || low < 0) return false;
    out.push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  return true;
}

// Takes the text up to the next blank off `rest`; a second blank begins an empty field, which is what an
// empty password is.
std::string_view take_field(std::string_view& rest) {
  const size_t blank = rest.find(' ');
  const std::string_view field = rest.substr(0, blank);
  rest.remove_prefix(blank == std::string_view::npos ? rest.size() : blank + 1);
  return field;
}

bool take_channel(std::string_view& rest, std::string& channel) {
  const std::string_view digits = rest.substr(0, rest.find(' '));
  if (digits.empty() || digits.size() > kLongestChannel || digits.size() == rest.size()) return false;
  if (!std::all_of(digits.begin(), digits.end(), is_digit)) return false;
  channel = take_field(rest);
  return true;
}

struct Layout {
  size_t fewest;
  size_t most;  // further fields are not looked at
  bool escaped;
};

Layout layout_of(Mode mode) {
  constexpr size_t kAny = std::string_view::npos;
  switch (mode) {
    case Mode::kBasic: return {2, 2, true};
    // A token is the client's own text: a percent sign in it is no fault of the proxy's.
    case Mode::kNtlm:
    case Mode::kNegotiate: return {1, 3, false};
    case Mode::kIpUser: return {1, 1, true};
    case Mode::kGroup: break;
  }
  return {2, kAny, true};
}

LineFault split(std::string_view rest, const Layout& layout, std::vector<std::string>& fields) {
  if (rest.empty()) return LineFault::kMissingField;
  const size_t present = 1 + static_cast<size_t>(std::count(rest.begin(), rest.end(), ' '));
  if (present < layout.fewest) return LineFault::kMissingField;
  const size_t wanted = std::min(present, layout.most);
  fields.reserve(wanted);  // short texts would be copied when it grew
  while (fields.size() < wanted) {
    const std::string_view text = take_field(rest);
    std::string& field = fields.emplace_back();
    field.reserve(text.size());
    if (!layout.escaped) {
      field = text;
    } else if (!unescape(text, field)) {
      return LineFault::kBadEscape;
    }
    if (field.find('\0') != std::string::npos) return LineFault::kNul;
  }
  return LineFault::kNone;
}

// The proxy writes "-" for an acl without arguments, and some versions an empty text.
void drop_groups_that_are_none(std::vector<std::string>& fields) {
  const auto is_none = [&](const std::string& text) {
    return text.empty() || (text == "-" && fields.size() == 2);
  };
  fields.erase(std::remove_if(fields.begin() + 1, fields.end(), is_none), fields.end());
}

std::string_view word_of(Verdict verdict) {
  switch (verdict) {
    case Verdict::kOk: return "OK";
    case Verdict::kRefused: return "ERR";
    case Verdict::kChallenge: return "TT";
    case Verdict::kBroken: break;
  }
  return "BH";
}

}  // namespace

HelperLine& HelperLine::operator=(HelperLine&& other) noexcept {
  std::swap(fault, other.fault);
  std::swap(channel, other.channel);
  std::swap(fields, other.fields);
  return *this;
}

HelperLine::~HelperLine() {
  for (std::string& field : fields) velder_client::wipe(field);
}

HelperLine parse_helper_line(std::string_view line, Mode mode, bool channels) {
  HelperLine result;
  if (line.ends_with('\r')) line.remove_suffix(1);
  if (channels && !take_channel(line, result.channel)) {
    result.fault = LineFault::kNoChannel;
    return result;
  }
  result.fault = split(line, layout_of(mode), result.fields);
  if (result.fault == LineFault::kNone && mode == Mode::kGroup) drop_groups_that_are_none(result.fields);
  return result;
}

std::string format_reply(const Reply& reply, std::string_view channel) {
  std::string line(channel);
  if (!line.empty()) line += ' ';
  const size_t head = line.size();
  line += word_of(reply.verdict);
  if (reply.verdict == Verdict::kChallenge) {
    // Here the proxy takes the bare word only, and decodes nothing.
    line.append(" ").append(reply.token.value_or(""));
  } else {
    if (!reply.user.empty()) line.append(" user=").append(escape_value(reply.user));
    if (!reply.message.empty()) line.append(" message=\"").append(reply.message).append("\"");
    // The last value, because the proxy takes an empty one only at the end of the line.
    if (reply.token) line.append(" token=").append(*reply.token);
  }
  if (line.size() <= kLongestReply) return line;
  return line.substr(0, head) + "BH message=\"the answer is too long for the proxy\"";
}

std::string escape_value(std::string_view value) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  constexpr std::string_view kPlain = "-._@";
  std::string out;
  out.reserve(3 * value.size());
  for (const char c : value) {
    if (is_digit(c) || is_letter(c) || kPlain.find(c) != std::string_view::npos) {
      out.push_back(c);
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    out.push_back('%');
    out.push_back(kDigits[byte >> 4U]);
    out.push_back(kDigits[byte & 0xFU]);
  }
  return out;
}

bool is_base64(std::string_view text) {
  for (int pads = 0; pads < 2 && text.ends_with('='); ++pads) text.remove_suffix(1);
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return is_digit(c) || is_letter(c) || c == '+' || c == '/';
  });
}

std::string_view client_address(const std::vector<std::string>& fields) {
  constexpr size_t kExtra = 2;
  if (fields.size() <= kExtra) return kUnknownAddress;
  const std::string& text = fields[kExtra];
  in6_addr unused;
  const bool valid =
      inet_pton(AF_INET, text.c_str(), &unused) == 1 || inet_pton(AF_INET6, text.c_str(), &unused) == 1;
  return valid ? std::string_view(text) : kUnknownAddress;
}

std::string_view without_realm(std::string_view principal) {
  const size_t at = principal.rfind('@');
  return at == std::string_view::npos || at == 0 ? principal : principal.substr(0, at);
}

}  // namespace authhelper
