#include "libvelder/KnownUsers.h"

#include <utility>

namespace velder {
namespace {

// Of one user without its texts: two nodes of a table, and what the allocator needs for them.
constexpr size_t kBytesBesideTexts = sizeof(KeptUser) + 160;

size_t bytes_of(std::string_view name, const KeptUser& user) {
  return kBytesBesideTexts + name.size() + user.texts.capacity() +
         user.groups.capacity() * sizeof(KnownUser::Group);
}

}  // namespace

KnownUsers::KnownUsers(size_t most_bytes) : most_recent_bytes_(most_bytes / 2 / kShards) {}

KnownUsers::Shard& KnownUsers::shard_of(std::string_view name) {
  // The upper bits: the lower ones choose the place in the table.
  return shards_[(Hash()(name) >> 32) % kShards];
}

// With the mutex held. What is forgotten is handed out, to be destroyed without it.
KnownUsers::Users KnownUsers::add(Shard& shard, Users::node_type node) const {
  const size_t bytes = bytes_of(node.key(), *node.mapped());
  Users forgotten;
  if (bytes > most_recent_bytes_) return forgotten;  // all others would go for this one
  if (shard.recent_bytes + bytes > most_recent_bytes_) {
    forgotten = std::exchange(shard.older, std::exchange(shard.recent, Users()));
    shard.recent_bytes = 0;
  }
  if (shard.recent.insert(std::move(node)).inserted) shard.recent_bytes += bytes;
  return forgotten;
}

std::shared_ptr<const KeptUser> KnownUsers::find(std::string_view name) {
  Shard& shard = shard_of(name);
  Users forgotten;
  const std::lock_guard lock(shard.mutex);
  if (const auto found = shard.recent.find(name); found != shard.recent.end()) return found->second;
  const auto found = shard.older.find(name);
  if (found == shard.older.end()) return nullptr;
  auto user = found->second;
  forgotten = add(shard, shard.older.extract(found));
  return user;
}

void KnownUsers::keep(std::string_view name, std::shared_ptr<const KeptUser> user) {
  Users one;
  one.emplace(name, std::move(user));
  Shard& shard = shard_of(name);
  Users forgotten;
  Users::node_type before;
  const std::lock_guard lock(shard.mutex);
  if (const auto found = shard.recent.find(name); found != shard.recent.end()) {
    before = shard.recent.extract(found);
    shard.recent_bytes -= bytes_of(before.key(), *before.mapped());
  } else if (const auto old = shard.older.find(name); old != shard.older.end()) {
    before = shard.older.extract(old);
  }
  forgotten = add(shard, one.extract(one.begin()));
}

void KnownUsers::forget() {
  for (Shard& shard : shards_) {
    Users recent;
    Users older;
    const std::lock_guard lock(shard.mutex);
    recent.swap(shard.recent);
    older.swap(shard.older);
    shard.recent_bytes = 0;
  }
}

}  // namespace velder
