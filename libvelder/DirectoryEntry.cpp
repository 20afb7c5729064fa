#include "libvelder/DirectoryEntry.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

#include "libvelder/Fold.h"

namespace velder {
namespace {

constexpr int64_t kAccountDisabled = 2;  // of userAccountControl
constexpr size_t kNtHashDigits = 32;     // of sambaNTPassword
constexpr size_t kSidHeader = 8;         // revision, number of sub-authorities, six bytes of authority
constexpr size_t kMostSubAuthorities = 15;

enum ClassFlag : unsigned { kUserClass = 1, kGroupClass = 2, kComputerClass = 4 };

unsigned class_flag(std::string_view name) {
  struct Row {
    std::string_view name;
    ClassFlag flag;
  };
  static constexpr std::array<Row, 9> kRows = {{{"user", kUserClass},
                                                {"inetOrgPerson", kUserClass},
                                                {"person", kUserClass},
                                                {"posixAccount", kUserClass},
                                                {"computer", kComputerClass},
                                                {"group", kGroupClass},
                                                {"groupOfNames", kGroupClass},
                                                {"groupOfUniqueNames", kGroupClass},
                                                {"posixGroup", kGroupClass}}};
  const auto* row =
      std::find_if(kRows.begin(), kRows.end(), [&](const Row& r) { return ascii_iequals(r.name, name); });
  return row == kRows.end() ? 0U : row->flag;
}

// A uniqueMember may carry a bit string behind the DN that tells two users of that DN apart.
std::string_view without_unique_id(std::string_view name) {
  if (!name.ends_with("'B")) return name;
  const size_t mark = name.rfind("#'");
  if (mark == std::string_view::npos) return name;
  const std::string_view bits = name.substr(mark + 2, name.size() - mark - 4);
  return bits.find_first_not_of("01") == std::string_view::npos ? name.substr(0, mark) : name;
}

bool says_disabled(std::string_view control) {
  int64_t flags = 0;
  const auto [end, error] = std::from_chars(control.data(), control.data() + control.size(), flags);
  return error == std::errc() && (flags & kAccountDisabled) != 0;
}

bool is_nt_hash(std::string_view text) {
  return text.size() == kNtHashDigits &&
         text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

void take_first(std::string_view& target, std::string_view value) {
  if (target.empty()) target = value;
}

}  // namespace

EntryAttributes read_attributes(const LdifRecord& record) {
  EntryAttributes entry;
  std::string_view account, uid;
  unsigned classes = 0;
  for (const LdifAttribute& attribute : record.attributes) {
    const std::string_view name = attribute.name, value = attribute.value;
    if (name == "objectclass")
      classes |= class_flag(value);
    else if (name == "memberof")
      entry.member_of.push_back(value);
    else if (name == "member")
      entry.members.push_back(value);
    else if (name == "uniquemember")
      entry.members.push_back(without_unique_id(value));
    else if (name == "memberuid")
      entry.member_uids.push_back(value);
    else if (name == "cn")
      take_first(entry.cn, value);
    else if (name == "samaccountname")
      take_first(account, value);
    else if (name == "uid")
      take_first(uid, value);
    else if (name == "userprincipalname")
      take_first(entry.upn, value);
    else if (name == "primarygroupid")
      take_first(entry.primary_group, value);
    else if (name == "objectsid")
      take_first(entry.sid, value);
    else if (name == "userpassword")
      entry.passwords.push_back(value);
    else if (name == "sambantpassword" && is_nt_hash(value))
      take_first(entry.nt_hash, value);
    else if (name == "useraccountcontrol")
      entry.disabled = says_disabled(value);
  }
  if ((classes & kUserClass) != 0 && (classes & kComputerClass) == 0)
    entry.kind = EntryKind::kUser;
  else if ((classes & kGroupClass) != 0)
    entry.kind = EntryKind::kGroup;
  entry.uid = !account.empty() ? account : !uid.empty() ? uid : entry.cn;
  return entry;
}

std::string sid_text(std::string_view value) {
  if (value.size() > 4 && ascii_iequals(value.substr(0, 2), "S-")) {
    return value.find_first_not_of("0123456789-", 2) == std::string_view::npos ? ascii_upper(value) : "";
  }
  const auto byte = [&](size_t at) { return static_cast<unsigned char>(value[at]); };
  if (value.size() < kSidHeader || byte(0) != 1 || byte(1) > kMostSubAuthorities ||
      value.size() != kSidHeader + 4 * size_t{byte(1)}) {
    return "";
  }
  uint64_t authority = 0;
  for (size_t at = 2; at < kSidHeader; ++at) authority = authority << 8 | byte(at);
  std::string text = "S-1-" + std::to_string(authority);
  for (size_t at = kSidHeader; at < value.size(); at += 4) {
    const uint32_t part =
        byte(at) | uint32_t{byte(at + 1)} << 8 | uint32_t{byte(at + 2)} << 16 | uint32_t{byte(at + 3)} << 24;
    text += '-' + std::to_string(part);
  }
  return text;
}

std::string sibling_sid(std::string_view user_sid, std::string_view rid) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(rid.data(), rid.data() + rid.size(), number);
  const size_t last = user_sid.rfind('-');
  if (error != std::errc() || end != rid.data() + rid.size() || last == std::string_view::npos) return "";
  return std::string(user_sid.substr(0, last + 1)) + std::to_string(number);
}

}  // namespace velder
