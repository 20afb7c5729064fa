// Invariants:
// - env_, dbi_ and readers_ belong to the process whose fork generation stands in generation_. Another
//   generation means that they were inherited: the environment is closed, its transactions are forgotten
//   (their slots in the lock file are the other process's).
// - readers_ lists the living threads of this process that hold a read transaction of env_. A thread takes
//   its own off the list when it ends; close() takes off all.
// - The opening lock is held over every fork, so that a child never finds it locked by a thread that it
//   does not have.
#include "libtorrin/Store.h"

#include <fcntl.h>
#include <lmdb.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "brellog/VrLog.h"
#include "daemonbase/Immortal.h"
#include "daemonbase/UniqueFd.h"

namespace torrin {

// What one thread keeps of the store that it read last.
struct ThreadReader {
  MDB_txn* txn = nullptr;  // reset between look-ups, so that it pins no pages
  uint64_t epoch = 0;      // of the opening that txn belongs to; 0: none

  ~ThreadReader() { release(); }
  void release();
  void forget(Store& store);
};

namespace {

// 10 workers of 30 threads and their helpers, three times over; the library's 126 would be too few.
constexpr unsigned kMaxReaders = 1024;
// What the library uses of the lock file for them: 64 bytes a slot, and the head in front.
constexpr off_t kLockFileBytes = 64 * (kMaxReaders + 64);
// Named tables may come to lie beside the bindings; the file of that day can then still be opened.
constexpr unsigned kMaxTables = 4;
constexpr mode_t kFileMode = 0600;
// Stands for "could not be opened", which has been logged.
constexpr int kNotOpen = -1;
// Bindings leave so many pages of the map alone, and of a small map a quarter: to remove the expired ones
// takes pages as well, since a change never writes over what readers may still see. Without them a full store
// would stay full for ever. Several times what one transaction of the sweep needs.
constexpr size_t kReservedPages = 1024;
// Several times what a writer takes whose pages lie in memory.
constexpr std::chrono::microseconds kWriterTakes{200};

// Records must fit into a tree page (a node of more than about half a page would go to pages of its own).
static_assert(8 + sizeof(AddressKey) + kMaxRecordBytes < 2038);

constinit std::mutex g_opening_lock;
constinit std::atomic<uint64_t> g_generation{1};
constinit std::atomic<uint64_t> g_next_epoch{1};
constinit Store* g_stores = nullptr;  // guarded by the opening lock

thread_local ThreadReader t_reader;

// Transactions whose slots are others' by now: to end one would give its slot back, so they stay for ever.
// Guarded by the opening lock.
std::vector<MDB_txn*>& lost_transactions() {
  static const Immortal<std::vector<MDB_txn*>> lost;
  return lost.get();
}

void watch_forks() {
  static const int result = pthread_atfork([] { g_opening_lock.lock(); }, [] { g_opening_lock.unlock(); },
                                           [] {
                                             g_generation.fetch_add(1, std::memory_order_relaxed);
                                             g_opening_lock.unlock();
                                           });
  if (result != 0) VRLOG(kLogError, "IP-user cache: forks cannot be watched: %s", std::strerror(result));
}

bool means_damage(int error) {
  return error == MDB_INVALID || error == MDB_CORRUPTED || error == MDB_VERSION_MISMATCH ||
         error == MDB_PAGE_NOTFOUND || error == MDB_INCOMPATIBLE;
}

// The library leaves the descriptor that it writes through to whatever the process starts.
void keep_from_programs(MDB_env* env) {
  mdb_filehandle_t fd = -1;
  if (mdb_env_get_fd(env, &fd) == 0) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

// The library leaves holes in the lock file and fills them through a mapping, which ends the process when the
// disk is full. So all of it gets its place before the library sees it. 0, or the error number when there is
// no space; whatever else is wrong the library finds as well.
int reserve_lock_file(const std::string& path) {
  const UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kFileMode));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) return 0;
  // What is there is not asked for: some file systems refuse even that when they are full.
  if (status.st_size >= kLockFileBytes && status.st_blocks * 512 >= status.st_size) return 0;
  const int error = fallocate(fd.get(), 0, 0, kLockFileBytes) == 0 ? 0 : errno;
  return error == ENOSPC || error == EDQUOT ? error : 0;
}

