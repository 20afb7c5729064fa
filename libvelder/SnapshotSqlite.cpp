// The thin wrapper around the database engine.
#include <algorithm>
#include <cstring>
#include <mutex>

#include "libvelder/Fold.h"
#include "libvelder/SnapshotInternal.h"

namespace velder {
namespace {

constexpr char kPlainVfs[] = "velder-plain";
constexpr int kLongestPath = 4096;  // PATH_MAX

// Takes a path as it stands: ours are absolute, and no part of them is to be resolved.
int take_path(sqlite3_vfs* /*vfs*/, const char* name, int room, char* out) {
  const size_t length = strlen(name);
  if (length >= static_cast<size_t>(room)) return SQLITE_CANTOPEN;
  memcpy(out, name, length + 1);
  return SQLITE_OK;
}

// The engine's own file layer without its locks (SnapshotLock guards a draft) and without its limit of 512
// bytes for a path: a working directory may have 511 of its own.
bool register_plain_vfs() {
  static sqlite3_vfs vfs;
  static const bool registered = [] {
    const sqlite3_vfs* base = sqlite3_vfs_find("unix-none");
    if (base == nullptr) return false;
    vfs = *base;
    vfs.zName = kPlainVfs;
    vfs.pNext = nullptr;
    vfs.mxPathname = kLongestPath;
    vfs.xFullPathname = take_path;
    return sqlite3_vfs_register(&vfs, 0) == SQLITE_OK;
  }();
  return registered;
}

// Without its memory statistics the engine takes no lock of the whole process in a look-up: threads do not
// wait for each other, and a fork meanwhile leaves no such lock held in the child.
void configure_engine() {
  static const int configured = sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  static_cast<void>(configured);  // refused when the engine is in use already, which does no harm
}

}  // namespace

std::string search_text(std::string_view text) {
  std::string folded = fold_text(text);
  std::replace(folded.begin(), folded.end(), '\0', '\x01');
  return folded;
}

Error Database::error(std::string_view what) const {
  std::string text(what);
  text += ": ";
  text += handle_ == nullptr ? "no memory" : sqlite3_errmsg(handle_);
  return Error{kDirectoryOther, std::move(text)};
}

Result<void> Database::open_draft(const std::string& path) {
  configure_engine();
  if (!register_plain_vfs() ||
      sqlite3_open_v2(path.c_str(), &handle_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, kPlainVfs) !=
          SQLITE_OK) {
    return tl::make_unexpected(error(path));
  }
  return {};
}

Result<void> Database::open_mapped(const SnapshotFile& file) {
  configure_engine();
  const auto size = static_cast<sqlite3_int64>(file.size());
  if (sqlite3_open_v2(":memory:", &handle_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) !=
          SQLITE_OK ||
      sqlite3_deserialize(handle_, "main", file.bytes(), size, size, SQLITE_DESERIALIZE_READONLY) !=
          SQLITE_OK) {
    return tl::make_unexpected(error("cannot be opened"));
  }
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  // mmap_size: pages are used where they lie, not copied. Exclusive, and one transaction for good: nobody
  // changes the file, so nothing needs to be looked at again for each statement, and the engine does not
  // take the lock of the whole process with which it ends a transaction. Not cell_size_check: mapped pages
  // are taken anew at each touch, so all their cells would be gone through each time, and the checksum has
  // already vouched for them.
  return execute(
      "PRAGMA mmap_size = 2147418112; PRAGMA locking_mode = EXCLUSIVE; PRAGMA temp_store = MEMORY;"
      "PRAGMA trusted_schema = OFF; PRAGMA query_only = ON; BEGIN;");
}

Result<void> Database::close() {
  const int code = sqlite3_close(handle_);
  if (code != SQLITE_OK) return tl::make_unexpected(error("close"));
  handle_ = nullptr;
  return {};
}

Result<void> Database::execute(const char* sql) {
  if (sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    return tl::make_unexpected(error("statement refused"));
  }
  return {};
}

bool Statement::prepare(const Database& database, const char* sql) {
  return sqlite3_prepare_v3(database.handle(), sql, -1, SQLITE_PREPARE_PERSISTENT, &handle_, nullptr) ==
         SQLITE_OK;
}

std::string Statement::text(int column) const {
  const auto* bytes = static_cast<const char*>(sqlite3_column_blob(handle_, column));
  const int length = sqlite3_column_bytes(handle_, column);
  return bytes == nullptr ? std::string() : std::string(bytes, static_cast<size_t>(length));
}

}  // namespace velder
