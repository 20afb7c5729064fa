// Entries hang in chains, one chain a bucket, one row of buckets a message type. Every entry that can
// expire also stands in an index ordered by expiry time, so that a full sweep costs what has expired and
// not 140,000 buckets.
//
// A reply is kept as it was serialised: most hits go to a client as they lie here, and copying and destroying
// a message object costs more than all the rest of a hit.
//
// Invariant, under the write lock: each entry is in exactly one chain and has exactly one index element,
// with the entry's own expiry time; count and size are the sums over the chains.
#include "cache/Cache.h"

#include <google/protobuf/message.h>

#include <array>
#include <atomic>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "brellog/VrLog.h"

namespace Velder {

bool reply_cache_enabled = true;
uint32_t reply_cache_max_size = 33554432;
uint32_t reply_cache_total_size = 0;
int32_t reply_cache_total_count = 0;
int32_t reply_cache_total_query = 0;
int32_t reply_cache_total_hit = 0;
BRELRWLock reply_cache_rwlock;

namespace {

using google::protobuf::Message;

constexpr int kTypes = 28;
constexpr unsigned int kBuckets = 5000;
constexpr size_t kKeyBytes = 128;

struct Place {
  int type;
  unsigned int bucket;
};

using ExpiryIndex = std::multimap<int32_t, Place>;

struct Entry {
  char key[kKeyBytes] = {};
  int32_t expire_time = 0;  // seconds since the epoch; valid while not below now; 0: invalid
  std::string encoded;      // the reply, serialised
  Entry* next = nullptr;
  ExpiryIndex::iterator expiry;
};

Entry* cache_header[kTypes][kBuckets];
std::atomic<uint32_t> g_generation{0};  // changed under the write lock

ExpiryIndex& expiry_index() {
  static auto& index = *new ExpiryIndex;  // never destroyed: threads may still run at exit
  return index;
}

// A fixed table of 256 distinct values. The values between the published first and last ones come from a
// multiplicative generator: any will do as long as they differ.
constexpr std::array<uint32_t, 256> make_sbox() {
  std::array<uint32_t, 256> table{};
  uint64_t state = 0x9E3779B97F4A7C15ULL;
  for (auto& value : table) {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    value = static_cast<uint32_t>(state >> 32);
  }
  table[0] = 0xF53E1837;
  table[1] = 0x5F14C86B;
  table[2] = 0x9EE3964C;
  table[3] = 0xFA796D53;
  table[254] = 0x11923B8B;
  table[255] = 0x45EF170A;
  return table;
}

constexpr std::array<uint32_t, 256> kSbox = make_sbox();

constexpr bool all_distinct(const std::array<uint32_t, 256>& table) {
  for (size_t i = 0; i < table.size(); ++i) {
    for (size_t j = i + 1; j < table.size(); ++j) {
      if (table[i] == table[j]) return false;
    }
  }
  return true;
}
static_assert(all_distinct(kSbox));

bool valid_type(int type) {
  return type >= 0 && type < kTypes;
}

unsigned int bucket_of(const char* key) {
  return bm_sbox_hash(key, static_cast<uint32_t>(strlen(key)), 0) % kBuckets;
}

uint32_t size_of(const Entry& entry) {
  return static_cast<uint32_t>(entry.encoded.size());
}

// Partial: an answer may lack what its handler sets anew each time.
std::string encode(const Message& message) {
  std::string encoded(message.ByteSizeLong(), '\0');
  message.SerializeWithCachedSizesToArray(reinterpret_cast<uint8_t*>(encoded.data()));
  return encoded;
}

template <class Counter>
Counter read_counter(Counter& counter) {
  return std::atomic_ref(counter).load(std::memory_order_relaxed);
}

// Not an atomic read-modify-write: searches that run at once may lose a count of each other, and that is
// cheaper than a locked addition in every look-up.
template <class Counter>
void add_to(Counter& counter, Counter amount) {
  std::atomic_ref(counter).store(read_counter(counter) + amount, std::memory_order_relaxed);
}

// A key that does not fit whole is never found, and its chain, in which each store of it adds an entry, is
// not walked.
Entry* find(int type, unsigned int bucket, const char* key) {
  if (strlen(key) >= kKeyBytes) return nullptr;
  for (Entry* entry = cache_header[type][bucket]; entry != nullptr; entry = entry->next) {
    if (strcmp(entry->key, key) == 0) return entry;
  }
  return nullptr;
}

void set_expiry(Entry& entry, int32_t expire_time) {
  auto node = expiry_index().extract(entry.expiry);
  node.key() = expire_time;
  entry.expire_time = expire_time;
  entry.expiry = expiry_index().insert(std::move(node));
}

void drop(Entry* entry) {
  expiry_index().erase(entry->expiry);
  std::unique_ptr<Entry>{entry};
}

void recycle_all_expired(long now) {
  ExpiryIndex& index = expiry_index();
  while (!index.empty() && index.begin()->first < now) {
    const Place place = index.begin()->second;
    recycle_expired_nodes(place.type, place.bucket, now);
  }
}

void renew(Entry& entry, std::string encoded, int32_t expire_time) {
  const uint32_t old_size = size_of(entry);
  entry.encoded = std::move(encoded);
  add_to(reply_cache_total_size, size_of(entry) - old_size);
  set_expiry(entry, expire_time);
}

void insert(int type, unsigned int bucket, const char* key, std::string encoded, int32_t expire_time) {
  auto entry = std::make_unique<Entry>();
  strncpy(entry->key, key, kKeyBytes - 1);
  entry->expire_time = expire_time;
  entry->encoded = std::move(encoded);
  entry->next = cache_header[type][bucket];
  entry->expiry = expiry_index().insert({expire_time, {type, bucket}});
  add_to(reply_cache_total_count, 1);
  add_to(reply_cache_total_size, size_of(*entry));
  cache_header[type][bucket] = entry.release();
}

// Shows a hit's serialised reply to `take` while the read lock is held.
template <class Take>
int search(int type, const char* key, Take take) {
  if (!reply_cache_enabled) return kReplyCacheDisabled;
  if (!valid_type(type)) return kReplyCacheBadType;
  const time_t now = time(nullptr);
  const unsigned int bucket = bucket_of(key);

  BRELRLock guard(reply_cache_rwlock);
  add_to(reply_cache_total_query, 1);
  const Entry* entry = find(type, bucket, key);
  if (entry == nullptr || entry->expire_time < now) return kReplyCacheMiss;
  take(entry->encoded);
  add_to(reply_cache_total_hit, 1);
  return kReplyCacheDone;
}

// Stores what `encode_reply` gives, or makes the entry invalid; nothing when the cache is of another
// generation.
template <class Encode>
int update(int type, const char* key, bool store, Encode encode_reply, int ttl_seconds,
           std::optional<uint32_t> generation) {
  if (!reply_cache_enabled) return kReplyCacheDisabled;
  if (!valid_type(type)) return kReplyCacheBadType;
  const time_t now = time(nullptr);
  const unsigned int bucket = bucket_of(key);
  std::string encoded = store ? encode_reply() : std::string();

  BRELWLock guard(reply_cache_rwlock);
  if (generation && *generation != g_generation) return kReplyCacheDone;
  // Every update sweeps: what is due for a sweep is never put off.
  recycle_all_expired(now);
  if (reply_cache_max_size <= reply_cache_total_size) return kReplyCacheFull;

  const auto expire_time = static_cast<int32_t>(now + ttl_seconds);
  Entry* entry = find(type, bucket, key);
  if (entry != nullptr && store) {
    renew(*entry, std::move(encoded), expire_time);
  } else if (entry != nullptr) {
    set_expiry(*entry, 0);
  } else if (store) {
    insert(type, bucket, key, std::move(encoded), expire_time);
  }
  return kReplyCacheDone;
}

}  // namespace

uint32_t bm_sbox_hash(const char* bytes, uint32_t length, uint32_t seed) {
  uint32_t hash = seed;
  for (uint32_t i = 0; i < length; ++i) hash = (hash ^ kSbox[static_cast<unsigned char>(bytes[i])]) * 3;
  return hash;
}

int search_reply_cache(int type, const char* key, Message* reply) {
  return search(type, key, [&](const std::string& encoded) { reply->ParsePartialFromString(encoded); });
}

int search_reply_cache(int type, const char* key, std::string& encoded) {
  return search(type, key, [&](const std::string& cached) { encoded += cached; });
}

int update_reply_cache(int type, const char* key, const Message* reply, int ttl_seconds) {
  const bool store = reply != nullptr && ttl_seconds >= 1;
  return update(
      type, key, store, [&] { return encode(*reply); }, ttl_seconds, std::nullopt);
}

uint32_t reply_cache_generation() {
  return g_generation;
}

int update_reply_cache(int type, const char* key, std::string_view encoded, int ttl_seconds,
                       uint32_t generation) {
  return update(
      type, key, ttl_seconds >= 1, [&] { return std::string(encoded); }, ttl_seconds, generation);
}

void recycle_expired_nodes(int type, unsigned int bucket, long now) {
  if (!valid_type(type) || bucket >= kBuckets) return;
  Entry** link = &cache_header[type][bucket];
  while (*link != nullptr) {
    Entry* entry = *link;
    if (entry->expire_time >= now) {
      link = &entry->next;
      continue;
    }
    add_to(reply_cache_total_size, 0U - size_of(*entry));
    add_to(reply_cache_total_count, -1);
    *link = entry->next;
    drop(entry);
  }
}

int reset_reply_cache() {
  VRLOG(kLogDebug, "Clear Reply Cache");
  ExpiryIndex index;
  std::vector<Entry*> chains;
  {
    BRELWLock guard(reply_cache_rwlock);
    ++g_generation;
    index.swap(expiry_index());
    for (auto& row : cache_header) {
      for (Entry*& head : row) {
        if (head != nullptr) chains.push_back(std::exchange(head, nullptr));
      }
    }
    std::atomic_ref(reply_cache_total_size).store(0, std::memory_order_relaxed);
    for (int32_t* counter : {&reply_cache_total_count, &reply_cache_total_query, &reply_cache_total_hit}) {
      std::atomic_ref(*counter).store(0, std::memory_order_relaxed);
    }
  }
  // Without the lock: it takes a while, and every search would wait for it.
  for (Entry* entry : chains) {
    while (entry != nullptr) std::unique_ptr<Entry>{std::exchange(entry, entry->next)};
  }
  return 0;
}

int set_reply_cache_size(unsigned int bytes) {
  reply_cache_max_size = bytes;
  return 0;
}

void report_cache_status() {
  // Read without the lock: a figure of a moment ago is good enough for a status line.
  VRLOG(kLogInfo, "reply cache statistic info: size(%d), count(%d), query(%d), hit(%d)",
        static_cast<int>(read_counter(reply_cache_total_size)), read_counter(reply_cache_total_count),
        read_counter(reply_cache_total_query), read_counter(reply_cache_total_hit));
}

}  // namespace Velder
