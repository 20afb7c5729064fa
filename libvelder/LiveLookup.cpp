#include "libvelder/LiveLookup.h"

#include <algorithm>
#include <set>
#include <utility>

#include "libvelder/Dn.h"
#include "libvelder/Fold.h"
#include "libvelder/Snapshot.h"

namespace velder {
namespace {

// So many entries share a name when it is somebody's cn, of which only those count that have no uid.
constexpr size_t kMostNamesakes = 500;

tl::unexpected<Error> unknown(std::string_view what, std::string_view name) {
  return tl::make_unexpected(
      Error{kDirectoryNoSuchObject, "no such " + std::string(what) + ", or several: " + printable(name)});
}

bool can_be_a_name(std::string_view name) {
  return name.size() <= LiveLookup::kLongestName;
}

std::string every_name(Schema schema, std::string (*compare)(std::string_view, std::string_view),
                       std::string_view name, EntryKind kind) {
  std::string filters = compare("cn", name);
  if (kind == EntryKind::kGroup) return filters;
  filters += compare("sAMAccountName", name) + compare("userPrincipalName", name);
  if (schema != Schema::kAd) filters += compare("uid", name);
  return any_of(filters);
}

// The ways in which a user's name can be read, as the snapshot reads it.
struct UserName {
  explicit UserName(std::string_view name) : text(name), key(fold_text(name)) {
    const std::string_view folded = key;
    if (const size_t slash = folded.find('\\'); slash != std::string_view::npos && slash > 0) {
      domain_of_slash = folded.substr(0, slash);
      uid_of_slash = folded.substr(slash + 1);
    }
    if (const size_t at = folded.rfind('@'); at != std::string_view::npos) {
      domain_of_at = folded.substr(at + 1);
      uid_of_at = folded.substr(0, at);
    }
    if (folded.find('=') != std::string_view::npos) dn_key = normalize_dn(name);
  }

  // The same parts as a server is to get them, which folds in its own way.
  std::string filters(Schema schema) const {
    std::string all = uid_equality(schema, text) + equality("userPrincipalName", text);
    const size_t slash = text.find('\\'), at = text.rfind('@');
    if (uid_of_slash && slash != std::string_view::npos) all += uid_equality(schema, text.substr(slash + 1));
    if (uid_of_at && at != std::string_view::npos) all += uid_equality(schema, text.substr(0, at));
    return any_of(all);
  }

  bool means(const LiveEntry& user, const Settings& settings) const {
    const std::string uid = fold_text(user.uid);
    if (uid == key || (!user.upn.empty() && fold_text(user.upn) == key)) return true;
    const std::string dns = fold_text(user.domain_dns);
    if (uid_of_at && uid == *uid_of_at && dns == *domain_of_at) return true;
    return uid_of_slash && uid == *uid_of_slash &&
           (dns == *domain_of_slash ||
            (!dns.empty() && fold_text(netbios_name_of(settings, user.domain_dns)) == *domain_of_slash));
  }

  bool names(const Domain& domain) const {
    const std::string dns = fold_text(domain.dns_name);
    return (domain_of_slash &&
            (*domain_of_slash == dns || *domain_of_slash == fold_text(domain.netbios_name))) ||
           (domain_of_at && *domain_of_at == dns);
  }

