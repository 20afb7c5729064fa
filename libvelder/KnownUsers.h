// The users that were asked for last, by the names they were asked by: what the name means, and what is
// answered about the user. No passwords, no hashes.
//
// It belongs to one snapshot, so nothing in it ever becomes wrong. Only users that exist are kept: whoever
// asks for names that do not exist pushes nobody out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "libvelder/LdapModule.h"

namespace velder {

// Immutable once made. The views of its base lie in `texts`, those of its groups in the snapshot.
struct KeptUser : KnownUser {
  int64_t id = 0;
  bool has_groups = false;  // a password needs none, and very many are not kept
  std::string texts;
};

// Any number of threads. Folded names only, and those under which a user has few spellings: others would let
// a client fill the table with one user.
class KnownUsers {
 public:
  // Up to some 9,500 users with a dozen groups. Half of them, some 4,700, are found whatever the order they
  // are asked for in; of 9,000 that are asked for at random seven of ten, in turns two of ten.
  // When many more are asked for, a process grows by more than this: what was made on the heap of one thread
  // and forgotten by another leaves its room to the first. With the four heaps of a worker it is some 26 MB.
  static constexpr size_t kMostBytes = size_t{8} << 20;

  explicit KnownUsers(size_t most_bytes = kMostBytes);

  // Null: not kept.
  std::shared_ptr<const KeptUser> find(std::string_view name);
  // Instead of what may be kept under that name.
  void keep(std::string_view name, std::shared_ptr<const KeptUser> user);
  // All of them.
  void forget();

 private:
  // Not noexcept: a table then keeps the hashes of its names, and need not work them out as it goes along.
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
  };
  using Users = std::unordered_map<std::string, std::shared_ptr<const KeptUser>, Hash, std::equal_to<>>;

  // Whoever is asked for is or becomes one of `recent`. When these are half of what may be kept, they become
  // `older`, and who was that and has not been asked for since is forgotten.
  struct Shard {
    std::mutex mutex;  // guards all below
    Users recent;
    Users older;
    size_t recent_bytes = 0;
  };

  Shard& shard_of(std::string_view name);
  Users add(Shard& shard, Users::node_type node) const;

  static constexpr size_t kShards = 16;  // so that threads seldom meet

  const size_t most_recent_bytes_;  // of a shard
  std::array<Shard, kShards> shards_;
};

}  // namespace velder
