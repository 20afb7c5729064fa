// What an entry of a directory means to us: a user, a group or nothing.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libvelder/LdifReader.h"

namespace velder {

enum class EntryKind { kOther, kUser, kGroup };

// The attributes that count, as they stand in the record, which must outlive this. Of attributes with one
// value the first that is not empty is taken; "" when there is none.
struct EntryAttributes {
  EntryKind kind = EntryKind::kOther;
  std::string_view cn;
  std::string_view uid;  // sAMAccountName, else uid, else cn
  std::string_view upn;
  std::string_view primary_group;  // primaryGroupID
  std::string_view sid;            // objectSid as stored
  std::string_view nt_hash;        // sambaNTPassword
  bool disabled = false;           // userAccountControl, bit 2
  std::vector<std::string_view> passwords;
  std::vector<std::string_view> member_of;    // DNs
  std::vector<std::string_view> members;      // DNs of member and uniqueMember
  std::vector<std::string_view> member_uids;  // memberUid
};

// An entry that is both a user and a group by its object classes is a user.
EntryAttributes read_attributes(const LdifRecord& record);

// A security identifier in its text form ("S-1-5-21-..."), from that form or from the bytes; "" when it is
// neither.
std::string sid_text(std::string_view value);

// The identifier of the group with the relative number `rid` in the domain of `user_sid` (text form).
std::string sibling_sid(std::string_view user_sid, std::string_view rid);

}  // namespace velder
