#include "libvelder/NtlmLogon.h"

#include <openssl/crypto.h>

#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "brellog/VrLog.h"
#include "libvelder/DirectoryQueries.h"
#include "libvelder/Fold.h"
#include "libvelder/LdapQueries.h"
#include "libvelder/LiveDirectory.h"
#include "libvelder/NtlmMessage.h"
#include "libvelder/Winbind.h"

namespace velder {
namespace {

// Checked, and ignored, for users without a hash, so that the time of an answer does not tell who has one.
constexpr char kNobodysHash[] = "8846F7EAEE8FB117AD06BDD830B7586C";
constexpr size_t kReasonLimit = 300;
constexpr char kWinbindBusy[] = "winbind does not keep up with its questions";

// What the directory has of the user whom a message names.
struct Account {
  UserRow row;
  std::string netbios;
  bool disabled = false;
  bool ask_winbind = false;
  Secret nt_hash;       // empty: there is none, or winbind is to be asked
  std::string refusal;  // why nobody of that name is let in, whatever is proven; may be empty
};

std::string as_typed(const NtlmIdentity& who) {
  return who.domain.empty() ? who.user : who.domain + "\\" + who.user;
}

bool is_name_of(std::string_view typed, const Account& account) {
  const std::string key = fold_text(typed);
  return key == fold_text(account.row.domain_dns) || key == fold_text(account.netbios);
}

template <class Queries>
void find_user(Queries& queries, const Settings& settings, const NtlmIdentity& who, Account& account) {
  Credentials credentials;
  const int code = queries.account(as_typed(who), account.row, credentials);
  if (code == kDirectoryNoSuchObject && queries.ambiguous()) {
    account.refusal = "several users have this name, it needs a domain";
  } else if (code == kDirectoryNoSuchObject && !who.domain.empty() && !queries.knows_domain(who.domain)) {
    account.refusal = "the domain is not one of the directory";
  } else if (code == kDirectoryNoSuchObject) {
    account.refusal = "no such user in the directory";
  } else if (code != kDirectorySuccess) {
    account.refusal = "the directory cannot tell, result " + std::to_string(code);
  }
  if (code != kDirectorySuccess) return;
  account.netbios = account.row.domain_dns.empty() ? "" : netbios_name_of(settings, account.row.domain_dns);
  account.disabled = credentials.disabled;
  // A name may also be found as it stands, such as a principal name with a backslash in it.
  if (!who.domain.empty() && !is_name_of(who.domain, account)) {
    account.refusal = "the domain is not that of the user";
  }
  account.nt_hash = Secret(credentials.nt_hash);
}

// Where the proof comes from when the directory has none.
void find_proof(const DirectoryLease& lease, NtlmUsersFile* users_file, Account& account) {
  if (!account.nt_hash.empty()) return;
  if (users_file != nullptr) {
    const auto users = users_file->current();
    if (users && account.refusal.empty()) {
      account.nt_hash = (*users)->nt_hash(account.row.meta.uid, account.netbios, account.row.domain_dns);
    }
    if (account.nt_hash.empty() && account.refusal.empty()) {
      account.refusal =
          users ? "no NT hash of this user in the directory or the UserFile" : "the UserFile cannot be used";
    }
    return;
  }
  const bool local = !lease.servers && lease.reader != nullptr && lease.reader->file()->meta().nt_hashes > 0;
  if (local && account.refusal.empty()) account.refusal = "no NT hash of this user in the directory";
  account.ask_winbind = !local;
}

// Winbind takes a name without a domain for one of its own domain.
std::string refusal_before_winbind(const NtlmIdentity& who, const Account& account) {
  if (!who.domain.empty() || who.user.find('@') != std::string::npos) return {};
  const WinbindState winbind = look_at_winbind();
  if (!winbind.reachable) return "winbind is not reachable: " + winbind.why;
  if (fold_text(winbind.netbios_domain) == fold_text(account.netbios)) return {};
  return "without a domain winbind means " + winbind.netbios_domain +
         ", where the directory does not have the user";
}

std::string refusal_of_winbind(const GssAnswer& answer) {
  const WinbindState winbind = look_at_winbind();
  if (!winbind.reachable) return "winbind is not reachable: " + winbind.why;
  if (!winbind.why.empty()) return winbind.why;
  if (answer.denied)
    return "winbind says no: wrong password, or the account is unknown, locked or disabled there";
  return "winbind cannot be asked: " + answer.reason;
}

// Winbind reads the name by itself: a principal name that has changed hands since the directory was read
// last, or a domain that it does not know, may mean another user to it.
std::string refusal_of_somebody_else(const GssAnswer& answer, const Account& account) {
  const WinbindUser proven = look_up_sid(answer.sid);
  if (proven.name.empty()) return "winbind does not say whom it let in";
  if (fold_text(proven.netbios_domain) == fold_text(account.netbios) &&
      fold_text(proven.name) == fold_text(account.row.meta.uid)) {
    return {};
  }
  return "winbind takes this for " + proven.netbios_domain + "\\" + proven.name + ", who is somebody else";
}

std::string refusal_of_mechanism(const GssAnswer& answer) {
  if (answer.outcome == GssOutcome::kNoAcceptor) return "NTLM cannot be accepted: " + answer.reason;
  if (answer.outcome == GssOutcome::kAnotherLeg) return "the mechanism wants another message";
  if (answer.damaged) return "message 3 is damaged or was changed on its way: " + answer.reason;
  if (answer.reason == std::system_category().message(EINVAL)) return "wrong password";
  return "whether the password is right cannot be told: " + answer.reason;
}

// The snapshot may be older than what the domain controller has just let in.
std::string refusal_of_disabled(const DirectoryLease& lease, const Account& account) {
  if (!account.disabled) return {};
  if (lease.servers) {
    LdapQueries queries(lease.reader, *lease.servers);
    const auto now = queries.disabled_now(account.row.meta.dn);
    if (!now) return "the account was disabled, and whether it still is cannot be told: " + now.error().text;
    if (!*now) return {};
  }
  return "the account is disabled";
}

}  // namespace

void log_ntlm_refusal(std::string_view client_ip, std::string_view why) {
  VRLOG(kLogInfo, "Directory: NTLM from %s refused: %s", printable(client_ip).c_str(),
        printable(why, kReasonLimit).c_str());
}

NtlmLogon::Step NtlmLogon::step(std::string_view client_ip, std::string message, std::string& out) {
  out.clear();
  Step done = Step::kRefused;
  switch (stage_) {
    case Stage::kFresh: done = challenge(client_ip, message, out); break;
    case Stage::kChallenged: done = verify(client_ip, message, out); break;
    case Stage::kOver: log_ntlm_refusal(client_ip, "the exchange is over"); break;
  }
  stage_ = done == Step::kChallenge ? Stage::kChallenged : Stage::kOver;
  if (done != Step::kChallenge) context_.reset();
  OPENSSL_cleanse(message.data(), message.size());
  return done;
}

NtlmLogon::Step NtlmLogon::challenge(std::string_view client_ip, std::string& message, std::string& out) {
  if (const char* wrong = prepare_ntlm_type1(message)) {
    log_ntlm_refusal(client_ip, wrong);
    return Step::kRefused;
  }
  const auto lease = lease_directory();
  if (!lease) return Step::kRefused;  // was logged
  acceptor_ = lease->acceptor;
  std::optional<WinbindTurn> turn;
  if (ntlm_challenge_asks_winbind()) turn.emplace();
  if (turn && !turn->granted()) {
    log_ntlm_refusal(client_ip, kWinbindBusy);
    return Step::kRefused;
  }
  GssAnswer answer = acceptor_->ntlm_challenge(context_, message);
  const auto flags = ntlm_challenge_flags(answer.token);
  if (answer.outcome == GssOutcome::kAnotherLeg && flags) {
    challenge_flags_ = *flags;
    out = std::move(answer.token);
    return Step::kChallenge;
  }
  if (answer.outcome == GssOutcome::kNoAcceptor) {
    VRLOG(kLogError, "Directory: NTLM cannot be accepted: %s",
          printable(answer.reason, kReasonLimit).c_str());
  } else {
    log_ntlm_refusal(client_ip, "message 1: " + answer.reason);
  }
  return Step::kRefused;
}

NtlmLogon::Step NtlmLogon::verify(std::string_view client_ip, std::string& message, std::string& out) {
  NtlmIdentity who;
  const char* wrong = prepare_ntlm_type3(message, challenge_flags_, who);
  // The one line that the mechanism reads is split at colons; one that begins so would be a comment.
  if (wrong == nullptr && (who.user.find(':') != std::string::npos ||
                           who.user.find('\\') != std::string::npos || who.user.starts_with('#'))) {
    wrong = "a user's name with these characters is not supported";
  }
  if (wrong != nullptr) {
    log_ntlm_refusal(client_ip, who.user.empty() ? wrong : as_typed(who) + ": " + wrong);
    return Step::kRefused;
  }
  const auto lease = lease_directory();
  if (!lease) return Step::kRefused;  // was logged
  const Settings& settings = acceptor_->settings();
  Account account;
  if (lease->servers) {
    LdapQueries queries(lease->reader, *lease->servers);
    find_user(queries, settings, who, account);
  } else {
    DirectoryQueries queries(*lease->reader, lease->search_limit);
    find_user(queries, settings, who, account);
  }
  find_proof(*lease, acceptor_->users_file(), account);

  std::string refusal;
  if (account.ask_winbind) {
    refusal = account.refusal;
    if (refusal.empty()) {
      const WinbindTurn turn;  // a frozen winbind holds whoever asks it anything
      refusal = turn.granted() ? refusal_before_winbind(who, account) : kWinbindBusy;
      if (refusal.empty()) {
        const GssAnswer answer = acceptor_->ntlm_ask_winbind(context_, message);
        refusal = answer.outcome == GssOutcome::kProven ? refusal_of_somebody_else(answer, account)
                                                        : refusal_of_winbind(answer);
      }
    }
  } else {
    if (!account.refusal.empty()) account.nt_hash = Secret(kNobodysHash);
    const GssAnswer answer = acceptor_->ntlm_verify(context_, message, who.user, account.nt_hash);
    refusal = account.refusal;
    if (refusal.empty() && answer.outcome != GssOutcome::kProven) refusal = refusal_of_mechanism(answer);
  }
  if (refusal.empty()) refusal = refusal_of_disabled(*lease, account);
  if (!refusal.empty()) {
    log_ntlm_refusal(client_ip, as_typed(who) + ": " + refusal);
    return Step::kRefused;
  }
  out = account.netbios.empty() ? account.row.meta.uid : account.netbios + "\\" + account.row.meta.uid;
  return Step::kProven;
}

}  // namespace velder
