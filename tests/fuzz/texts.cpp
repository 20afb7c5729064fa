// Pure functions over text: names, addresses, base64, passwords, the agent's and the daemon's answers.
#include <unistd.h>

#include <memory>
#include <sstream>
#include <vector>

#include "Fuzz.h"
#include "client/RawFrames.h"
#include "daemonbase/BRELIPList.h"
#include "handler/Base64.h"
#include "handler/Velder.pb.h"
#include "handler/WmiExchange.h"
#include "libtorrin/Address.h"
#include "libtorrin/BindingRecord.h"
#include "libvelder/Base64.h"
#include "libvelder/Dn.h"
#include "libvelder/Fold.h"
#include "libvelder/NtlmMessage.h"
#include "libvelder/Password.h"
#include "tools/authctl_format.h"
#include "tools/authhelper_protocol.h"
#include "tools/wmi_agent_answer.h"

using fuzz::Input;
using fuzz::require;

FUZZ_TARGET(dn) {
  const auto rdns = velder::parse_dn(bytes);
  const std::string key = velder::normalize_dn(bytes);
  require(rdns.has_value() || key.empty(), "what is no DN has no key");
  require(velder::normalize_dn(key) == key, "the key of a key is itself");
  velder::dns_domain_of(bytes);
  const auto escaped = velder::parse_dn("cn=" + velder::escape_dn_value(bytes));
  require(escaped && escaped->size() == 1 && escaped->front().front().value == bytes,
          "an escaped value is read back");
  require(velder::escape_filter_value(bytes).find_first_of("()*") == std::string::npos,
          "an escaped filter value holds no syntax");
}

FUZZ_TARGET(fold) {
  const std::string folded = velder::fold_text(bytes);
  require(velder::fold_text(folded) == folded, "folded text stays as it is");
  require(velder::is_utf8(bytes) == velder::is_utf8(folded), "folding neither makes nor mends bad text");
}

FUZZ_TARGET(base64) {
  std::string decoded;
  const bool valid = velder::decode_base64(bytes, decoded);
  const std::string text(bytes.substr(0, bytes.find('\0')));
  std::vector<char> out(text.size() + 1);
  const int length = ToB64Dec(text.c_str(), out.data(), static_cast<int>(out.size()));
  if (valid)
    require(decoded == std::string_view(out.data(), static_cast<size_t>(length)), "both decoders agree");
  Input input(bytes);
  std::vector<char> encoded(size_t{input.byte()} * 4 + 1);
  const std::string_view raw = input.rest();
  ToB64Enc(raw.data(), static_cast<int>(raw.size()), encoded.data(), static_cast<int>(encoded.size()));
  if (raw.size() <= (encoded.size() - 1) / 4 * 3) {
    require(velder::decode_base64(encoded.data(), decoded) && decoded == raw, "encoded bytes come back");
  }
  std::string in_place = text;
  Base64DecodeString(in_place.data());
}

FUZZ_TARGET(password) {
  Input input(bytes);
  const std::string_view given = input.piece();
  velder::check_password(input.rest(), given);
}

FUZZ_TARGET(addresses) {
  const std::string text(bytes);
  if (const auto key = torrin::parse_address(text.c_str())) {
    require(torrin::parse_address(torrin::format_address(*key).c_str()) == key,
            "a printed address is read back");
  }
  BRELIPList list;
  list.AddMultiItems(bytes);
  torrin::decode_record(bytes);
}

FUZZ_TARGET(agent_answer) {
  const std::string text(bytes.substr(0, 511));
  std::string account;
  if (parse_wmi_answer(text.c_str(), &account) == WmiAnswer::kUser) {
    require(account.find('\\') != std::string::npos, "an account has a domain");
  }
  wmi_question(static_cast<int32_t>(bytes.size() % 4), text.c_str());
  if (const auto people = wmi_agent::parse_people(bytes)) {
    if (!people->empty()) wmi_agent::make_answer(*people, "tolva_wmi:" + people->begin()->first, {});
  }
  wmi_agent::asked_address(bytes);
}

// The mechanism behind believes what passes here.
FUZZ_TARGET(ntlm_message) {
  Input input(bytes);
  const uint32_t flags = input.number();
  std::string first(input.rest());
  std::string third = first;
  if (velder::prepare_ntlm_type1(first) == nullptr) {
    require(velder::prepare_ntlm_type1(first) == nullptr, "a prepared message 1 passes again");
  }
  velder::NtlmIdentity who;
  if (velder::prepare_ntlm_type3(third, flags, who) == nullptr) {
    require(!who.user.empty(), "a message 3 names somebody");
    velder::NtlmIdentity again;
    require(velder::prepare_ntlm_type3(third, flags, again) == nullptr, "a prepared message 3 passes again");
    require(again.user == who.user && again.domain == who.domain, "and names the same");
  }
  velder::ntlm_challenge_flags(third);
}

// One request of the proxy, and whatever values in a reply to it.
FUZZ_TARGET(helper_line) {
  Input input(bytes);
  const uint8_t kind = input.byte();
  const auto mode = static_cast<authhelper::Mode>(kind % 5);
  const std::string_view text = input.rest();
  const auto line = authhelper::parse_helper_line(text.substr(0, text.find('\n')), mode, kind >= 128);
  authhelper::client_address(line.fields);
  authhelper::Reply reply{static_cast<authhelper::Verdict>(kind % 4), std::string(text), {}, "why"};
  if (authhelper::is_base64(text)) reply.token = text;
  const std::string answer = authhelper::format_reply(reply, line.channel);
  require(answer.find_first_of("\r\n") == std::string::npos, "a reply is one line");
  require(answer.size() <= authhelper::kLongestReply, "and not too long for the proxy");
}

// What a stranger on the daemon's port makes of our tools.
FUZZ_TARGET(client_answer) {
  Input input(bytes);
  const uint8_t kind = input.byte();
  velder_client::FrameReader reader(1 << 16);
  auto progress = reader.feed("");
  while (progress && *progress != velder_client::FrameReader::Progress::kComplete) {
    if (input.empty()) return;
    progress = reader.feed(input.piece());
  }
  if (!progress) return;
  Velder::UserSearchResponse users;
  Velder::AllUserQueryResponse groups;
  std::ostringstream out;
  if (kind % 2 == 0 && velder_client::parse_answer(reader.body(), users)) {
    authctl::print_users(out, users.userlist(), authctl::Columns::kAll);
    authctl::to_json(users);
  } else if (velder_client::parse_answer(reader.body(), groups)) {
    authctl::print_group_users(out, groups.groupuserlist());
    authctl::to_json(groups);
  }
  require(out.str().find('\x1b') == std::string::npos, "no escape reaches the terminal");
}
