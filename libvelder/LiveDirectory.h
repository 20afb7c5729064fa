// The directory as this process has it open: which snapshot is in force, each thread's connection to it, and
// for the ldap source the servers.
//
// Every thread keeps its connection between look-ups and compares one atomic number to see whether it is
// still the right one. A reload puts a new snapshot in force and raises the number; look-ups under way end
// on the old one, which goes away with the last thread that has turned to the new.
//
// After a fork the child opens everything anew at its first look-up. It neither uses nor closes a connection
// that was opened before; what an inherited one holds is given up. A fork while other threads look up is
// allowed; not while another thread initialises or reloads, for it may hold locks of the database engine that
// nobody frees in the child.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "libvelder/Error.h"
#include "libvelder/GssAcceptor.h"
#include "libvelder/LdapServers.h"
#include "libvelder/Snapshot.h"

namespace velder {

// Valid until the calling thread's next lease_directory(). To be dropped at the end of the look-up: a reload
// that replaced the servers waits with closing their connections until then.
struct DirectoryLease {
  SnapshotReader* reader = nullptr;  // null: a directory of servers without a snapshot yet
  uint32_t search_limit = 0;
  std::shared_ptr<const LdapServers> servers;  // null: the ldif source
  std::shared_ptr<GssAcceptor> acceptor;       // an exchange under way keeps it
};

// Reads the settings in `workdir`. For the ldif source brings the snapshot up to date; for the ldap source
// neither a server nor a snapshot is needed. Leaves nothing open. To be called before other threads run;
// calling it again is allowed and turns to the other directory.
Result<void> initialize_directory(const std::string& workdir);

// Reads settings and source again and puts the result in force for all threads. On an error everything
// stays as it was; for the ldap source a snapshot that is gone or damaged is one when there was one before.
// Any thread; may take as long as building a snapshot does.
Result<void> reload_directory();

// The calling thread's connection to the snapshot in force.
Result<DirectoryLease> lease_directory();

}  // namespace velder
