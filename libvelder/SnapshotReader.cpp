// Questions to a snapshot. A statement is prepared when it is first needed and kept; between two questions
// every statement is reset.
#include <openssl/crypto.h>

#include <algorithm>
#include <array>

#include "libvelder/Fold.h"
#include "libvelder/LongWork.h"
#include "libvelder/SnapshotInternal.h"

namespace velder {
namespace {

// To read so many takes a tenth of a millisecond, and nobody knows how many follow.
constexpr size_t kManyIds = 500;

// More of them in one entry, or longer ones, may take longer than others should have to wait: to read them,
// and then to check them all.
constexpr size_t kFewPasswords = 16;
constexpr size_t kFewPasswordBytes = 4096;

enum Query : size_t {
  kUsersByIdentity,
  kUsersBySearch,
  kUsersByDn,
  kUsersInDomain,
  kUsersIndexed,
  kUsersScanned,
  kUser,
  kUserAddress,
  kCredentials,
  kDomain,
  kGroupsByCn,
  kGroupsByDn,
  kGroupsIndexed,
  kGroupsScanned,
  kDirectGroups,
  kMemberUsers,
  kQueries
};

// The numbers in the kinds are those of NameKind. Where the order of a join matters for speed, CROSS JOIN
// keeps it.
constexpr std::array<const char*, kQueries> kSql = {
    // kUsersByIdentity
    "SELECT user_id FROM user_name WHERE key = ?1 AND kind <= 2",
    // kUsersBySearch
    "SELECT user_id FROM user_name WHERE key = ?1 AND kind <= 3",
    // kUsersByDn
    "SELECT user_id FROM user_name WHERE key = ?1 AND kind = 4",
    // kUsersInDomain
    "SELECT n.user_id FROM user_name n CROSS JOIN user_entry u ON u.id = n.user_id "
    "CROSS JOIN domain d ON d.id = u.domain_id "
    "WHERE n.key = ?1 AND n.kind = 1 AND (d.dns_key = ?2 OR (?3 = 0 AND d.netbios_key = ?2))",
    // kUsersIndexed
    "SELECT rowid FROM user_search WHERE user_search MATCH ?1 ORDER BY rowid LIMIT ?2",
    // kUsersScanned
    "SELECT id FROM user_folded WHERE instr(cn, ?1) OR instr(uid, ?1) OR instr(upn, ?1) ORDER BY id LIMIT ?2",
    // kUser
    "SELECT u.dn, u.cn, u.uid, u.upn, d.dns FROM user_entry u CROSS JOIN domain d ON d.id = u.domain_id "
    "WHERE u.id = ?1",
    // kUserAddress
    "SELECT u.uid, d.dns FROM user_entry u CROSS JOIN domain d ON d.id = u.domain_id WHERE u.id = ?1",
    // kCredentials: a row for each password, one without a password when there is none
    "SELECT u.disabled, u.nt_hash, p.value FROM user_entry u LEFT JOIN user_password p ON p.user_id = u.id "
    "WHERE u.id = ?1 ORDER BY p.position",
    // kDomain
    "SELECT 1 FROM domain WHERE dns_key = ?1 OR netbios_key = ?1 LIMIT 1",
    // kGroupsByCn
    "SELECT group_id FROM group_name WHERE key = ?1 AND kind = 3 ORDER BY group_id LIMIT ?2",
    // kGroupsByDn
    "SELECT group_id FROM group_name WHERE key = ?1 AND kind = 4",
    // kGroupsIndexed
    "SELECT rowid FROM group_search WHERE group_search MATCH ?1 ORDER BY rowid LIMIT ?2",
    // kGroupsScanned
    "SELECT id FROM group_folded WHERE instr(cn, ?1) ORDER BY id LIMIT ?2",
    // kDirectGroups
    "SELECT group_id FROM user_group WHERE user_id = ?1",
    // kMemberUsers
    "SELECT user_id FROM group_user WHERE group_id = ?1 ORDER BY user_id",
};

// The index takes time and memory for each run of three characters that it is asked for: some thousands of
// them kept a thread busy for a minute, and a client may send millions.
constexpr size_t kLongestIndexed = 64;

// To the index these are one character: U+FFFD, which stands in names that somebody decoded wrongly, and the
// two last ones of the plane, which are none.
constexpr std::array<std::string_view, 3> kSameToIndex = {"\xEF\xBF\xBD", "\xEF\xBF\xBE", "\xEF\xBF\xBF"};

// The index knows every run of three characters; shorter texts, much longer ones, and texts that it would
// read otherwise than they stand, are looked for by reading all.
bool index_can_find(std::string_view part) {
  if (part.size() > kLongestIndexed || !is_utf8(part)) return false;
  for (const std::string_view one : kSameToIndex) {
    if (part.find(one) != std::string_view::npos) return false;
  }
  const auto continues = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; };
  return std::count_if(part.begin(), part.end(), [&](char c) { return !continues(c); }) >= 3;
}

// One quoted string in the index's query language, in which nothing but the quote is special.
std::string index_phrase(std::string_view part) {
  std::string phrase = "\"";
  for (const char c : part) {
    if (c == '"') phrase += '"';
    phrase += c;
  }
  return phrase += '"';
}

int64_t sql_limit(size_t limit) {
  return limit == 0 ? -1 : static_cast<int64_t>(limit);
}

}  // namespace

