// What the files of the snapshot share: the engine wrapped, the layout of the file.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "libvelder/Snapshot.h"

namespace velder {

// Bytes of a database header that are ours to use; all numbers there are big-endian.
constexpr size_t kHeaderBytes = 100;
constexpr size_t kPageCountOffset = 28;
constexpr size_t kChecksumOffset = 60;       // the engine's "user version"
constexpr size_t kApplicationIdOffset = 68;  // tells file(1) and us that the file is a directory snapshot
constexpr uint32_t kApplicationId = 0x564C4452;
constexpr size_t kPageSize = 4096;

// Kinds of names in user_name and group_name. Part of the format. In this order the kinds that a look-up asks
// for are one range of the table; a list of them would cost a temporary table.
enum NameKind : int { kNameUid = 1, kNameUpn = 2, kNameCn = 3, kNameDn = 4 };

// Over the whole file, the checksum's own four bytes taken as zero. Meets damage, not malice.
uint32_t snapshot_checksum(const unsigned char* bytes, size_t size);
uint32_t read_big_endian(const unsigned char* bytes);

class Database {
 public:
  Database() = default;
  ~Database() { sqlite3_close_v2(handle_); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // An existing, empty file that nobody else uses.
  Result<void> open_draft(const std::string& path);
  // The connection reads the mapped bytes; nothing is copied.
  Result<void> open_mapped(const SnapshotFile& file);
  Result<void> close();
  Result<void> execute(const char* sql);
  Error error(std::string_view what) const;
  sqlite3* handle() const { return handle_; }

 private:
  sqlite3* handle_ = nullptr;
};

// A prepared statement. Arguments are bound by position from 1 and must stay alive until reset().
class Statement {
 public:
  enum class Step { kRow, kDone, kError };

  Statement() = default;
  ~Statement() { sqlite3_finalize(handle_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool prepare(const Database& database, const char* sql);
  bool prepared() const { return handle_ != nullptr; }

  void bind(int position, int64_t value) { sqlite3_bind_int64(handle_, position, value); }
  void bind(int position, std::string_view text) {
    sqlite3_bind_text(handle_, position, text.empty() ? "" : text.data(), static_cast<int>(text.size()),
                      SQLITE_STATIC);
  }
  void bind_blob(int position, std::string_view bytes) {
    sqlite3_bind_blob(handle_, position, bytes.empty() ? "" : bytes.data(), static_cast<int>(bytes.size()),
                      SQLITE_STATIC);
  }
  Step step() {
    const int code = sqlite3_step(handle_);
    return code == SQLITE_ROW ? Step::kRow : code == SQLITE_DONE ? Step::kDone : Step::kError;
  }
  void reset() { sqlite3_reset(handle_); }
  // For statements that give no rows.
  bool run() {
    const bool done = step() == Step::kDone;
    reset();
    return done;
  }

  int64_t number(int column) const { return sqlite3_column_int64(handle_, column); }
  std::string text(int column) const;
  bool is_null(int column) const { return sqlite3_column_type(handle_, column) == SQLITE_NULL; }

 private:
  sqlite3_stmt* handle_ = nullptr;
};

// What the builder has gathered and worked out, ready to be written: users and groups in the order of their
// numbers, the number of a row being its index + 1.
struct SnapshotContent {
  struct DomainRow {
    std::string dns;
    std::string netbios;
  };
  struct User {
    std::string dn, dn_key, cn, cn_key, uid, uid_key, upn;
    std::string nt_hash;
    std::vector<std::string> passwords;
    uint32_t domain = 0;  // index of the domain
    bool disabled = false;
  };
  struct Group {
    std::string dn, dn_key, cn, cn_key;
  };
  using Pair = GroupGraph::Pair;  // numbers of rows; lists of pairs are sorted, each pair once

  std::vector<DomainRow> domains;
  std::vector<User> users;
  std::vector<Group> groups;
  std::vector<Pair> user_groups;  // user, group
  std::vector<Pair> nested;       // member group, group
};

// The tables of a draft, in one transaction.
Result<void> write_tables(Database& database, const SnapshotContent& content, const SnapshotMeta& meta);

}  // namespace velder
