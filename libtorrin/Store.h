// The bindings of one machine in one mapped file, shared by any number of processes.
//
// Readers take no lock; one writer at a time, behind a robust mutex in the lock file, so that the death of
// any process at any instruction costs nothing but what it had not committed. All calls may be made from
// any thread. After a fork the first call of the child gives up the environment that it inherited and opens
// its own; nothing opened before a fork is used after it. Nothing throws but for want of memory.
//
// Failures are logged here, at most one line a minute for reading and for writing each.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <vector>

#include "libtorrin/Address.h"
#include "libtorrin/BindingRecord.h"
#include "libtorrin/LogLimiter.h"
#include "libtorrin/StoreFile.h"
#include "libtorrin/WriterWatch.h"

struct MDB_env;
struct MDB_txn;

namespace torrin {

struct ThreadReader;

// Address space, not memory and not disk: about 70 million bindings. Fixed for ever, since a map that grows
// would have to be noticed by every process in the middle of its work.
constexpr size_t kMapBytes = size_t{8} << 30;

struct StoreOptions {
  std::string path;  // absolute; the lock file is the same with "-lock"
  bool durable = false;
  size_t map_bytes = kMapBytes;
};

enum class StoreResult {
  kDone,
  kMissing,
  kFailed,  // logged
};

struct StoreChange {
  AddressKey key;
  int64_t expiry = 0;
  std::string_view user;  // valid, or empty: the binding is removed
  // Set by the call. kMissing when there was nothing to remove, or only what had expired.
  StoreResult result = StoreResult::kFailed;
};

struct OpenError {
  bool damaged;  // the file itself is wrong: another one may do
  std::string text;
};

class Store {
 public:
  Store();
  ~Store();  // forgets; see close()
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Opens for this process. `on_child_open` runs once in every later process that opens the store, after
  // its first call has opened it and before that call goes on.
  tl::expected<void, OpenError> open(StoreOptions options, std::function<void()> on_child_open);

  // Ends all transactions of this process and gives the file back. No other thread may be inside a call.
  void close();

  StoreResult get(const AddressKey& key, RecordBuffer& out);
  // Makes the changes in their order and in one write transaction, unless that fails: then each by itself, so
  // that one that finds no room does not take the others along. With Durable they are on the disk afterwards.
  void change(std::span<StoreChange> changes, int64_t now);
  // True when a change begun now would probably wait: for the disk, or for a writer that does not come to an
  // end. Waits itself only for the short while that a writer usually takes.
  bool change_would_wait();

  // Shows up to `limit` records from `from` on to `visit`, in key order, in one short read transaction. Gives
  // the first key that was not shown, empty at the end, or the reason of a failure, which is not logged.
  // `visit` must not call the store.
  tl::expected<std::optional<AddressKey>, std::string> scan(const AddressKey& from, size_t limit,
                                                            const RecordVisitor& visit);

  // Removes those of `keys` that are expired at the time of the call, in one write transaction or, where
  // there is little room, in several. Gives how many, or -1.
  long remove_expired(std::span<const AddressKey> keys, int64_t now);

  // Frees the reader slots of processes that are gone.
  void free_dead_readers();
  // Counts every committed change of any process; 0 after a failure.
  uint64_t last_transaction();
  // Writes a compact image of one moment to `fd`. 0 or an error for error_text().
  int copy_to(int fd);
  static std::string error_text(int error);

 private:
  friend struct ThreadReader;

  bool ensure_open();
  tl::expected<void, OpenError> open_environment();
  void drop_environment();
  int begin_read(MDB_txn*& txn);
  int register_reader(ThreadReader& reader, MDB_txn*& txn);
  int begin_write(MDB_txn*& txn);
  template <typename Work>
  int write(const Work& work);
  int change_together(std::span<StoreChange> changes, int64_t now);
  StoreResult failed(LogLimiter& limiter, const char* what, int error);

  StoreOptions options_;
  std::function<void()> on_child_open_;
  bool configured_ = false;
  MDB_env* env_ = nullptr;
  unsigned dbi_ = 0;
  size_t most_pages_ = 0;  // that bindings may take
  WriterWatch writers_;
  // The fork generation that env_ was opened in, and a number that no other opening has; the rest above is
  // written before them.
  std::atomic<uint64_t> generation_{0};
  std::atomic<uint64_t> epoch_{0};
  std::vector<ThreadReader*> readers_;  // guarded by the opening lock, as is the list of stores
  Store* next_store_ = nullptr;
  LogLimiter open_failures_;
  LogLimiter read_failures_;
  LogLimiter write_failures_;
};

}  // namespace torrin
