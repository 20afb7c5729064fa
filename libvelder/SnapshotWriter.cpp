// Writes the tables of a snapshot. Rows go in in the order of their keys, which appends to each tree instead
// of searching it.
#include <algorithm>
#include <cstring>

#include "libvelder/Fold.h"
#include "libvelder/SnapshotInternal.h"

namespace velder {
namespace {

using Pair = SnapshotContent::Pair;

// Without types for its columns a join between tables would not use their keys.
constexpr char kSchema[] =
    "PRAGMA page_size = 4096; PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF;"
    "PRAGMA locking_mode = EXCLUSIVE; PRAGMA temp_store = MEMORY; PRAGMA cache_size = -65536;"
    "BEGIN;"
    "CREATE TABLE meta (format INTEGER NOT NULL, folding INTEGER NOT NULL, source TEXT NOT NULL,"
    " origin TEXT NOT NULL, built_at INTEGER NOT NULL, users INTEGER NOT NULL, groups INTEGER NOT NULL,"
    " memberships INTEGER NOT NULL, skipped_users INTEGER NOT NULL,"
    " nt_hashes INTEGER NOT NULL, main_domain TEXT NOT NULL, finished INTEGER NOT NULL);"
    "CREATE TABLE domain (id INTEGER PRIMARY KEY, dns TEXT NOT NULL, netbios TEXT NOT NULL,"
    " dns_key TEXT NOT NULL, netbios_key TEXT NOT NULL);"
    "CREATE TABLE user_entry (id INTEGER PRIMARY KEY, dn TEXT NOT NULL, cn TEXT NOT NULL,"
    " uid TEXT NOT NULL, upn TEXT NOT NULL, domain_id INTEGER NOT NULL, disabled INTEGER NOT NULL,"
    " nt_hash TEXT NOT NULL);"
    "CREATE TABLE user_folded (id INTEGER PRIMARY KEY, cn TEXT NOT NULL, uid TEXT NOT NULL,"
    " upn TEXT NOT NULL);"
    "CREATE TABLE user_name (key TEXT NOT NULL, kind INTEGER NOT NULL, user_id INTEGER NOT NULL,"
    " PRIMARY KEY (key, kind, user_id)) WITHOUT ROWID;"
    "CREATE TABLE user_password (user_id INTEGER NOT NULL, position INTEGER NOT NULL, value BLOB NOT NULL,"
    " PRIMARY KEY (user_id, position)) WITHOUT ROWID;"
    "CREATE TABLE group_entry (id INTEGER PRIMARY KEY, dn TEXT NOT NULL, cn TEXT NOT NULL);"
    "CREATE TABLE group_folded (id INTEGER PRIMARY KEY, cn TEXT NOT NULL);"
    "CREATE TABLE group_name (key TEXT NOT NULL, kind INTEGER NOT NULL, group_id INTEGER NOT NULL,"
    " PRIMARY KEY (key, kind, group_id)) WITHOUT ROWID;"
    "CREATE TABLE user_group (user_id INTEGER NOT NULL, group_id INTEGER NOT NULL,"
    " PRIMARY KEY (user_id, group_id)) WITHOUT ROWID;"
    "CREATE TABLE group_user (group_id INTEGER NOT NULL, user_id INTEGER NOT NULL,"
    " PRIMARY KEY (group_id, user_id)) WITHOUT ROWID;"
    "CREATE TABLE nested_group (member_id INTEGER NOT NULL, group_id INTEGER NOT NULL,"
    " PRIMARY KEY (member_id, group_id)) WITHOUT ROWID;"
    "CREATE VIRTUAL TABLE user_search USING fts5(cn, uid, upn, content='user_folded', content_rowid='id',"
    " columnsize=0, tokenize='trigram case_sensitive 1');"
    "CREATE VIRTUAL TABLE group_search USING fts5(cn, content='group_folded', content_rowid='id',"
    " columnsize=0, tokenize='trigram case_sensitive 1');";

// hashsize: more is gathered in memory before a piece of the index is written, so fewer are merged.
constexpr char kIndexes[] =
    "INSERT INTO user_search(user_search, rank) VALUES ('hashsize', 67108864);"
    "INSERT INTO user_search(user_search) VALUES ('rebuild');"
    "INSERT INTO group_search(group_search) VALUES ('rebuild');";

// Names gathered for one table, sorted as the table is.
class NameList {
 public:
  void add(std::string_view key, NameKind kind, size_t id) {
    if (key.empty()) return;
    Name name{0, pool_.size(), static_cast<uint32_t>(key.size()), static_cast<uint32_t>(id), kind};
    unsigned char head[sizeof name.head] = {};
    memcpy(head, key.data(), std::min(key.size(), sizeof head));
    for (const unsigned char byte : head) name.head = name.head << 8 | byte;
    names_.push_back(name);
    pool_ += key;
  }

