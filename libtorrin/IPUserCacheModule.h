// The IP-user cache: which user is bound to a client address, shared by the parent and all workers of
// one machine.
//
// A binding made by one process is seen by every other at once; it survives the death of any process
// and a restart. Addresses are compared by value (10.0.0.1 = ::ffff:10.0.0.1). All calls may be made
// from any number of threads at once; after a fork the child opens the store anew at its first call.
// Nothing throws but for want of memory. The file format is described in docs/ip-user-cache.md.
#pragma once

#include <memory>
#include <span>
#include <string>

namespace torrin {
class BindingCache;
}

// Results of the int calls.
enum IPUserCacheResult : int {
  kCacheSuccess = 0,       // done, or found
  kCacheNotFound = 1,      // not bound, or the binding has expired
  kCacheRefused = -1,      // not an IPv4 or IPv6 address; an empty or over-long user
  kCacheStoreFailed = -2,  // the store failed; one log line says why
};

struct IPUserChange {
  const char* ip;
  const std::string* user;  // null: the binding is removed
  int result = 0;           // of the change alone, set by the call
};

class IPUserCacheModule {
 public:
  IPUserCacheModule();
  // In the process that initialised the cache: makes the compact copy and closes. Elsewhere: nothing.
  ~IPUserCacheModule();
  IPUserCacheModule(const IPUserCacheModule&) = delete;
  IPUserCacheModule& operator=(const IPUserCacheModule&) = delete;

  // Reads IPUserCache.ini in `workdir` and opens or recovers the store; an empty `workdir` means the root
  // directory. Called once in the parent before any fork. 0, or another value after one log line that says
  // what is wrong.
  int initialize(const char* workdir);

  // 0: found; `user` is the text exactly as it was bound, `expire` the time in seconds since the epoch
  // at which the binding ends, or 0 for a binding that never does (Lifetime 0). In the second `expire` itself
  // the binding has already ended. Otherwise both stay as they were.
  int query_cache_item(const char* ip, std::string& user, long& expire);

  // Binds `ip` to `user` (1 to 1,024 bytes), replacing or renewing an earlier binding.
  int update_cache_item(const char* ip, const std::string& user);

  // Removes the binding; 1 when there was none.
  int delete_cache_item(const char* ip);

  // Several of the two above in their order, at little more than the cost of one: what is written to the
  // file or flushed to the disk is so once for all. All of them are seen at the same moment.
  void change_cache_items(std::span<IPUserChange> changes);

  // True when one of the calls above would probably wait now: for the disk, or for another thread or
  // process that is in the middle of a change. False is no promise.
  bool change_would_wait();

  // Writes all live bindings as CSV (RFC 4180) to the absolute path `path`, beside the target and renamed
  // into place. Never follows a link, never replaces a file that is not an earlier export, never makes one
  // that the daemon would take for its own. False after one log line with the reason.
  bool export_cache_item(const std::string& path);

  // Pushes what was bound to the disk. Async-signal-safe: one system call. 0, or -2, also before initialize.
  int write_cache_file();

 private:
  std::unique_ptr<torrin::BindingCache> cache_;
};
