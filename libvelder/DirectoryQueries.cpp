#include "libvelder/DirectoryQueries.h"

#include <algorithm>

#include "libvelder/Dn.h"
#include "libvelder/Fold.h"
#include "libvelder/Password.h"

namespace velder {
namespace {

// Checked, and ignored, for users that do not exist, so that the time of an answer does not tell who does.
constexpr std::string_view kNobodysPassword = "{SSHA}2vFJ1bWpXKXMvCDZ1VnBmGXgIzlxdmVsZGVyLW5v";

// Longer ones are hardly anybody's; a client must not make every thread keep megabytes.
constexpr size_t kLongestKeptName = 256;

// The answers for members of more take long in any case.
constexpr size_t kMostKeptGroups = 500;

// To fold the megabytes that a client may send takes a thread many seconds and hundreds of megabytes.
constexpr size_t kLongestName = size_t{64} << 10;

// What is too long for a name gets the key of the empty text, which is nobody's.
std::string name_key(std::string_view name) {
  return name.size() > kLongestName ? std::string() : fold_text(name);
}

// Also a text of nothing but characters that folding ignores, while the empty text is in all names.
bool is_in_no_name(std::string_view part) {
  return part.size() > kLongestName || (!part.empty() && search_text(part).empty());
}

// The search limit is over when one more than it allows is found.
size_t probe_limit(uint32_t limit) {
  return limit == 0 ? 0 : size_t{limit} + 1;
}

// Cuts the list to the limit; whether there was more.
bool cut(std::vector<EntryId>& ids, uint32_t limit) {
  if (limit == 0 || ids.size() <= limit) return false;
  ids.resize(limit);
  return true;
}

UserRow row_of(const KnownUser& user) {
  return {{std::string(user.dn), std::string(user.cn), std::string(user.uid), std::string(user.upn)},
          std::string(user.domain_dns)};
}

void sort_unique(std::vector<EntryId>& ids) {
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
}

}  // namespace

std::optional<EntryId> DirectoryQueries::only_one(std::vector<EntryId>& ids) {
  sort_unique(ids);
  ambiguous_ = ids.size() > 1;
  return ids.size() == 1 ? std::optional(ids.front()) : std::nullopt;
}

int DirectoryQueries::search_users(std::string_view name, Match match, std::list<UserMeta>& users) {
  std::vector<EntryId> ids;
  const size_t limit = probe_limit(search_limit_);
  if (match == Match::kWhole) {
    reader_.users_named(name_key(name), NameUse::kSearch, ids);
    sort_unique(ids);
  } else if (!is_in_no_name(name)) {
    reader_.users_containing(search_text(name), limit, ids);
  }
  const bool more = cut(ids, search_limit_);
  for (const EntryId id : ids) {
    UserRow row;
    if (reader_.user(id, row)) users.push_back(std::move(row.meta));
  }
  return code(more ? kDirectorySizeLimit : kDirectorySuccess);
}

int DirectoryQueries::search_groups(std::string_view name, Match match, std::list<GroupMeta>& groups) {
  std::vector<EntryId> ids;
  const size_t limit = probe_limit(search_limit_);
  if (match == Match::kWhole)
    reader_.groups_with_cn(name_key(name), limit, ids);
  else if (!is_in_no_name(name))
    reader_.groups_containing(search_text(name), limit, ids);
  const bool more = cut(ids, search_limit_);
  list_groups(ids, groups);
  return code(more ? kDirectorySizeLimit : kDirectorySuccess);
}

void DirectoryQueries::list_groups(const std::vector<EntryId>& ids, std::list<GroupMeta>& groups) {
  for (const EntryId id : ids) groups.push_back(reader_.groups().row(id));
}

int DirectoryQueries::user_groups(std::string_view user, std::list<GroupMeta>& groups) {
  const auto known = find_known(user, true);
  if (!known) return code(kDirectoryNoSuchObject);
  for (const KnownUser::Group& group : known->groups) {
    groups.push_back({std::string(group.dn), std::string(group.cn)});
  }
  return kDirectorySuccess;
}

int DirectoryQueries::group_groups(std::string_view group, Match match, std::list<GroupMeta>& groups) {
  std::vector<EntryId> tops;
  if (match == Match::kWhole) {
    if (const auto id = find_group(group, true, true)) tops.push_back(*id);
  } else if (!is_in_no_name(group)) {
    reader_.groups_containing(search_text(group), 0, tops);
  }
  if (tops.empty()) return code(kDirectoryNoSuchObject);
  list_groups(reader_.groups().all_below(tops), groups);
  return code(kDirectorySuccess);
}

int DirectoryQueries::all_users(const std::list<std::string>& groups, bool by_dn,
                                std::list<GroupUserMeta>& group_users) {
  bool found = false;
  size_t listed = 0;
  for (const std::string& name : groups) {
    if (listed > kMostListedUsers) return code(kDirectorySizeLimit);
    GroupUserMeta record;
    if (users_of_group(name, by_dn, record) != kDirectorySuccess) continue;
    found = true;
    listed += record.users.size() + 1;
    group_users.push_back(std::move(record));
  }
  return code(found ? kDirectorySuccess : kDirectoryNoSuchObject);
}

int DirectoryQueries::users_of_group(std::string_view group, bool by_dn, GroupUserMeta& record) {
  const auto id = find_group(group, !by_dn, by_dn);
  if (!id) return code(kDirectoryNoSuchObject);
  record.group_dn = reader_.groups().row(*id).dn;
  for (const EntryId user : users_below(*id)) {
    std::string address;
    if (reader_.user_address(user, address)) record.users.push_back(std::move(address));
  }
  return code(kDirectorySuccess);
}

int DirectoryQueries::user_info(std::string_view user, UserRow& row) {
  const auto known = find_known(user, false);
  if (!known) return code(kDirectoryNoSuchObject);
  row = row_of(*known);
  return kDirectorySuccess;
}

std::shared_ptr<const KnownUser> DirectoryQueries::known_user(std::string_view user) {
  // The caller may go on with it when the snapshot is no longer in force.
  struct Held {
    std::shared_ptr<const SnapshotFile> file;
    std::shared_ptr<const KeptUser> user;
  };
  auto known = find_known(user, true);
  if (!known) return nullptr;
  const auto held = std::make_shared<const Held>(Held{reader_.file(), std::move(known)});
  return {held, held->user.get()};
}

int DirectoryQueries::account(std::string_view user, UserRow& row, Credentials& credentials) {
  const auto known = find_known(user, false);
  if (!known) return code(kDirectoryNoSuchObject);
  row = row_of(*known);
  reader_.credentials(known->id, credentials);
  return code(kDirectorySuccess);
}

bool DirectoryQueries::knows_domain(std::string_view name) {
  return reader_.has_domain(fold_text(name));
}

CredentialVerdict DirectoryQueries::check_credential(std::string_view user, std::string_view password) {
  const auto known = find_known(user, false);
  if (!known) {
    check_password(kNobodysPassword, password);
    return reader_.failure() ? CredentialVerdict::kCannotTell : CredentialVerdict::kUnknownUser;
  }
  Credentials credentials;
  reader_.credentials(known->id, credentials);
  if (reader_.failure()) return CredentialVerdict::kCannotTell;
  const PasswordVerdict verdict = check_password(credentials.passwords, password);
  if (credentials.disabled) return CredentialVerdict::kDisabled;
  switch (verdict) {
    case PasswordVerdict::kMatch: return CredentialVerdict::kProven;
    case PasswordVerdict::kMismatch: return CredentialVerdict::kWrongPassword;
    case PasswordVerdict::kCannotTell: break;
  }
  return CredentialVerdict::kCannotTell;
}

// Asks the memory of all threads first.
std::shared_ptr<const KeptUser> DirectoryQueries::find_known(std::string_view name, bool with_groups) {
  const std::string key = name_key(name);
  // A DN has any number of spellings.
  const bool can_be_kept = key.size() <= kLongestKeptName && key.find('=') == std::string::npos;
  KnownUsers& all = reader_.file()->known_users();
  ambiguous_ = false;
  std::optional<EntryId> id;
  if (can_be_kept) {
    if (auto known = all.find(key)) {
      if (!with_groups || known->has_groups) return known;
      id = known->id;
    }
  }
  if (!id) id = find_user(name);
  auto user = id ? read_user(*id) : nullptr;
  if (!user) return nullptr;
  auto kept = user;
  if (with_groups) {
    if (!read_groups(*user)) return nullptr;
    if (user->groups.size() > kMostKeptGroups) kept = nullptr;
  }
  if (kept && can_be_kept) all.keep(key, std::move(kept));
  return user;
}

std::shared_ptr<KeptUser> DirectoryQueries::read_user(EntryId id) {
  UserRow row;
  if (!reader_.user(id, row)) return nullptr;
  auto user = std::make_shared<KeptUser>();
  user->id = id;
  user->texts.reserve(row.domain_dns.size() + row.meta.uid.size() + row.meta.cn.size() + row.meta.dn.size() +
                      row.meta.upn.size());  // from here on no text moves
  const auto keep = [&](std::string_view text) {
    const size_t at = user->texts.size();
    user->texts += text;
    return std::string_view(user->texts).substr(at);
  };
  user->domain_dns = keep(row.domain_dns);
  user->uid = keep(row.meta.uid);
  user->cn = keep(row.meta.cn);
  user->dn = keep(row.meta.dn);
  user->upn = keep(row.meta.upn);
  return user;
}

bool DirectoryQueries::read_groups(KeptUser& user) {
  std::vector<EntryId> ids;
  reader_.groups_of_user(user.id, ids);
  if (reader_.failure()) return false;
  const GroupGraph& graph = reader_.groups();
  ids = graph.with_all_above(ids);
  user.groups.reserve(ids.size());
  for (const EntryId group : ids) user.groups.push_back(graph.names(group));
  user.has_groups = true;
  return true;
}

// Asks the snapshot unless the name is the one that was looked for last.
std::optional<EntryId> DirectoryQueries::find_user(std::string_view name) {
  SnapshotReader::Meaning& last = reader_.last_meaning();
  if (name != last.name) {
    std::vector<EntryId> ids = users_meant(name);
    sort_unique(ids);
    if (reader_.failure() || name.size() > kLongestKeptName) return only_one(ids);
    if (ids.size() > 2)
      ids.resize(2);  // no more is asked than whether it is one; it may be all of a directory
    last = {std::string(name), std::move(ids)};
  }
  std::vector<EntryId> ids = last.users;
  return only_one(ids);
}

// A name can be read in several ways (a principal name of one user may be uid@domain of another), and each
// way may give several users. All are asked; only a name that means one user in the end means anybody.
std::vector<EntryId> DirectoryQueries::users_meant(std::string_view name) {
  std::vector<EntryId> ids;
  const std::string key = name_key(name);
  if (key.empty()) return ids;
  reader_.users_named(key, NameUse::kIdentity, ids);
  const std::string_view folded = key;
  if (const size_t slash = folded.find('\\'); slash != std::string_view::npos && slash > 0) {
    reader_.users_in_domain(folded.substr(slash + 1), folded.substr(0, slash), false, ids);
  }
  if (const size_t at = folded.rfind('@'); at != std::string_view::npos) {
    reader_.users_in_domain(folded.substr(0, at), folded.substr(at + 1), true, ids);
  }
  if (folded.find('=') != std::string_view::npos) {
    if (const std::string dn_key = normalize_dn(name); !dn_key.empty()) reader_.users_with_dn(dn_key, ids);
  }
  return ids;
}

std::optional<EntryId> DirectoryQueries::find_group(std::string_view name, bool by_cn, bool by_dn) {
  std::vector<EntryId> ids;
  if (by_cn) reader_.groups_with_cn(name_key(name), 2, ids);
  if (by_dn && name.size() <= kLongestName) {
    if (const std::string dn_key = normalize_dn(name); !dn_key.empty()) reader_.groups_with_dn(dn_key, ids);
  }
  return only_one(ids);
}

std::vector<EntryId> DirectoryQueries::users_below(EntryId group) {
  std::vector<EntryId> users;
  reader_.member_users(group, users);
  for (const EntryId nested : reader_.groups().all_below({group})) reader_.member_users(nested, users);
  sort_unique(users);
  return users;
}

}  // namespace velder
