#include "libvelder/LdapQueries.h"

#include <algorithm>
#include <utility>

#include "libvelder/Dn.h"
#include "libvelder/Fold.h"
#include "libvelder/LongWork.h"

namespace velder {
namespace {

// Kinds of names that may be unknown; a user and a group may share one.
constexpr char kUser = 'u';
constexpr char kGroup = 'g';
constexpr char kGroupCn = 'c';
constexpr char kGroupDn = 'd';
constexpr char kMoved = 'm';  // the new place of an entry that the snapshot has, by its old DN

}  // namespace

struct LdapQueries::Account {
  std::string dn;
  bool disabled = false;
  bool fresh = false;                   // just read from a server
  std::shared_ptr<ServerPool> servers;  // null: no domain of the settings has that DN
};

LdapQueries::LdapQueries(SnapshotReader* reader, const LdapServers& servers) : servers_(servers) {
  if (reader != nullptr) snapshot_.emplace(*reader, servers.settings().search_limit);
}

LiveLookup& LdapQueries::live() {
  before_long_work();
  if (!live_) live_.emplace(servers_.pools(), servers_.settings());
  return *live_;
}

// What the caller is told when the servers did not answer.
int LdapQueries::failed(const Error& error) {
  servers_.complain(error);
  return snapshot_ ? int{kDirectoryNoSuchObject} : error.code;
}

template <class Ask>
int LdapQueries::ask_servers(char kind, std::string_view name, Ask ask) {
  if (name.empty() || name.size() > LiveLookup::kLongestName) return kDirectoryNoSuchObject;
  UnknownNames& unknown = servers_.unknown_names();
  const std::string key = kind + fold_text(name);
  if (unknown.knows(key)) return kDirectoryNoSuchObject;
  before_long_work();
  std::optional<UnknownNames::Turn> turn;
  if (snapshot_) {
    turn.emplace(unknown);
    if (!turn->granted())
      return failed({kDirectoryServerDown, "too many questions about unknown names at once"});
  }
  const Result<void> done = ask();
  if (done) return kDirectorySuccess;
  if (done.error().code != kDirectoryNoSuchObject) return failed(done.error());
  unknown.remember(key);
  return kDirectoryNoSuchObject;
}

template <class Known, class Ask>
int LdapQueries::look_up(char kind, std::string_view name, Known known, Ask ask) {
  if (snapshot_) {
    const int code = known(*snapshot_);
    if (code != kDirectoryNoSuchObject || snapshot_->ambiguous()) return code;
  }
  return ask_servers(kind, name, ask);
}

int LdapQueries::search_users(std::string_view name, Match match, std::list<UserMeta>& users) {
  if (snapshot_) return snapshot_->search_users(name, match, users);
  const auto complete = live().search_users(name, match, users);
  if (!complete) return failed(complete.error());
  return *complete ? kDirectorySuccess : kDirectorySizeLimit;
}

int LdapQueries::search_groups(std::string_view name, Match match, std::list<GroupMeta>& groups) {
  if (snapshot_) return snapshot_->search_groups(name, match, groups);
  const auto complete = live().search_groups(name, match, groups);
  if (!complete) return failed(complete.error());
  return *complete ? kDirectorySuccess : kDirectorySizeLimit;
}

int LdapQueries::user_groups(std::string_view user, std::list<GroupMeta>& groups) {
  return look_up(
      kUser, user, [&](DirectoryQueries& snapshot) { return snapshot.user_groups(user, groups); },
      [&]() -> Result<void> {
        const auto found = live().find_user(user);
        if (!found) return tl::make_unexpected(found.error());
        return live().user_groups(*found, groups);
      });
}

int LdapQueries::group_groups(std::string_view group, Match match, std::list<GroupMeta>& groups) {
  if (match == Match::kAnywhere && snapshot_) return snapshot_->group_groups(group, match, groups);
  if (match == Match::kAnywhere) {
    const auto done = live().group_groups(group, match, groups);
    if (done) return kDirectorySuccess;
    return done.error().code == kDirectoryNoSuchObject ? int{kDirectoryNoSuchObject} : failed(done.error());
  }
  return look_up(
      kGroup, group, [&](DirectoryQueries& snapshot) { return snapshot.group_groups(group, match, groups); },
      [&] { return live().group_groups(group, match, groups); });
}

int LdapQueries::all_users(const std::list<std::string>& groups, bool by_dn,
                           std::list<GroupUserMeta>& group_users) {
  bool any = false;
  size_t listed = 0;
  size_t asked = 0;
  for (const std::string& name : groups) {
    if (listed > DirectoryQueries::kMostListedUsers) return kDirectorySizeLimit;
    GroupUserMeta record;
    const int code = look_up(
        by_dn ? kGroupDn : kGroupCn, name,
        [&](DirectoryQueries& snapshot) { return snapshot.users_of_group(name, by_dn, record); },
        [&]() -> Result<void> {
          if (snapshot_ && ++asked > kMostLiveGroups) {
            return tl::make_unexpected(Error{
                kDirectoryOther, "too many unknown groups in one question, the rest was not asked for"});
          }
          auto found = live().users_of_group(name, by_dn);
          if (!found) return tl::make_unexpected(found.error());
          record = std::move(*found);
          return {};
        });
    if (code == kDirectoryNoSuchObject) continue;
    if (code != kDirectorySuccess) return code;
    any = true;
    listed += record.users.size() + 1;
    group_users.push_back(std::move(record));
  }
  return any ? kDirectorySuccess : kDirectoryNoSuchObject;
}

int LdapQueries::user_info(std::string_view user, UserRow& row) {
  return look_up(
      kUser, user, [&](DirectoryQueries& snapshot) { return snapshot.user_info(user, row); },
      [&]() -> Result<void> {
        const auto found = live().find_user(user);
        if (!found) return tl::make_unexpected(found.error());
        row = found->row();
        return {};
      });
}

Result<LdapQueries::Account> LdapQueries::find_account_live(std::string_view user) {
  auto found = live().find_user(user);
  if (!found) return tl::make_unexpected(found.error());
  return Account{std::move(found->entry.dn), found->entry.disabled, true, std::move(found->servers)};
}

int LdapQueries::find_account(std::string_view user, Account& account) {
  const auto known = [&](DirectoryQueries& snapshot) {
    UserRow row;
    Credentials credentials;
    const int code = snapshot.account(user, row, credentials);
    account.disabled = credentials.disabled;
    if (code == kDirectorySuccess) account.dn = std::move(row.meta.dn);
    return code;
  };
  const auto ask = [&]() -> Result<void> {
    auto found = find_account_live(user);
    if (!found) return tl::make_unexpected(found.error());
    account = std::move(*found);
    return {};
  };
  const int code = look_up(kUser, user, known, ask);
  if (code == kDirectorySuccess && !account.fresh) account.servers = live().servers_of(account.dn);
  return code;
}

// The account of this name when it is another one than the snapshot has.
int LdapQueries::find_moved(std::string_view user, const Account& before, Account& account) {
  return ask_servers(kMoved, before.dn, [&]() -> Result<void> {
    auto found = find_account_live(user);
    if (!found) return tl::make_unexpected(found.error());
    if (normalize_dn(found->dn) == normalize_dn(before.dn)) {
      return tl::make_unexpected(Error{kDirectoryNoSuchObject, ""});
    }
    account = std::move(*found);
    return {};
  });
}

CredentialResult LdapQueries::bind(const Account& account, std::string_view password) {
  if (account.servers == nullptr) {
    return {CredentialVerdict::kCannotTell, "no section of the settings has " + printable(account.dn, 200)};
  }
  if (account.disabled && account.fresh) return {CredentialVerdict::kDisabled, "says the entry itself"};
  before_long_work();
  BindResult result = servers_.bind_check().check(*account.servers, account.dn, password);
  switch (result.verdict) {
    case BindVerdict::kProven: break;
    case BindVerdict::kWrong: return {CredentialVerdict::kWrongPassword, std::move(result.text)};
    case BindVerdict::kAccount: return {CredentialVerdict::kDisabled, std::move(result.text)};
    case BindVerdict::kCannotTell: return {CredentialVerdict::kCannotTell, std::move(result.text)};
  }
  if (!account.disabled) return {CredentialVerdict::kProven, ""};
  const auto disabled = disabled_now(account.dn);
  if (!disabled) return {CredentialVerdict::kCannotTell, disabled.error().text};
  if (*disabled) return {CredentialVerdict::kDisabled, "says the entry itself"};
  return {CredentialVerdict::kProven, ""};
}

std::shared_ptr<const KnownUser> LdapQueries::known_user(std::string_view user) {
  return snapshot_ ? snapshot_->known_user(user) : nullptr;
}

int LdapQueries::account(std::string_view user, UserRow& row, Credentials& credentials) {
  return look_up(
      kUser, user, [&](DirectoryQueries& snapshot) { return snapshot.account(user, row, credentials); },
      [&]() -> Result<void> {
        const auto found = live().find_user(user);
        if (!found) return tl::make_unexpected(found.error());
        row = found->row();
        credentials.disabled = found->entry.disabled;
        return {};
      });
}

Result<bool> LdapQueries::disabled_now(std::string_view dn) {
  const auto now = live().find_user(dn);
  if (!now) return tl::make_unexpected(now.error());
  return now->entry.disabled;
}

bool LdapQueries::knows_domain(std::string_view name) const {
  const std::string key = fold_text(name);
  const std::vector<Domain>& domains = servers_.settings().domains;
  return std::any_of(domains.begin(), domains.end(), [&](const Domain& domain) {
    return fold_text(domain.dns_name) == key || fold_text(domain.netbios_name) == key;
  });
}

CredentialResult LdapQueries::check_credential(std::string_view user, std::string_view password) {
  Account account;
  const int code = find_account(user, account);
  if (code == kDirectoryNoSuchObject) return {CredentialVerdict::kUnknownUser, ""};
  if (code != kDirectorySuccess) {
    return {CredentialVerdict::kCannotTell, "the user was not found, result " + std::to_string(code)};
  }
  CredentialResult result = bind(account, password);
  if (result.verdict != CredentialVerdict::kWrongPassword || account.fresh) return result;
  Account moved;
  return find_moved(user, account, moved) == kDirectorySuccess ? bind(moved, password) : result;
}

}  // namespace velder
