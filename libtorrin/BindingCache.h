// The cache behind IPUserCacheModule, with the places where a test can put itself between it and the
// machine.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <span>
#include <string>

#include "libtorrin/IPUserCacheModule.h"
#include "libtorrin/Maintenance.h"
#include "libtorrin/Recovery.h"
#include "libtorrin/Settings.h"
#include "libtorrin/Store.h"

namespace torrin {

int64_t system_clock_seconds();

// What a cache takes from the machine.
struct Surroundings {
  Clock clock = system_clock_seconds;
  std::string boot_id_file = "/proc/sys/kernel/random/boot_id";
  size_t map_bytes = kMapBytes;
};

// Calls and results are those of IPUserCacheModule.
class BindingCache {
 public:
  explicit BindingCache(Surroundings surroundings = {});
  BindingCache(const BindingCache&) = delete;
  BindingCache& operator=(const BindingCache&) = delete;
  ~BindingCache();

  int initialize(const char* workdir);
  int query(const char* ip, std::string& user, long& expire);
  int update(const char* ip, const std::string& user);
  int remove(const char* ip);
  void change(std::span<IPUserChange> changes);
  bool change_would_wait() { return store_.change_would_wait(); }
  bool export_to(const std::string& path);
  int flush() const;

  // True in a fork of the process that initialised the cache: there it must not be destroyed, since threads
  // may be inside a call.
  bool is_inherited() const;
  // The work of the maintenance thread, for a process that has none.
  long sweep() { return sweep_expired(store_, surroundings_.clock); }
  bool copy() { return make_compact_copy(store_, folder_); }

 private:
  tl::expected<void, std::string> start(const char* workdir);
  tl::expected<void, std::string> open_store();
  tl::expected<void, std::string> open_flush_descriptor();
  void close_flush_descriptor();
  int64_t expiry_from(int64_t now) const;

  const Surroundings surroundings_;
  Settings settings_;
  std::string workdir_;  // absolute, as is the next
  std::string folder_;
  std::unique_ptr<Recovery> recovery_;  // holds the folder
  Store store_;
  pid_t owner_ = -1;
  std::atomic<int> flush_fd_{-1};  // read by a signal handler
};

}  // namespace torrin