  bool write(Statement& insert) {
    std::sort(names_.begin(), names_.end(), [this](const Name& a, const Name& b) { return before(a, b); });
    return std::all_of(names_.begin(), names_.end(), [&](const Name& name) {
      insert.bind(1, key(name));
      insert.bind(2, int64_t{name.kind});
      insert.bind(3, int64_t{name.id});
      return insert.run();
    });
  }

 private:
  struct Name {
    uint64_t head;  // the first eight bytes as a number; decides most comparisons without a look at the pool
    size_t at;
    uint32_t length;
    uint32_t id;
    NameKind kind;
  };

  std::string_view key(const Name& name) const {
    return std::string_view(pool_).substr(name.at, name.length);
  }

  bool before(const Name& a, const Name& b) const {
    if (a.head != b.head) return a.head < b.head;
    if (const int order = key(a).compare(key(b)); order != 0) return order < 0;
    return a.kind != b.kind ? a.kind < b.kind : a.id < b.id;
  }

  std::string pool_;
  std::vector<Name> names_;
};

bool write_users(Database& database, const SnapshotContent& content) {
  Statement entry, folded, password, name;
  if (!entry.prepare(database, "INSERT INTO user_entry VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)") ||
      !folded.prepare(database, "INSERT INTO user_folded VALUES (?1, ?2, ?3, ?4)") ||
      !password.prepare(database, "INSERT INTO user_password VALUES (?1, ?2, ?3)") ||
      !name.prepare(database, "INSERT INTO user_name VALUES (?1, ?2, ?3)")) {
    return false;
  }
  NameList names;
  for (size_t index = 0; index < content.users.size(); ++index) {
    const SnapshotContent::User& user = content.users[index];
    const auto id = static_cast<int64_t>(index + 1);
    entry.bind(1, id);
    entry.bind(2, user.dn);
    entry.bind(3, user.cn);
    entry.bind(4, user.uid);
    entry.bind(5, user.upn);
    entry.bind(6, int64_t{user.domain} + 1);
    entry.bind(7, int64_t{user.disabled});
    entry.bind(8, user.nt_hash);
    const std::string cn = search_text(user.cn), uid = search_text(user.uid), upn = search_text(user.upn);
    folded.bind(1, id);
    folded.bind(2, cn);
    folded.bind(3, uid);
    folded.bind(4, upn);
    if (!entry.run() || !folded.run()) return false;
    for (size_t position = 0; position < user.passwords.size(); ++position) {
      password.bind(1, id);
      password.bind(2, static_cast<int64_t>(position));
      password.bind_blob(3, user.passwords[position]);
      if (!password.run()) return false;
    }
    names.add(user.uid_key, kNameUid, index + 1);
    names.add(fold_text(user.upn), kNameUpn, index + 1);
    names.add(user.dn_key, kNameDn, index + 1);
    names.add(user.cn_key, kNameCn, index + 1);
  }
  return names.write(name);
}

bool write_groups(Database& database, const SnapshotContent& content) {
  Statement entry, folded, name;
  if (!entry.prepare(database, "INSERT INTO group_entry VALUES (?1, ?2, ?3)") ||
      !folded.prepare(database, "INSERT INTO group_folded VALUES (?1, ?2)") ||
      !name.prepare(database, "INSERT INTO group_name VALUES (?1, ?2, ?3)")) {
    return false;
  }
  NameList names;
  for (size_t index = 0; index < content.groups.size(); ++index) {
    const SnapshotContent::Group& group = content.groups[index];
    const auto id = static_cast<int64_t>(index + 1);
    entry.bind(1, id);
    entry.bind(2, group.dn);
    entry.bind(3, group.cn);
    const std::string cn = search_text(group.cn);
    folded.bind(1, id);
    folded.bind(2, cn);
    if (!entry.run() || !folded.run()) return false;
    names.add(group.dn_key, kNameDn, index + 1);
    names.add(group.cn_key, kNameCn, index + 1);
  }
  return names.write(name);
}

bool write_pairs(Database& database, const char* sql, const std::vector<Pair>& pairs) {
  Statement insert;
  if (!insert.prepare(database, sql)) return false;
  return std::all_of(pairs.begin(), pairs.end(), [&](const Pair& pair) {
    insert.bind(1, int64_t{pair.first});
    insert.bind(2, int64_t{pair.second});
    return insert.run();
  });
}

bool write_memberships(Database& database, const SnapshotContent& content) {
  std::vector<Pair> turned;
  turned.reserve(content.user_groups.size());
  for (const Pair& pair : content.user_groups) turned.emplace_back(pair.second, pair.first);
  std::sort(turned.begin(), turned.end());
  return write_pairs(database, "INSERT INTO user_group VALUES (?1, ?2)", content.user_groups) &&
         write_pairs(database, "INSERT INTO group_user VALUES (?1, ?2)", turned) &&
         write_pairs(database, "INSERT INTO nested_group VALUES (?1, ?2)", content.nested);
}

bool write_domains(Database& database, const SnapshotContent& content) {
  Statement insert;
  if (!insert.prepare(database, "INSERT INTO domain VALUES (?1, ?2, ?3, ?4, ?5)")) return false;
  int64_t id = 0;
  return std::all_of(content.domains.begin(), content.domains.end(), [&](const auto& domain) {
    const std::string dns_key = fold_text(domain.dns), netbios_key = fold_text(domain.netbios);
    insert.bind(1, ++id);
    insert.bind(2, domain.dns);
    insert.bind(3, domain.netbios);
    insert.bind(4, dns_key);
    insert.bind(5, netbios_key);
    return insert.run();
  });
}

bool write_meta(Database& database, const SnapshotMeta& meta) {
  Statement insert;
  if (!insert.prepare(database,
                      "INSERT INTO meta VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, 1)")) {
    return false;
  }
  insert.bind(1, int64_t{kSnapshotFormat});
  insert.bind(2, int64_t{kFoldVersion});
  insert.bind(3, meta.source);
  insert.bind(4, meta.origin);
  insert.bind(5, meta.built_at);
  insert.bind(6, meta.users);
  insert.bind(7, meta.groups);
  insert.bind(8, meta.memberships);
  insert.bind(9, meta.skipped_users);
  insert.bind(10, meta.nt_hashes);
  insert.bind(11, meta.main_domain);
  return insert.run();
}

}  // namespace

Result<void> write_tables(Database& database, const SnapshotContent& content, const SnapshotMeta& meta) {
  if (auto made = database.execute(kSchema); !made) return made;
  const std::string id = "PRAGMA application_id = " + std::to_string(kApplicationId);
  if (auto named = database.execute(id.c_str()); !named) return named;
  if (!write_domains(database, content) || !write_users(database, content) ||
      !write_groups(database, content) || !write_memberships(database, content)) {
    return tl::make_unexpected(database.error("tables"));
  }
  if (auto indexed = database.execute(kIndexes); !indexed) return indexed;
  if (!write_meta(database, meta)) return tl::make_unexpected(database.error("meta"));
  return database.execute("ANALYZE; COMMIT;");
}

}  // namespace velder
