// Nested groups, asked of the servers level by level: everything directly above or below the level at hand
// in a few searches, each entry once, whatever cycles there are.
#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "libvelder/Dn.h"
#include "libvelder/Fold.h"
#include "libvelder/GroupGraph.h"
#include "libvelder/LiveLookup.h"
#include "libvelder/Snapshot.h"

namespace velder {
namespace {

// A look-up that reaches more entries than this is given up.
constexpr size_t kMostGroups = 50'000;

// Up to so many members are read one by one sooner than a server finds them among all users.
constexpr size_t kFewMembers = 4 * LiveSearch::kChunk;

using Texts = std::vector<std::string>;

template <class Each>
Result<void> in_chunks(const Texts& texts, Each each) {
  for (size_t at = 0; at < texts.size(); at += LiveSearch::kChunk) {
    const auto first = texts.begin() + static_cast<std::ptrdiff_t>(at);
    const size_t count = std::min(LiveSearch::kChunk, texts.size() - at);
    if (auto done = each(Texts(first, first + static_cast<std::ptrdiff_t>(count))); !done) return done;
  }
  return {};
}

// An answer that a server's own limit cut short would be a wrong answer.
Result<void> whole(const Result<bool>& done) {
  if (!done) return tl::make_unexpected(done.error());
  if (*done) return {};
  return tl::make_unexpected(
      Error{kDirectoryOther, "a size limit of the server cuts what one look-up asks for"});
}

Error too_many_groups() {
  return {kDirectoryOther, "more than " + std::to_string(kMostGroups) + " groups in one look-up"};
}

bool is_group(const LiveEntry& entry) {
  return entry.kind == EntryKind::kGroup;
}
bool is_user(const LiveEntry& entry) {
  return entry.kind == EntryKind::kUser;
}

template <class Entries>
std::vector<const LiveEntry*> sorted(const Entries& entries) {
  std::vector<std::pair<std::string, const LiveEntry*>> keyed;
  keyed.reserve(entries.size());
  for (const auto& [key, entry] : entries) keyed.emplace_back(fold_text(entry.cn), &entry);
  std::sort(keyed.begin(), keyed.end(), [](const auto& left, const auto& right) {
    const int by_cn = left.first.compare(right.first);
    return by_cn != 0 ? by_cn < 0 : left.second->dn < right.second->dn;
  });
  std::vector<const LiveEntry*> order;
  order.reserve(keyed.size());
  for (const auto& [key, entry] : keyed) order.push_back(entry);
  return order;
}

std::string member_filter(Schema schema, const Texts& dns) {
  std::string filters;
  for (const std::string& dn : dns) {
    filters += equality("member", dn);
    if (schema != Schema::kAd) filters += equality("uniqueMember", dn);
  }
  return all_of(std::string(group_classes(schema)) + any_of(filters));
}

}  // namespace

// The primary group, and those that name the user by his uid, which names nobody when two users of the
// domain have it.
Result<void> LiveLookup::first_groups(const LiveUser& user, std::vector<LiveEntry>& found) {
  Question question;
  question.wanted = Wanted::kGroupAbove;
  const LiveEntry& entry = user.entry;
  for (size_t number = 0; number < search_.domain_count(); ++number) {
    const Domain& domain = search_.domain(number);
    if (!search_.may_hold(number, entry.domain_dns)) continue;
    const std::string classes(group_classes(domain.schema));
    if (!entry.primary_group_sid.empty()) {
      question.keep = is_group;
      question.filter = all_of(classes + sid_equality(entry.primary_group_sid));
      if (auto done = whole(search_.ask(number, question, found)); !done) return done;
    }
    question.keep = [&](const LiveEntry& group) {
      return is_group(group) && fold_text(group.domain_dns) == fold_text(entry.domain_dns);
    };
    question.filter = all_of(
        classes + any_of(equality("memberUid", entry.uid) + equality("memberUid", ascii_lower(entry.uid))));
    std::vector<LiveEntry> by_uid;
    if (auto done = whole(search_.ask(number, question, by_uid)); !done) return done;
    if (by_uid.empty()) continue;
    const auto only = is_only_user(entry);
    if (!only) return tl::make_unexpected(only.error());
    if (*only) std::move(by_uid.begin(), by_uid.end(), std::back_inserter(found));
  }
  return {};
}

Result<bool> LiveLookup::is_only_user(const LiveEntry& user) {
  LiveEntry group;
  group.domain_dns = user.domain_dns;
  group.member_uids = {user.uid};
  std::vector<LiveEntry> found;
  if (auto done = members_by_uid(group, found); !done) return tl::make_unexpected(done.error());
  return found.size() == 1;
}

// Active Directory keeps the two sides of a membership in step within a domain, and looks through all its
// entries when it is asked for the other side.
bool LiveLookup::knows_both_sides(size_t number, std::string_view dn) const {
  if (search_.domain(number).schema != Schema::kAd) return false;
  const auto holders = search_.domains_holding(normalize_dn(dn));
  return std::find(holders.begin(), holders.end(), number) != holders.end();
}

// `trusted`: entries say themselves in which groups they are.
Result<void> LiveLookup::groups_with_members(const Texts& dns, bool trusted, std::vector<LiveEntry>& found) {
  Question question;
  question.wanted = Wanted::kGroupAbove;
  question.keep = is_group;
  for (size_t number = 0; number < search_.domain_count(); ++number) {
    Texts members = dns;
    if (trusted) std::erase_if(members, [&](const auto& dn) { return knows_both_sides(number, dn); });
    const auto ask = [&](const Texts& chunk) {
      question.filter = member_filter(search_.domain(number).schema, chunk);
      return whole(search_.ask(number, question, found));
    };
    if (auto done = in_chunks(members, ask); !done) return done;
  }
  return {};
}

Result<void> LiveLookup::user_groups(const LiveUser& user, std::list<GroupMeta>& groups) {
  std::unordered_map<std::string, LiveEntry> reached;
  std::vector<LiveEntry> found;
  if (auto done = first_groups(user, found); !done) return done;
  Texts level = {user.entry.dn};
  Texts said = user.entry.member_of;  // by the entries of the level themselves
  std::unordered_set<std::string> asked;
  bool says_groups = false;  // some entry did; where the reading account may not see that, no entry does
  while (!level.empty()) {
    says_groups = says_groups || !said.empty();
    if (auto done = groups_with_members(level, says_groups, found); !done) return done;
    // Servers that keep memberOf keep it for what was just found, too; the rest is rare.
    for (const LiveEntry& entry : found) asked.insert(entry.dn_key);
    std::erase_if(said, [&](const std::string& dn) { return !asked.insert(normalize_dn(dn)).second; });
    if (auto done = search_.read_many(said, Wanted::kGroupAbove, true, found); !done) return done;

    level.clear();
    said.clear();
    for (LiveEntry& entry : found) {
      const auto [place, added] = reached.try_emplace(entry.dn_key, std::move(entry));
      if (!added) continue;
      level.push_back(place->second.dn);
      said.insert(said.end(), place->second.member_of.begin(), place->second.member_of.end());
    }
    found.clear();
    if (reached.size() > kMostGroups) return tl::make_unexpected(too_many_groups());
  }
  for (const LiveEntry* group : sorted(reached)) groups.push_back({group->dn, group->cn});
  return {};
}

struct LiveLookup::Below {
  std::map<std::string, LiveEntry> groups;  // the tops among them; by dn_key
  std::map<std::string, LiveEntry> users;
  std::unordered_set<std::string> asked;  // keys of members, whether they exist or not

