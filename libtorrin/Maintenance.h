// What keeps the store small and its compact copy fresh while the daemon runs.
#pragma once

#include <cstdint>
#include <string>

namespace torrin {

class Store;

// Seconds since the epoch.
using Clock = int64_t (*)();

// Removes all bindings that have expired, in small steps that let binds through. Gives how many, or -1.
long sweep_expired(Store& store, Clock clock);

// Replaces the compact copy in `folder` by one of this moment, complete and on the disk before it gets its
// name. One copy at a time on the machine. False after one log line; the old copy then stays.
bool make_compact_copy(Store& store, const std::string& folder);

// Starts the maintenance thread of a worker: it waits until no other process leads, then frees the slots of
// dead readers, sweeps and copies until the process ends, at once when the copy is old. `store` must live as
// long as the process.
void start_maintenance(Store& store, const std::string& folder, Clock clock);

}  // namespace torrin
