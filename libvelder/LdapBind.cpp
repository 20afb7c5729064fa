// Binds, and what their refusals say about an account.
#include <openldap.h>

#include <array>
#include <utility>

#include "libvelder/LdapConnection.h"
#include "libvelder/LdapConnectionInternal.h"

namespace velder {
namespace {

struct SubCode {
  std::string_view number;  // hexadecimal, as Active Directory writes it
  BindVerdict verdict;
  std::string_view reason;
};
constexpr std::array kSubCodes{
    SubCode{"52e", BindVerdict::kWrong, "wrong password"},
    SubCode{"525", BindVerdict::kWrong, "no such user"},
    SubCode{"530", BindVerdict::kAccount, "the account may not log on at this time"},
    SubCode{"531", BindVerdict::kAccount, "the account may not log on from here"},
    SubCode{"532", BindVerdict::kAccount, "the password has expired"},
    SubCode{"533", BindVerdict::kAccount, "the account is disabled"},
    SubCode{"701", BindVerdict::kAccount, "the account has expired"},
    SubCode{"773", BindVerdict::kAccount, "the password must be changed first"},
    SubCode{"775", BindVerdict::kAccount, "the account is locked"},
};

constexpr std::string_view kSubCodeMark = "data ";

// The hexadecimal number at the beginning of `text`.
std::string_view leading_number(std::string_view text) {
  return text.substr(0, std::min(text.size(), text.find_first_not_of("0123456789abcdef")));
}

BindRefusal refusal_by_sub_code(std::string_view text) {
  for (size_t at = text.find(kSubCodeMark); at != std::string_view::npos;
       at = text.find(kSubCodeMark, at + 1)) {
    const std::string_view number = leading_number(text.substr(at + kSubCodeMark.size()));
    for (const SubCode& one : kSubCodes)
      if (number == one.number) return {one.verdict, one.reason};
  }
  return {BindVerdict::kWrong, "wrong user or password"};
}

// What the password policy control of an answer says; an empty reason when it says nothing that matters.
BindRefusal refusal_by_policy(LDAP* ld, const Outcome& outcome) {
  LDAPControl* control =
      ldap_control_find(LDAP_CONTROL_PASSWORDPOLICYRESPONSE, outcome.controls.get(), nullptr);
  ber_int_t expires = 0;
  ber_int_t grace = 0;
  LDAPPasswordPolicyError error = PP_noError;
  if (control == nullptr ||
      ldap_parse_passwordpolicy_control(ld, control, &expires, &grace, &error) != LDAP_SUCCESS)
    return {};
  // A success in spite of an expired password used up one of the log-ons that are granted after the expiry.
  if (error == PP_passwordExpired && outcome.code != LDAP_SUCCESS)
    return {BindVerdict::kAccount, "the password has expired"};
  if (error == PP_accountLocked) return {BindVerdict::kAccount, "the account is locked"};
  if (error == PP_changeAfterReset) return {BindVerdict::kAccount, "the password must be changed first"};
  return {};
}

// A server may repeat what it was sent: such a text is not for the log.
std::string_view without_secret(std::string_view server_text, std::string_view password) {
  return server_text.find(password) == std::string_view::npos ? server_text : "(text left out)";
}

BindResult judge(const LdapConnection::Session& session, const Outcome& outcome, std::string_view password) {
  BindRefusal refusal = refusal_by_policy(session.ld, outcome);
  if (outcome.code == LDAP_SUCCESS && refusal.reason.empty())
    return {BindVerdict::kProven, kDirectorySuccess, {}};
  if (refusal.reason.empty()) refusal = classify_refusal(outcome.code, outcome.text);
  const bool told = refusal.verdict != BindVerdict::kCannotTell;
  return {refusal.verdict, told ? kDirectoryBadCredentials : outward_code(outcome.code),
          session.url + ": " + std::string(refusal.reason) + "; " +
              describe(outcome.code, without_secret(outcome.text, password))};
}

BindResult cannot_tell(const Error& error) {
  return {BindVerdict::kCannotTell, error.code, error.text};
}

Result<Outcome> simple_bind(LdapConnection::Session& session, const std::string& dn,
                            std::string_view password) {
  session.bound = false;
  ++session.binds;
  LDAPControl* raw = nullptr;
  ldap_create_passwordpolicy_control(session.ld, &raw);
  const Control policy(raw);
  std::array<LDAPControl*, 2> controls{policy.get(), nullptr};
  berval secret{password.size(), const_cast<char*>(password.data())};  // only read
  int id = 0;
  const Deadline until = session.deadline();
  const int rc = ldap_sasl_bind(session.ld, dn.c_str(), LDAP_SASL_SIMPLE, &secret,
                                policy ? controls.data() : nullptr, nullptr, &id);
  if (rc != LDAP_SUCCESS) return session.fail_local(rc, "bind");
  return session.finish(id, LDAP_RES_BIND, until, "bind");
}

}  // namespace

BindRefusal classify_refusal(int result_code, std::string_view server_text) {
  switch (result_code) {
    case LDAP_INVALID_CREDENTIALS: return refusal_by_sub_code(server_text);
    case LDAP_NO_SUCH_OBJECT: return {BindVerdict::kWrong, "no such user"};
    case LDAP_INAPPROPRIATE_AUTH: return {BindVerdict::kAccount, "the account has no password"};
    // How some servers tell of too many wrong passwords.
    case LDAP_CONSTRAINT_VIOLATION: return {BindVerdict::kAccount, "the account is locked"};
    case LDAP_STRONG_AUTH_REQUIRED:
    case LDAP_CONFIDENTIALITY_REQUIRED:
      return {BindVerdict::kCannotTell, "the server wants TLS (ldaps:// or StartTLS) for passwords"};
    case LDAP_UNWILLING_TO_PERFORM: return {BindVerdict::kCannotTell, "the server is unwilling to check it"};
    case LDAP_BUSY:
    case LDAP_UNAVAILABLE: return {BindVerdict::kCannotTell, "the server is busy or unavailable"};
    case LDAP_REFERRAL: return {BindVerdict::kCannotTell, "the server names another one for this user"};
    default: return {BindVerdict::kCannotTell, "no verdict on the password"};
  }
}

BindResult LdapConnection::bind(const std::string& dn, std::string_view password) {
  if (const auto ready = session_->ready(); !ready) return cannot_tell(ready.error());
  // The server would take either for an anonymous bind, which succeeds and proves nothing; and it would be
  // asked about another user if the name ended at a NUL.
  if (password.empty())
    return {BindVerdict::kWrong, kDirectoryBadCredentials, "an empty password is never sent"};
  if (dn.empty() || dn.find('\0') != std::string::npos)
    return {BindVerdict::kWrong, kDirectoryBadCredentials, "not the name of a user: " + printable(dn)};
  const auto outcome = simple_bind(*session_, dn, password);
  if (!outcome) return cannot_tell(outcome.error());
  BindResult result = judge(*session_, *outcome, password);
  session_->bound = result.verdict == BindVerdict::kProven;
  return result;
}

Result<void> LdapConnection::bind_anonymously() {
  if (const auto ready = session_->ready(); !ready) return ready;
  const auto outcome = simple_bind(*session_, "", "");
  if (!outcome) return tl::unexpected(outcome.error());
  if (outcome->code != LDAP_SUCCESS) return session_->refused(*outcome, "anonymous bind");
  session_->bound = true;
  return {};
}

}  // namespace velder