MDB_val to_val(const AddressKey& key) {
  return {key.size(), const_cast<uint8_t*>(key.data())};  // the library only reads keys
}

// Ends the look-up but keeps the transaction and its slot for the next one.
class ReadScope {
 public:
  explicit ReadScope(MDB_txn* txn) : txn_(txn) {}
  ReadScope(const ReadScope&) = delete;
  ReadScope& operator=(const ReadScope&) = delete;
  ~ReadScope() { mdb_txn_reset(txn_); }

 private:
  MDB_txn* const txn_;
};

class Cursor {
 public:
  Cursor(MDB_txn* txn, MDB_dbi dbi) : error_(mdb_cursor_open(txn, dbi, &cursor_)) {}
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;
  ~Cursor() {
    if (error_ == 0) mdb_cursor_close(cursor_);
  }
  int move(MDB_val& key, MDB_val& value, MDB_cursor_op where) {
    return error_ != 0 ? error_ : mdb_cursor_get(cursor_, &key, &value, where);
  }

 private:
  MDB_cursor* cursor_ = nullptr;
  const int error_;
};

std::string_view to_text(const MDB_val& value) {
  return {static_cast<const char*>(value.mv_data), value.mv_size};
}

size_t pages_of(MDB_txn* txn, MDB_dbi dbi) {
  MDB_stat stat{};
  mdb_stat(txn, dbi, &stat);
  return stat.ms_branch_pages + stat.ms_leaf_pages + stat.ms_overflow_pages;
}

// True when `txn` holds a live binding under `key`.
int find_live(MDB_txn* txn, MDB_dbi dbi, const AddressKey& key, int64_t now, bool& live) {
  MDB_val name = to_val(key);
  MDB_val value{};
  const int error = mdb_get(txn, dbi, &name, &value);
  if (error != 0) return error;
  const auto binding = decode_record(to_text(value));
  live = binding && is_live(binding->expiry, now);
  return 0;
}

int make(MDB_txn* txn, MDB_dbi dbi, StoreChange& change, int64_t now) {
  MDB_val name = to_val(change.key);
  if (change.user.empty()) {
    bool live = false;
    int error = find_live(txn, dbi, change.key, now, live);
    if (error == 0) error = mdb_del(txn, dbi, &name, nullptr);
    change.result = live ? StoreResult::kDone : StoreResult::kMissing;
    return error == MDB_NOTFOUND ? 0 : error;
  }
  MDB_val value{record_bytes(change.user), nullptr};
  const int error = mdb_put(txn, dbi, &name, &value, MDB_RESERVE);
  if (error != 0) return error;
  encode_record(change.expiry, change.user, static_cast<char*>(value.mv_data));
  change.result = StoreResult::kDone;
  return 0;
}

}  // namespace

void ThreadReader::release() {
  if (epoch == 0) return;
  const std::lock_guard lock(g_opening_lock);
  for (Store* store = g_stores; store != nullptr; store = store->next_store_) {
    if (store->epoch_.load() != epoch || store->generation_.load() != g_generation.load()) continue;
    std::erase(store->readers_, this);
    mdb_txn_abort(txn);
  }
  txn = nullptr;
  epoch = 0;
}

void ThreadReader::forget(Store& store) {
  const std::lock_guard lock(g_opening_lock);
  std::erase(store.readers_, this);
  lost_transactions().push_back(txn);
  txn = nullptr;
  epoch = 0;
}

Store::Store() {
  const std::lock_guard lock(g_opening_lock);
  next_store_ = g_stores;
  g_stores = this;
}