Credentials::~Credentials() {
  for (std::string& password : passwords) OPENSSL_cleanse(password.data(), password.size());
  OPENSSL_cleanse(nt_hash.data(), nt_hash.size());
}

struct SnapshotReader::Statements {
  Database database;
  std::array<Statement, kQueries> prepared;

  // Runs one query; `bind` and `row` get the statement. What goes wrong ends up in `failure`.
  template <class Bind, class Row>
  void run(Query query, std::optional<Error>& failure, Bind bind, Row row) {
    if (failure) return;
    Statement& statement = prepared[query];
    if (!statement.prepared() && !statement.prepare(database, kSql[query])) {
      failure = database.error(kSnapshotName);
      return;
    }
    bind(statement);
    Statement::Step step = statement.step();
    for (; step == Statement::Step::kRow; step = statement.step()) row(statement);
    if (step == Statement::Step::kError) failure = database.error(kSnapshotName);
    statement.reset();
  }

  template <class Bind>
  void collect(Query query, std::optional<Error>& failure, std::vector<EntryId>& ids, Bind bind) {
    run(query, failure, bind, [&](Statement& row) {
      ids.push_back(row.number(0));
      if (ids.size() == kManyIds) before_long_work();
    });
  }
};

Result<std::unique_ptr<SnapshotReader>> SnapshotReader::open(std::shared_ptr<const SnapshotFile> file) {
  std::unique_ptr<SnapshotReader> reader(new SnapshotReader(std::move(file)));  // private constructor
  if (auto opened = reader->statements_->database.open_mapped(*reader->file_); !opened) {
    return tl::make_unexpected(opened.error());
  }
  auto groups = reader->file_->groups();
  if (!groups) return tl::make_unexpected(groups.error());
  reader->groups_ = *groups;
  return reader;
}

SnapshotReader::SnapshotReader(std::shared_ptr<const SnapshotFile> file)
    : file_(std::move(file)), statements_(std::make_unique<Statements>()) {}

// The statements go first: they read the mapping that the file holds.
SnapshotReader::~SnapshotReader() = default;

void SnapshotReader::users_named(std::string_view key, NameUse use, std::vector<EntryId>& ids) {
  statements_->collect(use == NameUse::kIdentity ? kUsersByIdentity : kUsersBySearch, failure_, ids,
                       [&](Statement& s) { s.bind(1, key); });
}

