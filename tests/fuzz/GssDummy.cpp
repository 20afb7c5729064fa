// In the place of GssAcceptor: the mechanisms are not ours to fuzz, and nothing of them may be loaded beside
// libFuzzer. It proves every second message, so that all that follows a verdict is reached.
#include "libvelder/GssAcceptor.h"

namespace velder {
namespace {

// Signature, kind 2, no target, Unicode and key exchange, a challenge of eight bytes, no names.
constexpr std::string_view kChallenge(
    "NTLMSSP\0\2\0\0\0\0\0\0\0\x38\0\0\0\x05\x82\x08\x60"
    "abcdefgh\0\0\0\0\0\0\0\0\0\0\0\0\x38\0\0\0\6\1\0\0\0\0\0\x0f",
    56);

GssAnswer answer_to(std::string_view token) {
  GssAnswer answer;
  answer.outcome = token.size() % 2 == 0 ? GssOutcome::kProven : GssOutcome::kRefused;
  answer.name = "jmueller@CORP.EXAMPLE.COM";
  answer.anonymous = token.size() % 8 == 0;
  answer.damaged = token.size() % 3 == 0;
  answer.token = token;
  answer.reason = token;
  return answer;
}

}  // namespace

struct GssAcceptor::Credentials {};

void GssContext::reset() {
  handle_ = nullptr;
}
GssContext::~GssContext() {
  reset();
}

GssAcceptor::GssAcceptor(const Settings& settings, const std::string& workdir)
    : settings_(settings),
      workdir_(workdir),
      users_file_(std::make_unique<NtlmUsersFile>(settings.ntlm_user_file)) {}
GssAcceptor::~GssAcceptor() = default;

GssAnswer GssAcceptor::ntlm_challenge(GssContext& /*context*/, std::string_view /*type1*/) {
  GssAnswer answer;
  answer.outcome = GssOutcome::kAnotherLeg;
  answer.token = kChallenge;
  return answer;
}
GssAnswer GssAcceptor::ntlm_verify(GssContext& /*context*/, std::string_view type3, std::string_view /*user*/,
                                   const Secret& /*nt_hash*/) {
  return answer_to(type3);
}
GssAnswer GssAcceptor::ntlm_ask_winbind(GssContext& /*context*/, std::string_view type3) {
  return answer_to(type3);
}
GssAnswer GssAcceptor::negotiate(std::string_view token) {
  return answer_to(token);
}
Result<void> check_acceptor_files(const Settings& /*settings*/) {
  return {};
}
void prepare_ntlm(std::string_view /*netbios_domain*/) {}
bool ntlm_challenge_asks_winbind() {
  return false;
}

}  // namespace velder
