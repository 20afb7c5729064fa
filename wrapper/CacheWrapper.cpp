#include "wrapper/CacheWrapper.h"

IPUserCacheModule CacheWrapper::cache;

int CacheWrapper::initialize(const char* workdir) {
  return cache.initialize(workdir);
}

int CacheWrapper::query_cache_item(const char* ip, std::string& user, long& expire) {
  return cache.query_cache_item(ip, user, expire);
}

int CacheWrapper::update_cache_item(const char* ip, const std::string& user) {
  return cache.update_cache_item(ip, user);
}

int CacheWrapper::delete_cache_item(const char* ip) {
  return cache.delete_cache_item(ip);
}

void CacheWrapper::change_cache_items(std::span<IPUserChange> changes) {
  cache.change_cache_items(changes);
}

bool CacheWrapper::change_would_wait() {
  return cache.change_would_wait();
}

bool CacheWrapper::export_cache_item(const std::string& path) {
  return cache.export_cache_item(path);
}

int CacheWrapper::write_cache_file() {
  return cache.write_cache_file();
}