void SnapshotReader::users_with_dn(std::string_view dn_key, std::vector<EntryId>& ids) {
  statements_->collect(kUsersByDn, failure_, ids, [&](Statement& s) { s.bind(1, dn_key); });
}

void SnapshotReader::users_in_domain(std::string_view uid_key, std::string_view domain_key, bool dns_only,
                                     std::vector<EntryId>& ids) {
  statements_->collect(kUsersInDomain, failure_, ids, [&](Statement& s) {
    s.bind(1, uid_key);
    s.bind(2, domain_key);
    s.bind(3, int64_t{dns_only});
  });
}

void SnapshotReader::users_containing(std::string_view part, size_t limit, std::vector<EntryId>& ids) {
  containing(part, limit, true, ids);
}

void SnapshotReader::groups_containing(std::string_view part, size_t limit, std::vector<EntryId>& ids) {
  containing(part, limit, false, ids);
}

void SnapshotReader::containing(std::string_view part, size_t limit, bool users, std::vector<EntryId>& ids) {
  const bool indexed = index_can_find(part);
  const std::string argument = indexed ? index_phrase(part) : std::string(part);
  const Query query =
      indexed ? (users ? kUsersIndexed : kGroupsIndexed) : (users ? kUsersScanned : kGroupsScanned);
  statements_->collect(query, failure_, ids, [&](Statement& s) {
    s.bind(1, argument);
    s.bind(2, sql_limit(limit));
  });
}

bool SnapshotReader::user(EntryId id, UserRow& row) {
  bool found = false;
  statements_->run(
      kUser, failure_, [&](Statement& s) { s.bind(1, id); },
      [&](Statement& s) {
        row.meta = UserMeta{s.text(0), s.text(1), s.text(2), s.text(3)};
        row.domain_dns = s.text(4);
        found = true;
      });
  return found;
}

bool SnapshotReader::user_address(EntryId id, std::string& address) {
  bool found = false;
  statements_->run(
      kUserAddress, failure_, [&](Statement& s) { s.bind(1, id); },
      [&](Statement& s) {
        address = s.text(0) + '@' + s.text(1);
        found = true;
      });
  return found;
}

void SnapshotReader::credentials(EntryId id, Credentials& credentials) {
  bool first = true;
  size_t bytes = 0;
  statements_->run(
      kCredentials, failure_, [&](Statement& s) { s.bind(1, id); },
      [&](Statement& s) {
        if (first) {
          credentials.disabled = s.number(0) != 0;
          credentials.nt_hash = s.text(1);
          first = false;
        }
        if (s.is_null(2)) return;
        credentials.passwords.push_back(s.text(2));
        bytes += credentials.passwords.back().size();
        if (credentials.passwords.size() > kFewPasswords || bytes > kFewPasswordBytes) before_long_work();
      });
}

bool SnapshotReader::has_domain(std::string_view domain_key) {
  bool found = false;
  statements_->run(
      kDomain, failure_, [&](Statement& s) { s.bind(1, domain_key); }, [&](Statement&) { found = true; });
  return found;
}

void SnapshotReader::groups_with_cn(std::string_view key, size_t limit, std::vector<EntryId>& ids) {
  statements_->collect(kGroupsByCn, failure_, ids, [&](Statement& s) {
    s.bind(1, key);
    s.bind(2, sql_limit(limit));
  });
}

void SnapshotReader::groups_with_dn(std::string_view dn_key, std::vector<EntryId>& ids) {
  statements_->collect(kGroupsByDn, failure_, ids, [&](Statement& s) { s.bind(1, dn_key); });
}

void SnapshotReader::groups_of_user(EntryId user, std::vector<EntryId>& ids) {
  statements_->collect(kDirectGroups, failure_, ids, [&](Statement& s) { s.bind(1, user); });
}

void SnapshotReader::member_users(EntryId group, std::vector<EntryId>& ids) {
  statements_->collect(kMemberUsers, failure_, ids, [&](Statement& s) { s.bind(1, group); });
}

}  // namespace velder
