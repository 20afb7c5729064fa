// The snapshot: one SQLite file that answers every look-up. docs/directory-snapshot.md has its tables.
//
// A snapshot file is written beside the one in use, completed, checked and only then renamed over it, so
// every reader sees a whole file or the one before. It is never changed after that. A checksum over the
// whole file stands in its header: a file that is cut, damaged or not ours is refused before the database
// engine looks at it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libvelder/Error.h"
#include "libvelder/GroupGraph.h"
#include "libvelder/KnownUsers.h"
#include "libvelder/LdapModule.h"
#include "libvelder/LdifReader.h"
#include "libvelder/Settings.h"

namespace velder {

// Raised whenever the tables, their meaning or the checksum change; other files are refused.
constexpr int kSnapshotFormat = 2;

constexpr char kSnapshotName[] = "directory.db";
constexpr char kSnapshotDraftName[] = "directory.db.new";
constexpr char kSnapshotLockName[] = "directory.db.lock";

// Number of a user or of a group in one snapshot, from 1. Users and groups are counted apart, each in the
// order in which lists are answered: by folded cn, then DN.
using EntryId = int64_t;

// What a snapshot says about itself.
struct SnapshotMeta {
  std::string source;    // "ldif" or "ldap"
  std::string origin;    // what it was made from, as its source recognises it again
  int64_t built_at = 0;  // seconds since the epoch
  int64_t users = 0;
  int64_t groups = 0;
  int64_t memberships = 0;    // direct ones: users in groups and groups in groups
  int64_t skipped_users = 0;  // without a usable uid
  int64_t nt_hashes = 0;      // users who have one
  std::string main_domain;    // NetBIOS name of the domain that most users are in; "" without users
};

// Tells whether a path still names the file that was looked at.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  int64_t size = 0;
  int64_t modified_ns = 0;
  int64_t changed_ns = 0;

  bool operator==(const FileIdentity&) const = default;
};

// The identity of an open file; nothing when fstat fails.
std::optional<FileIdentity> identity_of(int fd);

// A complete snapshot, mapped into memory. It keeps the inode: a replacement on disk does not disturb it.
// Immutable but for a memory of what was asked, any number of threads. Holds no descriptor and no database
// connection.
class SnapshotFile {
 public:
  // Checks everything but the checksum when the file is `verified`, one that passed before. Never follows
  // a link.
  static Result<std::shared_ptr<const SnapshotFile>> open(
      const std::string& path, const std::optional<FileIdentity>& verified = std::nullopt);

  ~SnapshotFile();
  SnapshotFile(const SnapshotFile&) = delete;
  SnapshotFile& operator=(const SnapshotFile&) = delete;

  const SnapshotMeta& meta() const { return meta_; }
  const FileIdentity& identity() const { return identity_; }
  // Of all groups, numbered as in the file. Read from the file at the first call.
  Result<const GroupGraph*> groups() const;
  KnownUsers& known_users() const { return known_users_; }
  unsigned char* bytes() const { return bytes_; }  // read-only memory
  size_t size() const { return size_; }

 private:
  SnapshotFile(unsigned char* bytes, size_t size, const FileIdentity& identity);

  unsigned char* bytes_;
  size_t size_;
  FileIdentity identity_;
  SnapshotMeta meta_;
  mutable std::once_flag groups_read_;
  mutable Result<GroupGraph> groups_;
  mutable KnownUsers known_users_;
};

// Text as it is kept for searching inside it: folded, and NUL replaced, which would end the text for the
// search index.
std::string search_text(std::string_view text);

// Which of a user's names a look-up asks for.
enum class NameUse {
  kIdentity,  // whole uid or principal name
  kSearch,    // whole uid, principal name or cn
};

// What proves a user of the ldif source. Wiped when destroyed.
struct Credentials {
  Credentials() = default;
  Credentials(Credentials&&) = default;
  Credentials& operator=(Credentials&&) = default;
  ~Credentials();

  bool disabled = false;
  std::vector<std::string> passwords;  // values of userPassword
  std::string nt_hash;                 // value of sambaNTPassword, may be empty
};

struct UserRow {
  UserMeta meta;
  std::string domain_dns;
};

