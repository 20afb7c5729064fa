// The daemon's face of the IP-user cache library: forwards every call, adds nothing. Callable from every
// thread; results are the library's, see libtorrin/IPUserCacheModule.h.
#pragma once

#include <span>
#include <string>

#include "libtorrin/IPUserCacheModule.h"

class CacheWrapper {
 public:
  static int initialize(const char* workdir);
  static int query_cache_item(const char* ip, std::string& user, long& expire);
  static int update_cache_item(const char* ip, const std::string& user);
  static int delete_cache_item(const char* ip);
  static void change_cache_items(std::span<IPUserChange> changes);
  static bool change_would_wait();
  static bool export_cache_item(const std::string& path);
  static int write_cache_file();  // async-signal-safe

 private:
  static IPUserCacheModule cache;
};
