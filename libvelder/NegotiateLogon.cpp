#include "libvelder/NegotiateLogon.h"

#include <openssl/crypto.h>

#include "brellog/VrLog.h"
#include "libvelder/Base64.h"

namespace velder {
namespace {

constexpr size_t kReasonLimit = 600;
constexpr size_t kNameLimit = 256;
// The largest tickets that domain controllers give are a tenth of it.
constexpr size_t kLongestText = size_t{1} << 20;
constexpr std::string_view kNtlmSignature("NTLMSSP\0", 8);
// The object identifier of NTLM as it stands in the list of mechanisms.
constexpr std::string_view kNtlmMechanism("\x06\x0a\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a", 12);
constexpr char kLaterLegTag = '\xa1';  // of the SPNEGO messages behind the first one

// What is wrong with a token before anybody looks into it; null when nothing is.
const char* fault_of(std::string_view token) {
  if (token.empty()) return "the token is empty";
  if (token.starts_with(kNtlmSignature)) return "it is NTLM in the place of Kerberos";
  if (token.front() == kLaterLegTag)
    return "it is a later leg of an exchange, and every token has to stand alone";
  return nullptr;
}

std::string refusal_of(const GssAnswer& answer, std::string_view token) {
  if (answer.outcome == GssOutcome::kProven) return "an anonymous ticket proves nobody";
  // Kerberos tickets are encrypted: the text occurs in the list of mechanisms, if anywhere.
  if (token.find(kNtlmMechanism) != std::string_view::npos &&
      token.find(kNtlmSignature) != std::string_view::npos)
    return "SPNEGO with NTLM inside, only Kerberos is accepted";
  if (answer.outcome == GssOutcome::kAnotherLeg) return "the client has to begin with a Kerberos ticket";
  if (answer.damaged) return "the token is damaged, or no Kerberos token: " + answer.reason;
  return answer.reason;
}

void log_refusal(std::string_view why) {
  VRLOG(kLogInfo, "Directory: Negotiate refused: %s", printable(why, kReasonLimit).c_str());
}

}  // namespace

NegotiateAnswer check_negotiate_token(GssAcceptor& acceptor, std::string_view text) {
  NegotiateAnswer result;
  if (!acceptor.accepts_negotiate()) return result;
  std::string token;
  if (text.size() > kLongestText || !decode_base64(text, token)) {
    log_refusal(text.size() > kLongestText ? "the token is longer than any ticket"
                                           : "the token is not base64");
    return result;
  }
  const char* fault = fault_of(token);
  if (fault != nullptr) {
    log_refusal(fault);
    return result;
  }
  GssAnswer answer = acceptor.negotiate(token);
  result.token = encode_base64(answer.token);
  result.another_leg = answer.outcome == GssOutcome::kAnotherLeg;
  // A name is handed on as text that ends at a NUL: one with a NUL inside would be cut to somebody else's.
  const bool whole = answer.name.find('\0') == std::string::npos;
  if (answer.outcome == GssOutcome::kProven && !answer.anonymous && whole) {
    result.proven = true;
    result.principal = std::move(answer.name);
    VRLOG(kLogDebug, "Directory: Negotiate: %s", printable(result.principal, kNameLimit).c_str());
  } else if (answer.outcome == GssOutcome::kNoAcceptor) {
    VRLOG(kLogError, "Directory: Negotiate cannot be accepted: %s",
          printable(answer.reason, kReasonLimit).c_str());
  } else {
    log_refusal(refusal_of(answer, token));
  }
  OPENSSL_cleanse(token.data(), token.size());
  return result;
}

}  // namespace velder
