// The meaning of the look-ups: how names are read, what is ambiguous, what nesting means, what a limit cuts.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libvelder/LdapModule.h"
#include "libvelder/Snapshot.h"

namespace velder {

// How strictly a search or a group's name is taken.
enum class Match { kAnywhere, kWhole };

enum class CredentialVerdict {
  kProven,
  kWrongPassword,
  kDisabled,
  kUnknownUser,  // no such user, or a name that several users have
  kCannotTell,   // no password is stored, or none in a form that can be checked
};

// Over one thread's reader. Results are DirectoryResult codes; when the reader has failed they are
// kDirectoryOther, whatever the question. Lists are appended to.
class DirectoryQueries {
 public:
  // Of one question about the users of groups, all groups together. A group may be named any number of times
  // in one question, so that a short question could otherwise ask for more than the memory holds.
  static constexpr size_t kMostListedUsers = 2'000'000;

  // `search_limit` 0: no limit.
  DirectoryQueries(SnapshotReader& reader, uint32_t search_limit)
      : reader_(reader), search_limit_(search_limit) {}

  int search_users(std::string_view name, Match match, std::list<UserMeta>& users);
  int search_groups(std::string_view name, Match match, std::list<GroupMeta>& groups);
  int user_groups(std::string_view user, std::list<GroupMeta>& groups);
  int group_groups(std::string_view group, Match match, std::list<GroupMeta>& groups);
  int all_users(const std::list<std::string>& groups, bool by_dn, std::list<GroupUserMeta>& group_users);
  // The same for one group.
  int users_of_group(std::string_view group, bool by_dn, GroupUserMeta& record);
  int user_info(std::string_view user, UserRow& row);
  // Null: nobody.
  std::shared_ptr<const KnownUser> known_user(std::string_view user);
  // With what logons need to know; `credentials` may hold hashes.
  int account(std::string_view user, UserRow& row, Credentials& credentials);
  // Whether `name` is the DNS or NetBIOS name of a domain here.
  bool knows_domain(std::string_view name);
  CredentialVerdict check_credential(std::string_view user, std::string_view password);

  // After a result of 32: several entries have the name.
  bool ambiguous() const { return ambiguous_; }

 private:
  std::optional<EntryId> only_one(std::vector<EntryId>& ids);
  std::optional<EntryId> find_user(std::string_view name);
  std::shared_ptr<const KeptUser> find_known(std::string_view name, bool with_groups);
  std::shared_ptr<KeptUser> read_user(EntryId id);
  bool read_groups(KeptUser& user);
  std::vector<EntryId> users_meant(std::string_view name);
  std::optional<EntryId> find_group(std::string_view name, bool by_cn, bool by_dn);
  void list_groups(const std::vector<EntryId>& ids, std::list<GroupMeta>& groups);
  std::vector<EntryId> users_below(EntryId group);
  int code(int when_good) const { return reader_.failure() ? kDirectoryOther : when_good; }

  SnapshotReader& reader_;
  uint32_t search_limit_;
  bool ambiguous_ = false;  // the name that was looked for last
};

}  // namespace velder
