// Look-ups that are asked of the directory servers themselves: before the first snapshot, and for names that
// the snapshot does not know.
//
// They mean what the same look-ups in a snapshot mean, with these differences. A server finds what it takes
// for equal; what it sends is then compared as in the snapshot, so an answer is never wider, but a name in
// another normal form, or one whose letter case the server minds, may not be found. Of more than SearchLimit
// hits the server chooses which ones come.
//
// An answer is complete or an error: when one domain cannot be asked there is no shorter list of groups. A
// name that says its domain is looked for in that domain first, and found there while others are down.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libvelder/DirectoryQueries.h"
#include "libvelder/LiveSearch.h"

namespace velder {

struct LiveUser {
  LiveEntry entry;
  std::shared_ptr<ServerPool> servers;  // of the user's domain

  UserRow row() const;
};

// For one look-up and one thread. Error codes: 32 (also for a name that several entries have), 81, 85, and 1
// with a text for the log. Lists are appended to, ordered by folded cn, then DN.
class LiveLookup {
 public:
  // No directory has longer names; longer ones are nobody's, and no server is asked.
  static constexpr size_t kLongestName = 1024;

  // `search_limit` 0: no limit. The others must outlive this.
  LiveLookup(const ServerPools& pools, const Settings& settings)
      : search_(pools, settings), search_limit_(settings.search_limit) {}

  // False: there are more hits than the list now holds.
  Result<bool> search_users(std::string_view name, Match match, std::list<UserMeta>& users);
  Result<bool> search_groups(std::string_view name, Match match, std::list<GroupMeta>& groups);

  // Who holds an entry with this DN; null when no domain does. Asks nobody.
  std::shared_ptr<ServerPool> servers_of(std::string_view dn) const;

  Result<LiveUser> find_user(std::string_view name);
  // Direct, nested and primary groups.
  Result<void> user_groups(const LiveUser& user, std::list<GroupMeta>& groups);

  Result<void> group_groups(std::string_view group, Match match, std::list<GroupMeta>& groups);
  // The member users of one group, as "uid@dns.domain".
  Result<GroupUserMeta> users_of_group(std::string_view group, bool by_dn);

 private:
  struct Below;

  Result<bool> search(std::string_view name, Match match, Wanted wanted, uint32_t limit,
                      std::vector<LiveEntry>& hits);
  Result<std::vector<LiveEntry>> users_of_name(std::string_view name);
  Result<LiveEntry> find_group(std::string_view name, bool by_cn, bool by_dn);
  Result<void> first_groups(const LiveUser& user, std::vector<LiveEntry>& found);
  bool knows_both_sides(size_t domain, std::string_view dn) const;
  Result<void> groups_with_members(const std::vector<std::string>& dns, bool trusted,
                                   std::vector<LiveEntry>& found);
  Result<bool> is_only_user(const LiveEntry& user);

  Result<void> expand(Below& below, std::vector<LiveEntry> level, bool groups_only);
  Result<void> members_by_dn(const std::vector<LiveEntry>& level, Below& below, bool groups_only,
                             std::vector<LiveEntry>& found);
  Result<void> members_by_uid(const LiveEntry& group, std::vector<LiveEntry>& found);
  Result<void> members_by_primary_group(const LiveEntry& group, std::vector<LiveEntry>& found);

  LiveSearch search_;
  uint32_t search_limit_;
};

}  // namespace velder
