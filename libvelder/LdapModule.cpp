// The face of the directory library: catches what may be thrown, turns failures into codes and log lines,
// and leaves the work to the parts behind it.
#include "libvelder/LdapModule.h"

#include <algorithm>
#include <exception>
#include <string_view>

#include "brellog/VrLog.h"
#include "libvelder/DirectoryQueries.h"
#include "libvelder/Dn.h"
#include "libvelder/LdapQueries.h"
#include "libvelder/LineLimit.h"
#include "libvelder/LiveDirectory.h"
#include "libvelder/LongWork.h"
#include "libvelder/NegotiateLogon.h"
#include "libvelder/NtlmLogon.h"

namespace {

using velder::CredentialResult;
using velder::CredentialVerdict;
using velder::DirectoryQueries;
using velder::LdapQueries;
using velder::LineLimit;
using velder::Match;

// Of an error line: file names may be long, but a line of the log ends at 4,095 characters.
constexpr size_t kErrorTextLimit = 2000;

// What a caller's buffer holds of a token; the length that it passes may be larger.
constexpr int kLongestNtlmToken = 3071;
enum NtlmResult : int { kNtlmRefused = -1, kNtlmProven = 0, kNtlmChallenge = 1 };

int report(const velder::Error& error) {
  VRLOG(kLogError, "Directory: %s", velder::printable(error.text, kErrorTextLimit).c_str());
  return error.code == kDirectorySuccess ? kDirectoryOther : error.code;
}

// Memory may run out anywhere; the caller gets `when_thrown`.
template <class Work, class Value>
Value guarded(Work work, Value when_thrown) noexcept {
  try {
    return work();
  } catch (const std::exception& e) {
    VRLOG(kLogError, "Directory: request given up: %s", e.what());
  } catch (...) {
    VRLOG(kLogError, "Directory: request given up");
  }
  return when_thrown;
}

// One look-up on what is in force; `ask` takes the queries of either source. Why a snapshot cannot be opened
// was logged when it was tried; this request is only told.
template <class Ask>
int look_up(Ask ask) noexcept {
  const auto work = [&]() -> int {
    const auto lease = velder::lease_directory();
    if (!lease) return lease.error().code;
    int code = kDirectoryOther;
    if (lease->servers) {
      LdapQueries queries(lease->reader, *lease->servers);
      code = ask(queries);
    } else {
      DirectoryQueries queries(*lease->reader, lease->search_limit);
      code = ask(queries);
    }
    if (lease->reader != nullptr && lease->reader->failure()) report(*lease->reader->failure());
    return code;
  };
  return guarded(work, int{kDirectoryOther});
}

Match match_of(int flag) {
  return flag == 0 ? Match::kAnywhere : Match::kWhole;
}

// What a directory says in one word, and a server in more.
CredentialResult check(DirectoryQueries& queries, const char* user, const char* password) {
  return {queries.check_credential(user, password), ""};
}
CredentialResult check(LdapQueries& queries, const char* user, const char* password) {
  return queries.check_credential(user, password);
}

const char* describe(CredentialVerdict verdict) {
  switch (verdict) {
    case CredentialVerdict::kProven: return "proven";
    case CredentialVerdict::kWrongPassword: return "wrong";
    case CredentialVerdict::kDisabled: return "disabled or locked";
    case CredentialVerdict::kUnknownUser: return "no such user, or several of that name";
    case CredentialVerdict::kCannotTell: break;
  }
  return "cannot tell";
}

// Clients that try again at once must not fill the log: neither while no server answers nor with bad names.
LineLimit g_undecided_lines(10);
LineLimit g_refusal_lines(100);

void log_refusal(const char* user, const CredentialResult& result) {
  std::string more;
  LineLimit& limit = result.verdict == CredentialVerdict::kCannotTell ? g_undecided_lines : g_refusal_lines;
  if (!limit.lets_through(more)) return;
  VRLOG(kLogInfo, "Directory: password of user %s refused: %s%s%s%s", velder::printable(user).c_str(),
        describe(result.verdict), result.why.empty() ? "" : ", ",
        velder::printable(result.why, kErrorTextLimit).c_str(), more.c_str());
}

}  // namespace

struct LdapModule::Exchange {
  velder::NtlmLogon logon;
};

LdapModule::LdapModule() = default;
LdapModule::~LdapModule() = default;

int LdapModule::initialize(const char* workdir, bool /*flag*/) {
  const auto work = [&]() -> int {
    if (workdir == nullptr) return report({kDirectoryOther, "no working directory was given"});
    const auto done = velder::initialize_directory(workdir);
    return done ? int{kDirectorySuccess} : report(done.error());
  };
  return guarded(work, int{kDirectoryOther});
}

