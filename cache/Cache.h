// The reply cache of a worker process: copies of response messages by message type and key text, each
// with a lifetime, bounded by the sum of their serialised sizes.
//
// All calls may be made from any thread. Keys are NUL-terminated texts; a key longer than 127 characters
// is stored cut and can therefore never be found again.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "daemonbase/BRELSync.h"

namespace google::protobuf {
class Message;
}

namespace Velder {

extern bool reply_cache_enabled;         // set before the worker's threads start
extern uint32_t reply_cache_max_size;    // bytes
extern uint32_t reply_cache_total_size;  // bytes of all cached messages when serialised
extern int32_t reply_cache_total_count;  // entries, expired ones included until they are swept
extern int32_t reply_cache_total_query;  // searches; may undercount when threads search at once
extern int32_t reply_cache_total_hit;    // searches answered; the same
extern BRELRWLock reply_cache_rwlock;    // guards the table and the counters

enum ReplyCacheResult : int {
  kReplyCacheDone = 0,  // hit, or stored or nothing to do
  kReplyCacheMiss = 1,
  kReplyCacheFull = -1,
  kReplyCacheBadType = -2,
  kReplyCacheDisabled = -3,
};

// On a hit `reply`, a message of the class that was stored, becomes a copy of the cached one.
int search_reply_cache(int type, const char* key, google::protobuf::Message* reply);

// The same for who sends it on as it is: on a hit the serialised reply is appended to `encoded`.
int search_reply_cache(int type, const char* key, std::string& encoded);

// Stores a copy of `reply` for `ttl_seconds`. A null reply or a lifetime below 1 makes a cached entry
// invalid instead. The bound is looked at before storing: one store may pass it.
int update_reply_cache(int type, const char* key, const google::protobuf::Message* reply, int ttl_seconds);

// Raised by each reset.
uint32_t reply_cache_generation();

// The same with a reply that is serialised. It is not stored when the cache was reset since it had that
// `generation`, which the caller took before it asked the directory: the reply may be that of the data
// before.
int update_reply_cache(int type, const char* key, std::string_view encoded, int ttl_seconds,
                       uint32_t generation);

// Empties the cache and zeroes the counters.
int reset_reply_cache();

// Not guarded by the lock; for use before the threads start.
int set_reply_cache_size(unsigned int bytes);

// Logs the counters.
void report_cache_status();

// Drops the expired entries of one bucket. The caller holds the write lock.
void recycle_expired_nodes(int type, unsigned int bucket, long now);

// The S-box hash of the first `length` bytes: h = (h XOR T[byte]) * 3 in 32 bits, beginning with `seed`.
uint32_t bm_sbox_hash(const char* bytes, uint32_t length, uint32_t seed);

}  // namespace Velder
