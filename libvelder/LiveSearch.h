// Questions to the servers of all domains, one at a time: what is sent, how it is escaped, and what comes
// back as users and groups. What the answers mean for a look-up is LiveLookup's affair.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "libvelder/DirectoryEntry.h"
#include "libvelder/Error.h"
#include "libvelder/LdapConnection.h"
#include "libvelder/LongWaits.h"
#include "libvelder/ServerPool.h"
#include "libvelder/Settings.h"

namespace velder {

using ServerPools = std::vector<std::shared_ptr<ServerPool>>;

// A user or a group as a server has just sent it. What was not asked for is empty.
struct LiveEntry {
  EntryKind kind = EntryKind::kOther;
  std::string dn;
  std::string dn_key;  // normalize_dn
  std::string cn;
  std::string uid;
  std::string upn;
  std::string domain_dns;  // from the DN
  std::string sid;         // text form
  std::string primary_group_sid;
  bool disabled = false;
  std::vector<std::string> member_of;
  std::vector<std::string> members;
  std::vector<std::string> member_uids;
};

enum class Wanted {
  kUser,        // all of a user
  kUserNames,   // a user for a list
  kGroupAbove,  // a group for a list, and what is above it
  kGroupBelow,  // a group with its members
  kBelow,       // whatever is in a group: of users the names
};

struct Question {
  std::string filter;
  Wanted wanted = Wanted::kUser;
  // Entries that it turns down are passed over. Users and groups only; may be empty.
  std::function<bool(const LiveEntry&)> keep;
  size_t most = SIZE_MAX;  // with one more the search is cut short
};

// "(attribute=value)", the value escaped. Beyond ASCII the folded value is offered as well: servers compare
// accents that are composed in another way as other letters.
std::string equality(std::string_view attribute, std::string_view value);
// "(attribute=*value*)"; "" matches every entry that has the attribute.
std::string containing(std::string_view attribute, std::string_view value);
// One or more items, without the "or" around them, for the attributes that a user's uid may be in.
std::string uid_equality(Schema schema, std::string_view uid);
// "(objectSid=...)" for the text form of an identifier.
std::string sid_equality(std::string_view sid);
std::string any_of(std::string_view filters);
std::string all_of(std::string_view filters);
// What makes an entry a user or a group there; a server need not send anything else.
std::string_view user_classes(Schema schema);
std::string_view group_classes(Schema schema);

// For one look-up and one thread. Errors: 81, 85, and 1 with a text for the log for everything else.
class LiveSearch {
 public:
  // DNs or names in one filter: few round trips, and short enough for every server.
  static constexpr size_t kChunk = 50;
  // Of one look-up, however many searches it takes. A thread is not to be lost to a server that answers
  // everything a little too late: beyond the time-out for one answer not every thread may go on.
  static constexpr std::chrono::seconds kMostTime{30};

  // Both must outlive this.
  LiveSearch(const ServerPools& pools, const Settings& settings);

  size_t domain_count() const { return pools_.size(); }
  const Domain& domain(size_t number) const { return pools_[number]->domain(); }
  const Settings& settings() const { return settings_; }
  const std::shared_ptr<ServerPool>& pool(size_t number) const { return pools_[number]; }

  // The domains in whose tree an entry with this DN (normalize_dn) would be: of a tree and one below it the
  // lower one, whose servers the upper one's would only refer to.
  std::vector<size_t> domains_holding(std::string_view dn_key) const;
  // Whether entries of the DNS domain may be in the tree of the domain.
  bool may_hold(size_t domain, std::string_view dns) const;

  // Appends what is in the tree of a domain. False: there is more, but `most` or the server's own limit was
  // reached.
  Result<bool> ask(size_t domain, const Question& question, std::vector<LiveEntry>& found);

  // Appends the entry with exactly this DN (any spelling) when it is a user or group.
  Result<void> read(std::string_view dn, Wanted wanted, std::vector<LiveEntry>& found);

  // Appends those users and groups (`groups_only`: groups) of the DNs that exist, in any order.
  Result<void> read_many(const std::vector<std::string>& dns, Wanted wanted, bool groups_only,
                         std::vector<LiveEntry>& found);

 private:
  Result<void> in_time();
  Result<void> before_deadline() const;
  void set_end(SearchLimits& limits) const;
  Result<bool> run(size_t domain, SearchRequest request, const Question& question,
                   std::vector<LiveEntry>& found);
  Result<void> read_in(size_t domain, const std::string& dn, std::string_view dn_key, Wanted wanted,
                       std::vector<LiveEntry>& found);
  Result<void> read_chunk(size_t domain, const std::vector<std::string>& dns, Wanted wanted,
                          std::string_view classes, std::vector<LiveEntry>& found);
  Result<bool> finds_dns(size_t domain);

  enum class Finds { kUnknown, kYes, kNo };

  const ServerPools& pools_;
  const Settings& settings_;
  std::vector<std::string> base_keys_;
  std::vector<Finds> finds_dns_;  // whether the domain's servers can search for a DN
  std::chrono::steady_clock::time_point deadline_;
  LongWait patience_;
};

}  // namespace velder