int LdapModule::load_db_cache() {
  const auto work = []() -> int {
    const auto done = velder::reload_directory();
    return done ? int{kDirectorySuccess} : report(done.error());
  };
  return guarded(work, int{kDirectoryOther});
}

void LdapModule::call_before_long_work(void (*hook)()) {
  velder::g_long_work_hook = hook;
}

int LdapModule::search_users(const std::string& name, int flag, std::list<UserMeta>& users) {
  velder::before_long_work();
  return look_up([&](auto& queries) { return queries.search_users(name, match_of(flag), users); });
}

int LdapModule::search_groups(const std::string& name, int flag, std::list<GroupMeta>& groups) {
  velder::before_long_work();
  return look_up([&](auto& queries) { return queries.search_groups(name, match_of(flag), groups); });
}

int LdapModule::get_user_groups(const std::string& user, std::list<GroupMeta>& groups) {
  return look_up([&](auto& queries) { return queries.user_groups(user, groups); });
}

int LdapModule::get_group_groups(const std::string& group, int flag, std::list<GroupMeta>& groups) {
  velder::before_long_work();
  return look_up([&](auto& queries) { return queries.group_groups(group, match_of(flag), groups); });
}

int LdapModule::get_all_users(std::list<std::string> groups, int is_dn,
                              std::list<GroupUserMeta>& group_users) {
  velder::before_long_work();
  return look_up([&](auto& queries) { return queries.all_users(groups, is_dn == 1, group_users); });
}

int LdapModule::get_user_info(const std::string& user, std::string& domain_dns, std::string& uid,
                              std::string& cn, std::string& dn, std::string& upn) {
  return look_up([&](auto& queries) {
    velder::UserRow row;
    const int code = queries.user_info(user, row);
    if (code != kDirectorySuccess) return code;
    domain_dns = std::move(row.domain_dns);
    uid = std::move(row.meta.uid);
    cn = std::move(row.meta.cn);
    dn = std::move(row.meta.dn);
    upn = std::move(row.meta.upn);
    return code;
  });
}

std::shared_ptr<const KnownUser> LdapModule::get_known_user(const std::string& user) {
  std::shared_ptr<const KnownUser> known;
  look_up([&](auto& queries) {
    known = queries.known_user(user);
    return int{kDirectorySuccess};
  });
  return known;
}

bool LdapModule::validate_credential(const char* user, const char* password, void* /*reserved*/) {
  if (user == nullptr || password == nullptr || *user == '\0' || *password == '\0') return false;
  CredentialResult result;
  look_up([&](auto& queries) {
    result = check(queries, user, password);
    return int{kDirectorySuccess};
  });
  if (result.verdict == CredentialVerdict::kProven) return true;
  const auto log = [&]() -> bool {
    log_refusal(user, result);
    return false;
  };
  return guarded(log, false);
}

bool LdapModule::validate_negotiate_message(const char* token, std::string& clientinfo,
                                            std::string& returnmsg, bool& neednego) {
  clientinfo.clear();
  returnmsg.clear();
  neednego = false;
  velder::before_long_work();
  const auto work = [&]() -> bool {
    const auto lease = velder::lease_directory();
    if (!lease) return false;
    velder::NegotiateAnswer answer =
        velder::check_negotiate_token(*lease->acceptor, token == nullptr ? "" : token);
    clientinfo = std::move(answer.principal);
    returnmsg = std::move(answer.token);
    neednego = answer.another_leg;
    return answer.proven;
  };
  return guarded(work, false);
}

std::string LdapModule::dn_to_dns_name(const char* dn) {
  return guarded([&] { return dn == nullptr ? std::string() : velder::dns_domain_of(dn); }, std::string());
}

int LdapModule::validate_ntlm_message(const char* client_ip, char* token, int token_len, char* out,
                                      int& out_len) {
  const auto capacity = static_cast<size_t>(std::max(out_len, 0));
  out_len = 0;
  velder::before_long_work();
  const auto work = [&]() -> int {
    const std::string_view client = client_ip == nullptr ? "" : client_ip;
    if (token == nullptr || token_len <= 0 || token_len > kLongestNtlmToken) {
      exchange_.reset();
      velder::log_ntlm_refusal(client, "the message is empty or longer than 3071 bytes");
      return kNtlmRefused;
    }
    if (!exchange_) exchange_ = std::make_unique<Exchange>();
    std::string answer;
    const auto step =
        exchange_->logon.step(client, std::string(token, static_cast<size_t>(token_len)), answer);
    if (step == velder::NtlmLogon::Step::kRefused || out == nullptr || answer.size() > capacity) {
      return kNtlmRefused;
    }
    answer.copy(out, answer.size());
    out_len = static_cast<int>(answer.size());
    return step == velder::NtlmLogon::Step::kChallenge ? kNtlmChallenge : kNtlmProven;
  };
  return guarded(work, int{kNtlmRefused});
}