// One thread's connection to a snapshot: plain questions, one or two statements each. Keys are folded by
// the caller (fold_text, normalize_dn, search_text for a part). Answers are appended, in
// any order and perhaps more than once; with a `limit` (0 means all) in ascending order, each once.
//
// When the engine reports an error the question ends early, later ones give nothing, and failure() tells.
class SnapshotReader {
 public:
  static Result<std::unique_ptr<SnapshotReader>> open(std::shared_ptr<const SnapshotFile> file);
  ~SnapshotReader();

  const std::shared_ptr<const SnapshotFile>& file() const { return file_; }
  const std::optional<Error>& failure() const { return failure_; }

  void users_named(std::string_view key, NameUse use, std::vector<EntryId>& ids);
  void users_with_dn(std::string_view dn_key, std::vector<EntryId>& ids);
  // `domain_key`: a DNS name or, unless `dns_only`, a NetBIOS name.
  void users_in_domain(std::string_view uid_key, std::string_view domain_key, bool dns_only,
                       std::vector<EntryId>& ids);
  // `part` occurs in cn, uid or principal name.
  void users_containing(std::string_view part, size_t limit, std::vector<EntryId>& ids);
  bool user(EntryId id, UserRow& row);
  // uid@dns.domain
  bool user_address(EntryId id, std::string& address);
  void credentials(EntryId id, Credentials& credentials);
  // Whether any user is in the domain of this DNS or NetBIOS name.
  bool has_domain(std::string_view domain_key);

  void groups_with_cn(std::string_view key, size_t limit, std::vector<EntryId>& ids);
  void groups_with_dn(std::string_view dn_key, std::vector<EntryId>& ids);
  void groups_containing(std::string_view part, size_t limit, std::vector<EntryId>& ids);

  const GroupGraph& groups() const { return *groups_; }

  // For the caller to keep what it found for a name: one request often takes several look-ups of one user.
  struct Meaning {
    std::string name;
    std::vector<EntryId> users;
  };
  Meaning& last_meaning() { return last_meaning_; }

  // Direct memberships only, primary groups among them.
  void groups_of_user(EntryId user, std::vector<EntryId>& ids);
  void member_users(EntryId group, std::vector<EntryId>& ids);

 private:
  struct Statements;

  explicit SnapshotReader(std::shared_ptr<const SnapshotFile> file);
  void containing(std::string_view part, size_t limit, bool users, std::vector<EntryId>& ids);

  std::shared_ptr<const SnapshotFile> file_;
  const GroupGraph* groups_ = nullptr;
  std::optional<Error> failure_;
  Meaning last_meaning_;
  std::unique_ptr<Statements> statements_;
};

struct BuildOptions {
  bool keep_passwords = false;  // userPassword and sambaNTPassword go into the file
  bool pass_repeats = false;    // an entry that comes again is passed over; else it is an error
};

// Gathers entries from whatever source and writes them as one snapshot. One thread at a time. Keeps all
// users in memory (about 400 bytes each) until write() has ended; what it holds of passwords is wiped.
class SnapshotBuilder {
 public:
  SnapshotBuilder(const Settings& settings, const BuildOptions& options);
  ~SnapshotBuilder();

  // Takes users and groups, passes over other entries. `entry.line` is used for errors only: a text that is
  // no DN, a DN that came before. The text of an error does not name the file.
  Result<void> add(const LdifRecord& entry);

  size_t user_count() const;
  size_t group_count() const;
  size_t repeat_count() const;  // entries that were passed over because they came again

  // Writes the complete, checked and synced file `path`, replacing what is there (an earlier draft that was
  // never published); on an error nothing is left of it. Fills the counts of `meta`; source and origin are
  // the caller's. May be called once.
  Result<void> write(const std::string& path, SnapshotMeta& meta);

 private:
  struct Draft;
  std::unique_ptr<Draft> draft_;
};

// Held by the one process that builds a snapshot in a working directory; ends with the process that holds
// it, however that ends.
class SnapshotLock {
 public:
  // Waits for the present holder.
  static Result<SnapshotLock> acquire(
      const std::string& workdir,
      std::chrono::steady_clock::time_point until = std::chrono::steady_clock::time_point::max());
  SnapshotLock(SnapshotLock&& other) noexcept;
  SnapshotLock& operator=(SnapshotLock&&) = delete;
  ~SnapshotLock();

 private:
  explicit SnapshotLock(int fd) : fd_(fd) {}
  int fd_;
};

// Puts the draft in `workdir` in the place of the snapshot, durably. Under the lock.
Result<void> publish_snapshot(const std::string& workdir);

}  // namespace velder
