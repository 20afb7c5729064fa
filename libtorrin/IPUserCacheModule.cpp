#include "libtorrin/IPUserCacheModule.h"

#include "libtorrin/BindingCache.h"

IPUserCacheModule::IPUserCacheModule() : cache_(std::make_unique<torrin::BindingCache>()) {}

IPUserCacheModule::~IPUserCacheModule() {
  // Threads of a worker may still be inside a call: nothing of it may go away under them.
  if (cache_->is_inherited()) (void)cache_.release();
}

int IPUserCacheModule::initialize(const char* workdir) {
  return cache_->initialize(workdir);
}

int IPUserCacheModule::query_cache_item(const char* ip, std::string& user, long& expire) {
  return cache_->query(ip, user, expire);
}

int IPUserCacheModule::update_cache_item(const char* ip, const std::string& user) {
  return cache_->update(ip, user);
}

int IPUserCacheModule::delete_cache_item(const char* ip) {
  return cache_->remove(ip);
}

void IPUserCacheModule::change_cache_items(std::span<IPUserChange> changes) {
  cache_->change(changes);
}

bool IPUserCacheModule::change_would_wait() {
  return cache_->change_would_wait();
}

bool IPUserCacheModule::export_cache_item(const std::string& path) {
  return cache_->export_to(path);
}

int IPUserCacheModule::write_cache_file() {
  return cache_->flush();
}