  // Keeps what is new. The groups of it make the next level.
  std::vector<LiveEntry> take(std::vector<LiveEntry>& found, bool groups_only) {
    std::vector<LiveEntry> level;
    for (LiveEntry& entry : found) {
      if (is_group(entry) && groups.try_emplace(entry.dn_key, entry).second)
        level.push_back(std::move(entry));
      else if (is_user(entry) && !groups_only)
        users.try_emplace(entry.dn_key, std::move(entry));
    }
    found.clear();
    return level;
  }
};

// What says itself that it is in a group of the level (one search where the server keeps memberOf), then
// what only the groups say.
Result<void> LiveLookup::members_by_dn(const std::vector<LiveEntry>& level, Below& below, bool groups_only,
                                       std::vector<LiveEntry>& found) {
  Question question;
  question.wanted = groups_only ? Wanted::kGroupBelow : Wanted::kBelow;
  for (size_t number = 0; number < search_.domain_count(); ++number) {
    const Domain& domain = search_.domain(number);
    Texts groups;
    for (const LiveEntry& group : level) {
      const bool few = !group.members.empty() && group.members.size() <= kFewMembers;
      if (!few || !knows_both_sides(number, group.dn)) groups.push_back(group.dn);
    }
    std::string classes(group_classes(domain.schema));
    if (!groups_only) classes = any_of(classes + std::string(user_classes(domain.schema)));
    const auto ask = [&](const Texts& chunk) {
      std::string filters;
      for (const std::string& dn : chunk) filters += equality("memberOf", dn);
      question.filter = all_of(classes + any_of(filters));
      return whole(search_.ask(number, question, found));
    };
    if (auto done = in_chunks(groups, ask); !done) return done;
  }
  for (const LiveEntry& entry : found) below.asked.insert(entry.dn_key);
  Texts others;
  for (const LiveEntry& group : level) {
    for (const std::string& member : group.members) {
      if (below.asked.insert(normalize_dn(member)).second) others.push_back(member);
    }
  }
  return search_.read_many(others, question.wanted, groups_only, found);
}

Result<void> LiveLookup::members_by_uid(const LiveEntry& group, std::vector<LiveEntry>& found) {
  std::map<std::string, std::string> uids;  // folded and as written
  for (const std::string& uid : group.member_uids) uids.emplace(fold_text(uid), uid);
  uids.erase("");
  Texts texts;
  for (const auto& [key, uid] : uids) texts.push_back(uid);
  const std::string dns = fold_text(group.domain_dns);

  std::vector<LiveEntry> users;
  Question question;
  question.wanted = Wanted::kUserNames;
  question.keep = [&](const LiveEntry& entry) {
    return is_user(entry) && fold_text(entry.domain_dns) == dns && uids.contains(fold_text(entry.uid));
  };
  for (size_t number = 0; number < search_.domain_count(); ++number) {
    const Domain& domain = search_.domain(number);
    if (!search_.may_hold(number, group.domain_dns)) continue;
    const auto ask = [&](const Texts& chunk) {
      std::string filters;
      for (const std::string& uid : chunk) filters += uid_equality(domain.schema, uid);
      question.filter = all_of(std::string(user_classes(domain.schema)) + any_of(filters));
      return whole(search_.ask(number, question, users));
    };
    if (auto done = in_chunks(texts, ask); !done) return done;
  }
  std::map<std::string, std::set<std::string>> dns_of_uid;
  for (const LiveEntry& user : users) dns_of_uid[fold_text(user.uid)].insert(user.dn_key);
  for (LiveEntry& user : users) {
    // Taken once, though the trees of two domains may overlap and give him twice.
    auto& dns_with_uid = dns_of_uid[fold_text(user.uid)];
    if (dns_with_uid.size() != 1) continue;
    dns_with_uid.clear();
    found.push_back(std::move(user));
  }
  return {};
}

Result<void> LiveLookup::members_by_primary_group(const LiveEntry& group, std::vector<LiveEntry>& found) {
  const size_t dash = group.sid.rfind('-');
  if (dash == std::string::npos) return {};
  Question question;
  question.wanted = Wanted::kBelow;
  question.keep = [&](const LiveEntry& entry) {
    return is_user(entry) && entry.primary_group_sid == group.sid;
  };
  for (size_t number = 0; number < search_.domain_count(); ++number) {
    const Domain& domain = search_.domain(number);
    if (!search_.may_hold(number, group.domain_dns)) continue;
    question.filter = all_of(std::string(user_classes(domain.schema)) +
                             equality("primaryGroupID", group.sid.substr(dash + 1)));
    if (auto done = whole(search_.ask(number, question, found)); !done) return done;
  }
  return {};
}

Result<void> LiveLookup::expand(Below& below, std::vector<LiveEntry> level, bool groups_only) {
  while (!level.empty()) {
    std::vector<LiveEntry> found;
    if (auto done = members_by_dn(level, below, groups_only, found); !done) return done;
    for (const LiveEntry& group : level) {
      if (groups_only) break;
      if (auto done = members_by_uid(group, found); !done) return done;
      if (auto done = members_by_primary_group(group, found); !done) return done;
    }
    level = below.take(found, groups_only);
    if (below.groups.size() > kMostGroups) return tl::make_unexpected(too_many_groups());
  }
  return {};
}

Result<void> LiveLookup::group_groups(std::string_view name, Match match, std::list<GroupMeta>& groups) {
  std::vector<LiveEntry> tops;
  if (match == Match::kWhole) {
    auto group = find_group(name, true, true);
    if (!group) return tl::make_unexpected(group.error());
    tops.push_back(std::move(*group));
  } else {
    if (auto done = whole(search(name, match, Wanted::kGroupBelow, 0, tops)); !done) return done;
    if (tops.empty()) {
      return tl::make_unexpected(Error{kDirectoryNoSuchObject, "no such group: " + printable(name)});
    }
  }
  Below below;
  Texts top_keys;
  for (const LiveEntry& top : tops) top_keys.push_back(top.dn_key);
  std::vector<LiveEntry> level = below.take(tops, true);
  // The empty name has found every group there is.
  if (!name.empty()) {
    if (auto done = expand(below, std::move(level), true); !done) return done;
  }

  GroupGraph graph;
  std::unordered_map<std::string_view, uint32_t> numbers;
  for (const LiveEntry* group : sorted(below.groups)) {
    graph.add(group->dn, group->cn);
    numbers.emplace(group->dn_key, static_cast<uint32_t>(graph.size()));
  }
  std::vector<GroupGraph::Pair> nested;
  const auto connect = [&](const std::string& member, const std::string& group) {
    const auto low = numbers.find(member), high = numbers.find(group);
    if (low != numbers.end() && high != numbers.end() && low->second != high->second) {
      nested.emplace_back(low->second, high->second);
    }
  };
  for (const auto& [key, group] : below.groups) {
    for (const std::string& member : group.members) connect(normalize_dn(member), key);
    for (const std::string& above : group.member_of) connect(key, normalize_dn(above));
  }
  std::vector<int64_t> top_numbers;
  for (const std::string& key : top_keys) top_numbers.push_back(numbers.at(key));
  graph.connect(nested);
  for (const int64_t number : graph.all_below(top_numbers)) groups.push_back(graph.row(number));
  return {};
}

Result<GroupUserMeta> LiveLookup::users_of_group(std::string_view name, bool by_dn) {
  auto group = find_group(name, !by_dn, by_dn);
  if (!group) return tl::make_unexpected(group.error());
  GroupUserMeta record;
  record.group_dn = group->dn;
  Below below;
  std::vector<LiveEntry> found;
  found.push_back(std::move(*group));
  if (auto done = expand(below, below.take(found, false), false); !done) {
    return tl::make_unexpected(done.error());
  }
  for (const LiveEntry* user : sorted(below.users))
    record.users.push_back(user->uid + '@' + user->domain_dns);
  return record;
}

}  // namespace velder
