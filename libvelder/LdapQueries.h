// The look-ups of the ldap source: from the snapshot where it can answer, from the servers where it cannot.
//
// Without a snapshot every look-up goes to the servers. With one, searches are answered from it alone, and
// so is everything it knows. A user or group that it does not know is asked of the servers before the answer
// is 32. When they cannot be asked the snapshot's word counts: 32, at once when they are known to be down.
#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "libvelder/DirectoryQueries.h"
#include "libvelder/LdapServers.h"
#include "libvelder/LiveLookup.h"

namespace velder {

struct CredentialResult {
  CredentialVerdict verdict = CredentialVerdict::kCannotTell;
  std::string why;  // for the log: what the server said, without the password; may be empty
};

// The interface of DirectoryQueries. For one look-up and one thread.
class LdapQueries {
 public:
  // Of one question about the users of groups; further groups that the snapshot does not know do not exist.
  static constexpr size_t kMostLiveGroups = 100;

  // `reader` is null before the first snapshot. Both must outlive this.
  LdapQueries(SnapshotReader* reader, const LdapServers& servers);

  int search_users(std::string_view name, Match match, std::list<UserMeta>& users);
  int search_groups(std::string_view name, Match match, std::list<GroupMeta>& groups);
  int user_groups(std::string_view user, std::list<GroupMeta>& groups);
  int group_groups(std::string_view group, Match match, std::list<GroupMeta>& groups);
  int all_users(const std::list<std::string>& groups, bool by_dn, std::list<GroupUserMeta>& group_users);
  int user_info(std::string_view user, UserRow& row);
  std::shared_ptr<const KnownUser> known_user(std::string_view user);
  int account(std::string_view user, UserRow& row, Credentials& credentials);
  bool knows_domain(std::string_view name) const;
  bool ambiguous() const { return snapshot_ && snapshot_->ambiguous(); }

  // What the server says now of an account that the snapshot has as disabled.
  Result<bool> disabled_now(std::string_view dn);

  // The server that holds the user decides, by a bind. An account that the snapshot has as disabled may have
  // been enabled since, and the other way round; so the bind comes first, and only when it succeeds for such
  // an account its entry is read anew: not every server refuses the bind itself. A user who was moved since
  // the snapshot is found again when the bind under the old name is refused.
  CredentialResult check_credential(std::string_view user, std::string_view password);

 private:
  struct Account;

  LiveLookup& live();

  template <class Ask>
  int ask_servers(char kind, std::string_view name, Ask ask);
  template <class Known, class Ask>
  int look_up(char kind, std::string_view name, Known known, Ask ask);
  int failed(const Error& error);
  int find_account(std::string_view user, Account& account);
  Result<Account> find_account_live(std::string_view user);
  int find_moved(std::string_view user, const Account& before, Account& account);
  CredentialResult bind(const Account& account, std::string_view password);

  std::optional<DirectoryQueries> snapshot_;
  const LdapServers& servers_;
  std::optional<LiveLookup> live_;  // made when it is needed
};

}  // namespace velder
