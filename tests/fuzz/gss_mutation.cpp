// Mutated NTLM and Negotiate messages, through the face of the directory library into the real mechanisms.
//
//   gss_mutation COUNT SEED [SERVICE KEYTAB]
//
// The messages come from the mechanisms' own clients, each of a fresh exchange, so that a mutation meets the
// state it would meet in earnest; half of the mutated responses are signed anew, as a user with a password of
// his own could do. With a keytab, and a ticket for it in the credential cache, Negotiate tokens take turns
// with NTLM's; the tests of Negotiate set that up. The same seed and count give the same mutations.
//
// Ends with 1 at the first answer that breaks the contract: nobody but the one whose password is used may be
// proven, nothing may be written beyond what is told. A crash, a leak or a message that takes more than a
// minute ends it, too.
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <vector>

#include "brellog/VrLog.h"
#include "libvelder/Base64.h"
#include "libvelder/LdapModule.h"
#include "libvelder/NtlmMessage.h"
#include "tests/unit/libvelder/GssPeer.h"

namespace {

constexpr std::string_view kHash("\x88\x46\xf7\xea\xee\x8f\xb1\x17\xad\x06\xbd\xd8\x30\xb7\x58\x6c", 16);
constexpr char kUser[] = "CORP\\alice";
constexpr int kMostSeconds = 60;
// A ticket's token is good for five minutes.
constexpr uint64_t kTokenUses = 2000;

std::mt19937_64 g_draw;
uint64_t g_turn = 0;

size_t draw(size_t below) {
  return below == 0 ? 0 : g_draw() % below;
}
bool chance(size_t in) {
  return draw(in) == 0;
}

[[noreturn]] void fail(const char* what, const std::string& message) {
  printf("FAILED in turn %llu: %s; the message: %s\n", static_cast<unsigned long long>(g_turn), what,
         velder::encode_base64(message).c_str());
  exit(1);
}

uint32_t get(const std::string& text, size_t at, size_t bytes) {
  uint32_t value = 0;
  for (size_t i = bytes; i-- > 0;) value = value << 8 | static_cast<unsigned char>(text[at + i]);
  return value;
}
void put(std::string& text, size_t at, uint32_t value, size_t bytes) {
  for (size_t i = 0; i < bytes && at + i < text.size(); ++i)
    text[at + i] = static_cast<char>(value >> (8 * i) & 0xff);
}

uint32_t odd_number(size_t size) {
  static constexpr uint32_t kOdd[] = {0, 1, 15, 16, 17, 24, 40, 64, 0x7fff, 0xffff, 0x7fffffff, 0xffffffff};
  return chance(3) ? static_cast<uint32_t>(size + draw(5) - 2) : kOdd[draw(std::size(kOdd))];
}

// Changes that suit any format.
void mutate_bytes(std::string& text) {
  for (size_t changes = 1 + draw(4); changes > 0 && !text.empty(); --changes) {
    const size_t at = draw(text.size());
    switch (draw(6)) {
      case 0: text[at] = static_cast<char>(text[at] ^ 1 << draw(8)); break;
      case 1: put(text, at, odd_number(text.size()), 1 + draw(4)); break;
      case 2: text.erase(at, 1 + draw(8)); break;
      case 3: text.insert(at, std::string(1 + draw(8), static_cast<char>(draw(256)))); break;
      case 4: text.resize(chance(2) ? at : std::min(text.size() + draw(300), size_t{3071})); break;
      default: text.replace(at, draw(16), text.substr(draw(text.size()), draw(16))); break;
    }
  }
}

// Six fields of eight bytes; the last two are the workstation and the session key.
enum Field : size_t { kLm = 12, kNt = 20, kDomain = 28, kName = 36 };

std::string field_of(const std::string& message, size_t at) {
  const size_t length = get(message, at, 2), offset = get(message, at + 4, 4);
  return offset <= message.size() ? message.substr(offset, length) : "";
}
void move_field(std::string& message, size_t at, const std::string& value) {
  put(message, at, static_cast<uint32_t>(value.size()), 2);
  put(message, at + 2, static_cast<uint32_t>(value.size()), 2);
  put(message, at + 4, static_cast<uint32_t>(message.size()), 4);
  message += value;
}

std::string hmac_md5(std::string_view key, std::string_view text) {
  std::string digest(16, '\0');
  HMAC(EVP_md5(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(text.data()), text.size(),
       reinterpret_cast<unsigned char*>(digest.data()), nullptr);
  return digest;
}

// The response that the password gives for what the message says now.
void sign(std::string& message, std::string_view challenge) {
  const std::string response = field_of(message, kNt);
  if (response.size() < 16 || get(message, kNt + 4, 4) > message.size()) return;
  std::string name = field_of(message, kName);
  for (size_t i = 0; i + 1 < name.size(); i += 2)
    if (name[i + 1] == 0) name[i] = static_cast<char>(toupper(static_cast<unsigned char>(name[i])));
  const std::string key = hmac_md5(kHash, name + field_of(message, kDomain));
  const std::string proof = hmac_md5(key, std::string(challenge.substr(24, 8)) + response.substr(16));
  message.replace(get(message, kNt + 4, 4), proof.size(), proof);
}

void mutate_type3(std::string& message, std::string_view challenge) {
  for (size_t changes = 1 + draw(3); changes > 0 && message.size() >= 88; --changes) {
    const size_t field = kLm + 8 * draw(6);
    std::string value = field_of(message, field);
    switch (draw(6)) {
      case 0: put(message, field + (chance(2) ? 0 : 4), odd_number(message.size()), chance(2) ? 2 : 4); break;
      case 1: put(message, 60, static_cast<uint32_t>(g_draw()), 4); break;
      case 2: put(message, 72 + draw(16), static_cast<uint32_t>(draw(256)), 1); break;
      case 3:
        mutate_bytes(value);
        move_field(message, field, value);
        break;
      case 4:  // the names in the response, and what their lengths say
        value = field_of(message, kNt);
        if (value.size() > 48) {
          const size_t at = 44 + draw(value.size() - 44);
          put(value, at, chance(2) ? static_cast<uint32_t>(draw(16)) : odd_number(value.size()), 1 + draw(4));
          if (chance(4)) value.resize(44 + draw(value.size() - 44));
          move_field(message, kNt, value);
        }
        break;
      default: mutate_bytes(message); break;
    }
  }
  if (message.size() >= 88 && chance(2)) sign(message, challenge);
  message.resize(std::min(message.size(), size_t{3071}));
}

constexpr int kNtlmOut = 2048;

// One call, and what its contract says of the output.
int call_ntlm(LdapModule& module, const std::string& message, std::string& out) {
  std::string token = message;
  std::vector<char> buffer(kNtlmOut + 16, '\x5a');
  int length = kNtlmOut;
  const int code = module.validate_ntlm_message("192.0.2.7", token.data(), static_cast<int>(token.size()),
                                                buffer.data(), length);
  if (code != 1 && code != 0 && code != -1) fail("the code is none of the three", message);
  if (length < 0 || length > kNtlmOut || (code == -1 && length != 0)) fail("the length is wrong", message);
  for (size_t i = static_cast<size_t>(length); i < buffer.size(); ++i)
    if (buffer[i] != '\x5a') fail("bytes beyond the output were written", message);
  out.assign(buffer.data(), static_cast<size_t>(length));
  if (code == 0 && out != kUser) fail("somebody else is proven", message);
  return code;
}

std::map<std::string, uint64_t> g_seen;

void ntlm_turn(const NtlmUser& user) {
  GssPeer peer(user, chance(2) ? 0 : GSS_C_INTEG_FLAG | GSS_C_CONF_FLAG);
  LdapModule module;
  std::string challenge;
  const std::string type1 = peer.next().value_or("");
  if (chance(5)) {
    std::string mutated = type1.substr(0, chance(3) ? 16 + draw(24) : type1.size());
    mutate_bytes(mutated);
    call_ntlm(module, mutated, challenge);
    if (challenge.empty() || chance(2)) return;  // half of them are destroyed half-way
  } else if (call_ntlm(module, type1, challenge) != 1) {
    fail("a good message 1 is refused", type1);
  }
  // Flags may have been mutated away that the client does not do without.
  std::string type3 = peer.next(challenge).value_or(type1);
  mutate_type3(type3, challenge);
  std::string copy = type3, out;
  velder::NtlmIdentity who;
  const auto sent = velder::ntlm_challenge_flags(challenge);
  const bool deep = sent && velder::prepare_ntlm_type3(copy, *sent, who) == nullptr;
  const int code = call_ntlm(module, type3, out);
  ++g_seen[code == 0 ? "proven" : deep ? "refused behind the check" : "refused by the check"];
  if (chance(8)) call_ntlm(module, type3, out);
}

void negotiate_turn(const std::string& service) {
  static std::string good;
  static uint64_t uses = 0;
  if (good.empty() || ++uses > kTokenUses) {
    uses = 0;
    good = GssPeer(service).next().value_or("");
    if (good.empty()) fail("no token; is there a ticket?", "");
  }
  std::string token = good;
  const bool unchanged = chance(200);
  if (!unchanged) {
    if (const size_t inner = token.find("\x60\x82", 4); chance(4) && inner != std::string::npos)
      token.erase(0, inner);
    mutate_bytes(token);
  }
  std::string text = velder::encode_base64(token);
  if (chance(50)) mutate_bytes(text);
  std::string clientinfo = "x", returnmsg = "x";
  bool neednego = true;
  const bool proven = LdapModule::validate_negotiate_message(text.c_str(), clientinfo, returnmsg, neednego);
  if (proven && clientinfo != "alice@CORP.TEST") fail("somebody else is proven", token);
  if (!proven && !clientinfo.empty()) fail("a name without a proof", token);
  if (unchanged && !proven && text == velder::encode_base64(token)) fail("a good token is refused", token);
  ++g_seen[proven ? "Negotiate: proven" : neednego ? "Negotiate: another leg" : "Negotiate: refused"];
}

// A working directory with the user whose password is known, and one whose password is not.
void make_workdir(const std::string& path, const char* keytab) {
  const std::string user = "objectClass: user\nsambaNTPassword: ";
  std::ofstream(path + "/directory.ldif")
      << "version: 1\n\ndn: cn=alice,dc=corp,dc=test\ncn: alice\nuserPrincipalName: alice@corp.test\n"
      << user << "8846F7EAEE8FB117AD06BDD830B7586C\n\ndn: cn=bob,dc=corp,dc=test\ncn: bob\n"
      << user << "0123456789ABCDEF0123456789ABCDEF\n";
  std::ofstream(path + "/users") << "alice:0:" << std::string(32, 'X')
                                 << ":8846F7EAEE8FB117AD06BDD830B7586C:[U]:LCT-0:\n";
  if (keytab != nullptr) {
    std::ofstream(path + "/LdapSetting.ini") << "[Negotiate]\nKeytab=" << keytab << "\nReplayCache=no\n";
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 5) return 2;
  const uint64_t count = strtoull(argv[1], nullptr, 10), seed = strtoull(argv[2], nullptr, 10);
  const bool negotiate = argc == 5;
  std::string workdir = (std::filesystem::temp_directory_path() / "gss-mutation-XXXXXX").string();
  if (mkdtemp(workdir.data()) == nullptr) return 2;
  make_workdir(workdir, negotiate ? argv[4] : nullptr);
  VrLog::setConfig("log", workdir.c_str());
  VrLog::setLogVerbose(true);  // the lines are made, too
  if (LdapModule::initialize(workdir.c_str(), true) != 0) return 2;
  g_draw.seed(seed);

  const NtlmUser user(kUser, workdir + "/users");
  for (g_turn = 0; g_turn < count; ++g_turn) {
    alarm(kMostSeconds);
    if (g_turn == 50'000)
      VrLog::setConfig("log", workdir.c_str());  // without the lines, which would fill the disk
    if (negotiate && chance(3)) {
      negotiate_turn(argv[3]);
    } else {
      ntlm_turn(user);
    }
  }
  alarm(0);
  std::filesystem::remove_all(workdir);
  printf("%s turns with seed %s:\n", argv[1], argv[2]);
  for (const auto& [what, times] : g_seen)
    printf("%12llu  %s\n", static_cast<unsigned long long>(times), what.c_str());
  const bool reached = g_seen["proven"] > 0 && g_seen["refused behind the check"] > 0 &&
                       (!negotiate || g_seen["Negotiate: proven"] > 0);
  if (!reached) printf("FAILED: the mutations do not reach what they should\n");
  return reached ? 0 : 1;
}