  std::string_view text;
  std::string key;
  std::optional<std::string> domain_of_slash, uid_of_slash;
  std::optional<std::string> domain_of_at, uid_of_at;
  std::string dn_key;  // empty: no DN
};

void sort_entries(std::vector<LiveEntry>& entries) {
  std::vector<std::pair<std::string, LiveEntry>> keyed;
  keyed.reserve(entries.size());
  for (LiveEntry& entry : entries) keyed.emplace_back(fold_text(entry.cn), std::move(entry));
  std::sort(keyed.begin(), keyed.end(), [](const auto& a, const auto& b) {
    const int by_cn = a.first.compare(b.first);
    return by_cn != 0 ? by_cn < 0 : a.second.dn < b.second.dn;
  });
  entries.clear();
  for (auto& [key, entry] : keyed) entries.push_back(std::move(entry));
}

// Trees of two domains may overlap.
void drop_repeated(std::vector<LiveEntry>& entries) {
  std::set<std::string, std::less<>> seen;
  std::erase_if(entries, [&](const LiveEntry& entry) { return !seen.insert(entry.dn_key).second; });
}

bool holds_text(const LiveEntry& entry, std::string_view part, EntryKind kind) {
  const auto holds = [&](std::string_view text) { return search_text(text).find(part) != std::string::npos; };
  return holds(entry.cn) || (kind == EntryKind::kUser && (holds(entry.uid) || holds(entry.upn)));
}

bool is_called(const LiveEntry& entry, std::string_view key, EntryKind kind) {
  return fold_text(entry.cn) == key ||
         (kind == EntryKind::kUser && (fold_text(entry.uid) == key || fold_text(entry.upn) == key));
}

}  // namespace

UserRow LiveUser::row() const {
  return {{entry.dn, entry.cn, entry.uid, entry.upn}, entry.domain_dns};
}

Result<bool> LiveLookup::search(std::string_view name, Match match, Wanted wanted, uint32_t limit,
                                std::vector<LiveEntry>& hits) {
  if (!can_be_a_name(name) || (name.empty() && match == Match::kWhole)) return true;
  const std::string key = match == Match::kWhole ? fold_text(name) : search_text(name);
  const auto compare = match == Match::kWhole ? equality : containing;
  const EntryKind kind = wanted == Wanted::kUserNames ? EntryKind::kUser : EntryKind::kGroup;
  Question question;
  question.wanted = wanted;
  if (limit != 0) question.most = limit;
  question.keep = [&](const LiveEntry& entry) {
    return entry.kind == kind &&
           (match == Match::kWhole ? is_called(entry, key, kind) : holds_text(entry, key, kind));
  };
  bool complete = true;
  for (size_t number = 0; number < search_.domain_count(); ++number) {
    const Schema schema = search_.domain(number).schema;
    question.filter = kind == EntryKind::kUser ? user_classes(schema) : group_classes(schema);
    if (!name.empty()) question.filter = all_of(question.filter + every_name(schema, compare, name, kind));
    const auto done = search_.ask(number, question, hits);
    if (!done) return done;
    complete = complete && *done;
  }
  drop_repeated(hits);
  sort_entries(hits);
  if (limit == 0 || hits.size() <= limit) return complete;
  hits.resize(limit);
  return false;
}

Result<bool> LiveLookup::search_users(std::string_view name, Match match, std::list<UserMeta>& users) {
  std::vector<LiveEntry> hits;
  const auto complete = search(name, match, Wanted::kUserNames, search_limit_, hits);
  if (!complete) return complete;
  for (LiveEntry& hit : hits) {
    users.push_back({std::move(hit.dn), std::move(hit.cn), std::move(hit.uid), std::move(hit.upn)});
  }
  return complete;
}

Result<bool> LiveLookup::search_groups(std::string_view name, Match match, std::list<GroupMeta>& groups) {
  std::vector<LiveEntry> hits;
  const auto complete = search(name, match, Wanted::kGroupAbove, search_limit_, hits);
  if (!complete) return complete;
  for (LiveEntry& hit : hits) groups.push_back({std::move(hit.dn), std::move(hit.cn)});
  return complete;
}

// All readings of the name in all domains; several different entries may come. A domain that cannot be asked
// does no harm when the name says another one and somebody there has it.
Result<std::vector<LiveEntry>> LiveLookup::users_of_name(std::string_view text) {
  const UserName name(text);
  std::vector<LiveEntry> found;
  std::optional<Error> failure;
  bool at_home = false;
  bool home_is_known = false;
  for (size_t number = 0; number < search_.domain_count(); ++number) {
    home_is_known = home_is_known || name.names(search_.domain(number));
  }
  for (size_t number = 0; number < search_.domain_count(); ++number) {
    const bool is_home = name.names(search_.domain(number));
    // DOMAIN\uid means nobody anywhere else.
    if (name.domain_of_slash && home_is_known && !is_home) continue;
    const Schema schema = search_.domain(number).schema;
    Question question;
    question.filter = all_of(std::string(user_classes(schema)) + name.filters(schema));
    question.keep = [&](const LiveEntry& entry) {
      return entry.kind == EntryKind::kUser && name.means(entry, search_.settings());
    };
    question.most = kMostNamesakes;
    const size_t before = found.size();
    const auto done = search_.ask(number, question, found);
    if (!done && is_home) return tl::make_unexpected(done.error());
    if (!done) failure = done.error();
    if (done && !*done) return unknown("user", text);
    at_home = at_home || (is_home && found.size() > before);
  }
  if (!name.dn_key.empty()) {
    if (const auto done = search_.read(text, Wanted::kUser, found); !done) {
      failure = done.error();
      at_home = false;
    }
  }
  if (failure && !at_home) return tl::make_unexpected(*failure);
  std::erase_if(found, [](const LiveEntry& entry) { return entry.kind != EntryKind::kUser; });
  drop_repeated(found);
  return found;
}

std::shared_ptr<ServerPool> LiveLookup::servers_of(std::string_view dn) const {
  const auto holders = search_.domains_holding(normalize_dn(dn));
  return holders.empty() ? nullptr : search_.pool(holders.front());
}

Result<LiveUser> LiveLookup::find_user(std::string_view name) {
  if (!can_be_a_name(name) || fold_text(name).empty()) return unknown("user", name);
  auto found = users_of_name(name);
  if (!found) return tl::make_unexpected(found.error());
  if (found->size() != 1) return unknown("user", name);
  auto servers = servers_of(found->front().dn);
  return LiveUser{std::move(found->front()), std::move(servers)};
}

Result<LiveEntry> LiveLookup::find_group(std::string_view name, bool by_cn, bool by_dn) {
  if (!can_be_a_name(name)) return unknown("group", name);
  const std::string key = fold_text(name);
  std::vector<LiveEntry> found;
  Question question;
  question.wanted = Wanted::kGroupBelow;
  question.most = 1;
  question.keep = [&](const LiveEntry& entry) {
    return entry.kind == EntryKind::kGroup && fold_text(entry.cn) == key;
  };
  for (size_t number = 0; by_cn && !key.empty() && number < search_.domain_count(); ++number) {
    question.filter =
        all_of(std::string(group_classes(search_.domain(number).schema)) + equality("cn", name));
    const auto done = search_.ask(number, question, found);
    if (!done) return tl::make_unexpected(done.error());
    if (!*done) return unknown("group", name);
  }
  if (by_dn) {
    if (auto done = search_.read(name, Wanted::kGroupBelow, found); !done) {
      return tl::make_unexpected(done.error());
    }
  }
  std::erase_if(found, [](const LiveEntry& entry) { return entry.kind != EntryKind::kGroup; });
  drop_repeated(found);
  if (found.size() != 1) return unknown("group", name);
  return std::move(found.front());
}

}  // namespace velder
