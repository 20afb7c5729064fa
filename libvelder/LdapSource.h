// The ldap source: reads whole domains from their servers and publishes the result as the snapshot.
//
// Nothing is published unless every search ran to its end and the result is sane: a directory that came
// back empty, or that lost more users or groups than ShrinkGuard allows, is refused and the snapshot in use
// stays.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libvelder/Error.h"
#include "libvelder/Settings.h"
#include "libvelder/Snapshot.h"

namespace velder {

constexpr char kLdapSourceName[] = "ldap";  // in the snapshot's meta data

// How far a synchronisation has come.
struct SyncProgress {
  std::string_view domain;  // being read; empty while the snapshot is written
  uint64_t entries = 0;     // read so far, of all domains
};

struct SyncOptions {
  bool force = false;  // publish even what the guard would refuse
  // For the wait for another process, and again for the reading; 0: no limit.
  std::chrono::milliseconds time_limit{0};
  std::function<void(const SyncProgress&)> progress;  // called once a page at most; may be empty
};

struct SyncReport {
  SnapshotMeta meta;
  std::optional<SnapshotMeta> before;  // the snapshot of this source that was replaced
  uint64_t entries = 0;
  double seconds = 0;
};

// Reads all domains and publishes the snapshot in `workdir`. Waits for another process that builds one
// there. A server that fails half-way is replaced by the next one of its domain, and reading begins anew.
// On an error the snapshot in use stays as it is.
Result<SyncReport> sync_from_servers(const std::string& workdir, const Settings& settings,
                                     const SyncOptions& options);

// The attributes that an entry is asked for, here and by look-ups that go to a server directly.
std::vector<std::string> directory_attributes();

// The snapshot in `workdir` if it is a good one of the ldap source.
std::optional<SnapshotMeta> present_ldap_snapshot(const std::string& workdir);

// Why the guard refuses to replace a snapshot of `before` users and groups by one of `users` and `groups`;
// nothing when it does not.
std::optional<std::string> guard_objection(uint32_t shrink_guard, const std::optional<SnapshotMeta>& before,
                                           size_t users, size_t groups);

}  // namespace velder