Store::~Store() {
  const std::lock_guard lock(g_opening_lock);
  for (Store** link = &g_stores; *link != nullptr; link = &(*link)->next_store_) {
    if (*link != this) continue;
    *link = next_store_;
    return;
  }
}

tl::expected<void, OpenError> Store::open(StoreOptions options, std::function<void()> on_child_open) {
  watch_forks();
  options_ = std::move(options);
  on_child_open_ = std::move(on_child_open);
  const std::lock_guard lock(g_opening_lock);
  auto opened = open_environment();
  configured_ = opened.has_value();
  return opened;
}

void Store::close() {
  const std::lock_guard lock(g_opening_lock);
  configured_ = false;
  drop_environment();
}

// Called with the opening lock held.
void Store::drop_environment() {
  if (env_ == nullptr) return;
  if (generation_.load() == g_generation.load()) {
    for (ThreadReader* reader : readers_) {
      mdb_txn_abort(reader->txn);
      reader->txn = nullptr;
      reader->epoch = 0;
    }
  }
  readers_.clear();
  epoch_.store(0);
  generation_.store(0);
  mdb_env_close(env_);
  env_ = nullptr;
  writers_.close();
}

// Called with the opening lock held and no environment open.
tl::expected<void, OpenError> Store::open_environment() {
  const std::string lock_file = options_.path + "-lock";
  if (const int error = reserve_lock_file(lock_file); error != 0) {
    return tl::unexpected(OpenError{false, "its lock file: " + std::string(std::strerror(error))});
  }
  writers_.open(lock_file, kFileMode);
  MDB_env* env = nullptr;
  int error = mdb_env_create(&env);
  if (error == 0) error = mdb_env_set_mapsize(env, options_.map_bytes);
  if (error == 0) error = mdb_env_set_maxreaders(env, kMaxReaders);
  if (error == 0) error = mdb_env_set_maxdbs(env, kMaxTables);
  const unsigned durability = options_.durable ? MDB_NOMETASYNC : MDB_NOSYNC;
  const unsigned flags = MDB_NOSUBDIR | MDB_NOTLS | MDB_NORDAHEAD | durability;
  if (error == 0) error = mdb_env_open(env, options_.path.c_str(), flags, kFileMode);
  if (error == 0) keep_from_programs(env);
  MDB_txn* txn = nullptr;
  MDB_dbi dbi = 0;
  if (error == 0) error = mdb_reader_check(env, nullptr);
  if (error == 0) error = mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn);
  if (error == 0) error = mdb_dbi_open(txn, nullptr, 0, &dbi);
  if (error != 0) {
    if (txn != nullptr) mdb_txn_abort(txn);
    if (env != nullptr) mdb_env_close(env);
    return tl::unexpected(OpenError{means_damage(error), mdb_strerror(error)});
  }
  mdb_txn_commit(txn);  // makes dbi known to the transactions of other threads
  const size_t pages = options_.map_bytes / static_cast<size_t>(sysconf(_SC_PAGESIZE));
  most_pages_ = pages - std::min(pages / 4, kReservedPages);
  env_ = env;
  dbi_ = dbi;
  epoch_.store(g_next_epoch.fetch_add(1));
  generation_.store(g_generation.load(), std::memory_order_release);
  return {};
}

bool Store::ensure_open() {
  const uint64_t generation = g_generation.load(std::memory_order_relaxed);
  if (generation_.load(std::memory_order_acquire) == generation) [[likely]]
    return true;
  const std::lock_guard lock(g_opening_lock);
  if (generation_.load() == generation) return true;
  if (!configured_) {
    uint64_t suppressed = 0;
    if (open_failures_.allow(suppressed)) VRLOG(kLogError, "IP-user cache: used while it is not initialised");
    return false;
  }
  // First the old one: closing any descriptor of the lock file would drop the locks of a new one.
  drop_environment();
  // Only the parent makes a store. A file that is gone or cut off must not be mapped, nor be replaced by an
  // empty one that the other processes would not see.
  const UniqueFd file(::open(options_.path.c_str(), O_RDONLY | O_CLOEXEC));
  tl::expected<void, OpenError> opened;
  if (!file.valid()) {
    opened = tl::unexpected(OpenError{false, std::strerror(errno)});
  } else if (const auto header = read_file_header(file.get()); !header) {
    opened = tl::unexpected(OpenError{true, header.error()});
  } else {
    opened = open_environment();
  }
  if (!opened) {
    uint64_t suppressed = 0;
    if (open_failures_.allow(suppressed)) {
      VRLOG(kLogError, "IP-user cache: cannot open %s: %s", options_.path.c_str(),
            opened.error().text.c_str());
    }
    return false;
  }
  if (on_child_open_) on_child_open_();
  return true;
}

