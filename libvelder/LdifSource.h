// The ldif source: keeps the snapshot of a working directory up to date with its LDIF file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "libvelder/Error.h"
#include "libvelder/Settings.h"
#include "libvelder/Snapshot.h"

namespace velder {

struct LdifUpdate {
  std::shared_ptr<const SnapshotFile> file;  // the snapshot in force
  bool rebuilt = false;                      // by this call
  std::string reason;                        // for a rebuilt one: what was wrong with the one before
  double seconds = 0;                        // that building took
};

// Builds and publishes a new snapshot unless the present one was made from this very LDIF file and these
// settings. Several processes and threads may call it at once: one builds, the others wait and use what it
// built. A missing LDIF file is an empty directory. On an error (a file that cannot be read or is broken, a
// working directory that cannot be written) the present snapshot stays as it is.
//
// `verified`: a snapshot file that this process has checked before, so that its checksum need not be
// worked out again.
Result<LdifUpdate> update_from_ldif(const std::string& workdir, const Settings& settings,
                                    const std::optional<FileIdentity>& verified);

struct LdifCounts {
  size_t users = 0;
  size_t groups = 0;
};

// Reads the LDIF file from end to end and changes nothing. The errors are those of update_from_ldif.
Result<LdifCounts> check_ldif(const Settings& settings);

}  // namespace velder
