#include "libtorrin/Maintenance.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <vector>

#include "brellog/VrLog.h"
#include "daemonbase/UniqueFd.h"
#include "libtorrin/Recovery.h"
#include "libtorrin/Store.h"
#include "libtorrin/StoreFile.h"

namespace torrin {
namespace {

// A read transaction pins the pages that binds free meanwhile; so many records take a few milliseconds.
constexpr size_t kScanChunk = 50000;
// A write transaction keeps binds waiting; so many removals take about a millisecond.
constexpr size_t kRemoveChunk = 500;
// After each write transaction: the lock is not fair, a waiting bind needs time to wake up and take it.
constexpr long kYieldNanoseconds = 1'000'000;
constexpr int kReaderCheckSeconds = 10;
constexpr int kRetrySeconds = 1;
// A loss of power may cost 60 seconds. The age is looked at every ten, and sweep and copy take their time.
constexpr time_t kCopyAge = 40;
// A copy takes far less; a process that was stopped in the middle of one must not hold up the others.
constexpr int kCopyLockAttempts = 50;
constexpr long kCopyLockPauseNanoseconds = 100'000'000;

void pause_for(time_t seconds, long nanoseconds) {
  const timespec pause{seconds, nanoseconds};
  nanosleep(&pause, nullptr);
}

UniqueFd open_lock_file(const std::string& folder, const char* name) {
  return UniqueFd(open((folder + "/" + name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
}

bool copy_failed(const std::string& what, const std::string& why) {
  VRLOG(kLogError, "IP-user cache: no compact copy: %s: %s", what.c_str(), why.c_str());
  return false;
}

time_t seconds_of(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec;
}

// Seconds since the moment that the compact copy shows. A missing one is old enough, and so is one from the
// future, since the clock was set back meanwhile and nobody knows.
time_t compact_copy_age(const std::string& folder) {
  struct stat status {};
  if (stat((folder + "/" + kCompactFile).c_str(), &status) != 0) return kCopyAge;
  const time_t age = seconds_of(CLOCK_REALTIME) - status.st_mtime;
  return age < 0 ? kCopyAge : age;
}

// The copy is read back before it takes the place of an older one: a live file that was damaged meanwhile
// must not take the copy along.
bool finish_copy(Store& store, int fd, const std::string& unfinished, const std::string& target) {
  timespec times[2];  // access and change
  clock_gettime(CLOCK_REALTIME, &times[0]);
  times[1] = times[0];
  if (const int error = store.copy_to(fd); error != 0) {
    return copy_failed(unfinished, Store::error_text(error));
  }
  // The time of what it shows, not of its last byte: the age counts from there.
  if (futimens(fd, times) != 0 || fsync(fd) != 0) return copy_failed(unfinished, std::strerror(errno));
  if (const auto header = check_store_file(fd); !header) return copy_failed(unfinished, header.error());
  if (rename(unfinished.c_str(), target.c_str()) != 0) return copy_failed(target, std::strerror(errno));
  return true;
}

bool remove_chunks(Store& store, const std::vector<AddressKey>& expired, Clock clock, long& removed) {
  for (size_t done = 0; done < expired.size(); done += kRemoveChunk) {
    const size_t count = std::min(kRemoveChunk, expired.size() - done);
    const long gone = store.remove_expired({expired.data() + done, count}, clock());
    if (gone < 0) return false;
    removed += gone;
    pause_for(0, kYieldNanoseconds);
  }
  return true;
}

struct Worker {
  Store& store;
  std::string folder;
  Clock clock;
};

void lead(const Worker& worker) {
  uint64_t copied = worker.store.last_transaction();
  bool copy_known = false;  // nobody knows whether the leader before had copied its last changes
  // Leaders may come and go faster than copies are due, or be missing for hours: the copy's own age counts.
  time_t last = seconds_of(CLOCK_BOOTTIME) - compact_copy_age(worker.folder);
  for (;;) {
    worker.store.free_dead_readers();
    const time_t now = seconds_of(CLOCK_BOOTTIME);
    if (now - last >= kCopyAge) {
      last = now;
      sweep_expired(worker.store, worker.clock);
      // Taken before the copy: what comes in while it is made is for the next one.
      const uint64_t transaction = worker.store.last_transaction();
      if (!copy_known || transaction != copied) {
        copy_known = make_compact_copy(worker.store, worker.folder);
        copied = transaction;
      }
    }
    pause_for(kReaderCheckSeconds, 0);
  }
}

void* run_maintenance(void* argument) {
  const std::unique_ptr<Worker> worker(static_cast<Worker*>(argument));
  // Opened here, not inherited: the lock of an inherited descriptor would be the parent's as well.
  UniqueFd leader = open_lock_file(worker->folder, kLeaderFile);
  if (!leader.valid()) {
    VRLOG(kLogError, "IP-user cache: no maintenance yet: %s/%s: %s", worker->folder.c_str(), kLeaderFile,
          std::strerror(errno));
  }
  // Of descriptors or space there may be enough again.
  for (; !leader.valid(); leader = open_lock_file(worker->folder, kLeaderFile)) pause_for(kRetrySeconds, 0);
  // Wakes the moment the leader dies.
  while (flock(leader.get(), LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    VRLOG(kLogError, "IP-user cache: no maintenance: %s: %s", kLeaderFile, std::strerror(errno));
    return nullptr;
  }
  lead(*worker);
  return nullptr;
}

}  // namespace

long sweep_expired(Store& store, Clock clock) {
  long removed = 0;
  std::optional<AddressKey> from = AddressKey{};
  while (from) {
    std::vector<AddressKey> expired;
    const int64_t now = clock();
    const auto collect = [&](const AddressKey& key, std::string_view record) {
      const auto binding = decode_record(record);
      if (binding && !is_live(binding->expiry, now)) expired.push_back(key);
    };
    const auto next = store.scan(*from, kScanChunk, collect);
    if (!next) {
      VRLOG(kLogError, "IP-user cache: expired bindings stay: %s", next.error().c_str());
      return -1;
    }
    from = *next;
    if (!remove_chunks(store, expired, clock, removed)) return -1;
  }
  return removed;
}

bool make_compact_copy(Store& store, const std::string& folder) {
  // Held from before the moment that is copied until the copy has its name, so that no copy is ever
  // replaced by an older one.
  const UniqueFd lock = open_lock_file(folder, kCopyLockFile);
  if (!lock.valid()) return copy_failed(kCopyLockFile, std::strerror(errno));
  for (int attempt = 0; flock(lock.get(), LOCK_EX | LOCK_NB) != 0; ++attempt) {
    if (attempt == kCopyLockAttempts) return copy_failed(kCopyLockFile, "another process does not finish");
    pause_for(0, kCopyLockPauseNanoseconds);
  }
  const std::string target = folder + "/" + kCompactFile;
  const std::string unfinished = target + ".new";
  const UniqueFd fd(open(unfinished.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd.valid()) return copy_failed(unfinished, std::strerror(errno));
  if (!finish_copy(store, fd.get(), unfinished, target)) {
    unlink(unfinished.c_str());
    return false;
  }
  const UniqueFd directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid() || fsync(directory.get()) != 0) return copy_failed(folder, std::strerror(errno));
  return true;
}

void start_maintenance(Store& store, const std::string& folder, Clock clock) {
  auto worker = std::make_unique<Worker>(Worker{store, folder, clock});
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  // The thread inherits the mask: signals are for the threads of the daemon.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  const int error = pthread_create(&thread, &attributes, run_maintenance, worker.get());
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  if (error == 0) {
    worker.release();  // NOLINT(bugprone-unused-return-value): the thread has it
  } else {
    VRLOG(kLogError, "IP-user cache: no maintenance in this process: %s", std::strerror(error));
  }
}

}  // namespace torrin