int Store::register_reader(ThreadReader& reader, MDB_txn*& txn) {
  reader.release();
  int error = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn);
  if (error == MDB_READERS_FULL) {
    mdb_reader_check(env_, nullptr);
    error = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn);
  }
  if (error != 0) return error;
  const std::lock_guard lock(g_opening_lock);
  reader.txn = txn;
  reader.epoch = epoch_.load();
  readers_.push_back(&reader);
  return 0;
}

int Store::begin_read(MDB_txn*& txn) {
  if (!ensure_open()) return kNotOpen;
  ThreadReader& reader = t_reader;
  if (reader.epoch == epoch_.load(std::memory_order_relaxed)) [[likely]] {
    txn = reader.txn;
    const int error = mdb_txn_renew(txn);
    if (error != MDB_BAD_RSLOT) [[likely]]
      return error;
    // The slot was taken for a dead process's and may be another's by now: not ours to give back.
    reader.forget(*this);
  }
  return register_reader(reader, txn);
}

int Store::begin_write(MDB_txn*& txn) {
  if (!ensure_open()) return kNotOpen;
  const int error = mdb_txn_begin(env_, nullptr, 0, &txn);
  if (error == 0) writers_.confirm();
  return error;
}

// Runs `work` in a write transaction. A full map may be the fault of a dead reader that still pins old
// pages, so it gets a second chance once those are freed.
template <typename Work>
int Store::write(const Work& work) {
  for (int attempt = 0;; ++attempt) {
    MDB_txn* txn = nullptr;
    int error = begin_write(txn);
    if (error != 0) return error;
    error = work(txn);
    if (error == 0) {
      error = mdb_txn_commit(txn);
      // The commit has left only the meta page to a later flush; that is fetched here, outside the lock.
      if (error == 0 && options_.durable) error = mdb_env_sync(env_, 1);
    } else {
      mdb_txn_abort(txn);
    }
    if (error != MDB_MAP_FULL || attempt > 0) return error;
    mdb_reader_check(env_, nullptr);
  }
}

StoreResult Store::get(const AddressKey& key, RecordBuffer& out) {
  MDB_txn* txn = nullptr;
  int error = begin_read(txn);
  if (error == 0) {
    const ReadScope scope(txn);
    MDB_val name = to_val(key);
    MDB_val value{};
    error = mdb_get(txn, dbi_, &name, &value);
    if (error == 0) {
      if (value.mv_size > out.bytes.size()) {
        error = MDB_CORRUPTED;
      } else {
        std::memcpy(out.bytes.data(), value.mv_data, value.mv_size);
        out.size = value.mv_size;
      }
    }
  }
  if (error == 0) return StoreResult::kDone;
  if (error == MDB_NOTFOUND) return StoreResult::kMissing;
  return failed(read_failures_, "read", error);
}

int Store::change_together(std::span<StoreChange> changes, int64_t now) {
  return write([&](MDB_txn* txn) {
    const size_t before = pages_of(txn, dbi_);
    for (StoreChange& change : changes) {
      const int error = make(txn, dbi_, change, now);
      if (error != 0) return error;
    }
    const size_t after = pages_of(txn, dbi_);
    return after > before && after > most_pages_ ? MDB_MAP_FULL : 0;
  });
}

void Store::change(std::span<StoreChange> changes, int64_t now) {
  const int error = change_together(changes, now);
  if (error == 0) return;
  if (changes.size() == 1) {
    changes.front().result = failed(write_failures_, "change a binding", error);
  } else {
    for (size_t i = 0; i < changes.size(); ++i) change(changes.subspan(i, 1), now);
  }
}

bool Store::change_would_wait() {
  if (!ensure_open()) return false;
  if (options_.durable) return true;
  if (!writers_.sees_writer()) [[likely]]
    return false;
  const auto end = std::chrono::steady_clock::now() + kWriterTakes;
  while (std::chrono::steady_clock::now() < end) {
    std::this_thread::yield();  // it may have been interrupted on this processor
    if (!writers_.sees_writer()) return false;
  }
  return true;
}

tl::expected<std::optional<AddressKey>, std::string> Store::scan(const AddressKey& from, size_t limit,
                                                                 const RecordVisitor& visit) {
  MDB_txn* txn = nullptr;
  int error = begin_read(txn);
  if (error == kNotOpen) return tl::unexpected<std::string>("the store is not open");
  if (error != 0) return tl::unexpected<std::string>(mdb_strerror(error));
  const ReadScope scope(txn);
  Cursor cursor(txn, dbi_);
  MDB_val name = to_val(from);
  MDB_val value{};
  error = cursor.move(name, value, MDB_SET_RANGE);
  for (; error == 0; error = cursor.move(name, value, MDB_NEXT)) {
    AddressKey key;
    if (name.mv_size != key.size()) continue;  // not an address
    std::memcpy(key.data(), name.mv_data, key.size());
    if (limit-- == 0) return key;
    visit(key, to_text(value));
  }
  if (error == MDB_NOTFOUND) return std::nullopt;
  return tl::unexpected<std::string>(mdb_strerror(error));
}

long Store::remove_expired(std::span<const AddressKey> keys, int64_t now) {
  long removed = 0;
  const int error = write([&](MDB_txn* txn) {
    removed = 0;
    for (const AddressKey& key : keys) {
      bool live = true;
      int result = find_live(txn, dbi_, key, now, live);
      if (result == MDB_NOTFOUND || (result == 0 && live)) continue;
      MDB_val name = to_val(key);
      if (result == 0) result = mdb_del(txn, dbi_, &name, nullptr);
      if (result != 0) return result;
      ++removed;
    }
    return 0;
  });
  if (error == 0) return removed;
  if (keys.size() > 1 && (error == MDB_MAP_FULL || error == ENOSPC)) {
    const size_t half = keys.size() / 2;  // takes fewer pages, and gives some back
    const long first = remove_expired(keys.first(half), now);
    const long second = first < 0 ? -1 : remove_expired(keys.subspan(half), now);
    return second < 0 ? -1 : first + second;
  }
  failed(write_failures_, "remove expired bindings", error);
  return -1;
}

void Store::free_dead_readers() {
  if (ensure_open()) mdb_reader_check(env_, nullptr);
}

uint64_t Store::last_transaction() {
  MDB_envinfo info{};
  if (!ensure_open() || mdb_env_info(env_, &info) != 0) return 0;
  return info.me_last_txnid;
}

int Store::copy_to(int fd) {
  if (!ensure_open()) return EBADF;
  return mdb_env_copyfd2(env_, fd, MDB_CP_COMPACT);
}

std::string Store::error_text(int error) {
  return mdb_strerror(error);
}

StoreResult Store::failed(LogLimiter& limiter, const char* what, int error) {
  uint64_t suppressed = 0;
  if (error != kNotOpen && limiter.allow(suppressed)) {
    VRLOG(kLogError, "IP-user cache: cannot %s: %s (%llu more failures since the last such line)", what,
          mdb_strerror(error), static_cast<unsigned long long>(suppressed));
  }
  return StoreResult::kFailed;
}

}  // namespace torrin
