#include "daemonbase/BRELSync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "daemonbase/BRELSyncShared.h"
#include "tests/unit/brellog/LogTestSupport.h"

// These tests lock twice, fail to lock and unlock what is not theirs: nothing for the analysis.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace {

using log_test::in_child;
using log_test::TempDir;

// The thread sanitizer reports every unlock of a mutex that the thread does not hold, wanted or not.
#if defined(__SANITIZE_THREAD__)
constexpr bool kMayUnlockWrongly = false;
#else
constexpr bool kMayUnlockWrongly = true;
#endif

int in_thread(const auto& call) {
  int result = -1;
  std::thread([&] { result = call(); }).join();
  return result;
}

TEST(BRELMutexTest, EveryKindAnswersWithTheErrorNumber) {
  struct Kind {
    const char* name;
    BRELBaseMutex* mutex;
    int second_lock;  // what the owner's second Lock() returns; -1: it would hang
  };
  for (const Kind& kind : {Kind{"error-checking", new BRELMutex(false), EDEADLK},
                           {"recursive", new BRELMutex(true), 0},
                           {"shared", new BRELSharedMutex(false), EDEADLK},
                           {"spin", new BRELSpin, -1},
                           {"shared recursive", new BRELSharedMutex(true), 0},
                           {"shared spin", new BRELSharedSpin, -1}}) {
    SCOPED_TRACE(kind.name);
    const std::unique_ptr<BRELBaseMutex> mutex(kind.mutex);
    EXPECT_EQ(mutex->status(), 0);
    EXPECT_EQ(mutex->Lock(), 0);
    EXPECT_EQ(in_thread([&] { return mutex->TryLock(); }), EBUSY);
    if (kind.second_lock >= 0) {
      if (kMayUnlockWrongly) {
        EXPECT_EQ(in_thread([&] { return mutex->Unlock(); }), EPERM);
      }
      EXPECT_EQ(mutex->Lock(), kind.second_lock);
      if (kind.second_lock == 0) {
        EXPECT_EQ(mutex->Unlock(), 0);
        EXPECT_EQ(in_thread([&] { return mutex->TryLock(); }), EBUSY);
      }
    }
    EXPECT_EQ(mutex->Unlock(), 0);
    EXPECT_EQ(in_thread([&] {
                const int result = mutex->TryLock();
                if (result == 0) mutex->Unlock();
                return result;
              }),
              0);
  }
}

TEST(BRELMutexTest, InnerGuardThatFailsReleasesNothing) {
  BRELMutex mutex(false);
  {
    const BRELLock outer(mutex);
    EXPECT_EQ(outer.result(), 0);
    {
      const BRELLock inner(mutex);
      EXPECT_EQ(inner.result(), EDEADLK);
    }
    {
      const BRELTryLock inner(mutex);
      EXPECT_EQ(inner.result(), EBUSY);
    }
    EXPECT_EQ(in_thread([&] { return BRELTryLock(mutex).result(); }), EBUSY);
  }
  EXPECT_EQ(in_thread([&] { return BRELTryLock(mutex).result(); }), 0);
  EXPECT_EQ(mutex.Lock(), 0);
  EXPECT_EQ(mutex.Unlock(), 0);
  if (kMayUnlockWrongly) {
    EXPECT_EQ(mutex.Unlock(), EPERM);
  }
}

TEST(BRELRWLockTest, ReadersShareAndAWriterExcludes) {
  BRELRWLock lock;
  std::atomic<bool> writer_in{false};
  std::thread writer;
  {
    const BRELRLock reader(lock);
    EXPECT_EQ(in_thread([&] { return BRELRLock(lock).result(); }), 0);  // beside the first
    writer = std::thread([&] {
      const BRELWLock guard(lock);
      EXPECT_EQ(BRELWLock(lock).result(), EDEADLK);  // and releases nothing
      EXPECT_EQ(BRELRLock(lock).result(), EDEADLK);
      writer_in = true;
    });
    EXPECT_FALSE(writer_in);
  }
  writer.join();
  EXPECT_TRUE(writer_in);
  lock.Init(true);
  EXPECT_EQ(lock.WriteLock(), 0);
  EXPECT_EQ(lock.Unlock(), 0);
}

TEST(BRELEventTest, WaitEndsBySignalOrWholeSeconds) {
  BRELMutex mutex(false);
  BRELEvent event;
  bool ready = false;
  std::thread signaller([&] {
    const BRELLock guard(mutex);
    ready = true;
    event.Broadcast();
  });
  {
    BRELLock guard(mutex);
    while (!ready) EXPECT_EQ(event.Wait(guard, 30'000), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(event.Wait(guard, 999), 1);  // less than a second: not at all
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    BRELLock failed(mutex);
    EXPECT_EQ(event.Wait(failed, 0), EPERM);
  }
  signaller.join();
  BRELNoopMutex other_kind;
  BRELLock guard(other_kind);
  EXPECT_EQ(event.Wait(guard, 0), EINVAL);
}

TEST(BRELEventTest, SharedEventKeepsMillisecondsAndWaitsWithoutEnd) {
  BRELSharedMutex mutex(false);
  BRELSharedEvent event;
  ASSERT_EQ(event.Init(true), 0);
  ASSERT_EQ(mutex.Lock(), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(event.Wait(mutex, 30), 1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));
  bool ready = false;
  std::thread signaller([&] {
    const BRELLock guard(mutex);
    ready = true;
    event.Signal();
  });
  while (!ready) EXPECT_EQ(event.Wait(mutex, BRELSharedEvent::kNoTimeout), 0);
  EXPECT_EQ(mutex.Unlock(), 0);
  signaller.join();
}

// Whether another process could have the lock now.
template <typename Mutex, typename... Args>
int others_try(const std::string& path, Args... args) {
  return in_child([&] {
    Mutex mutex(path.c_str(), args...);
    return mutex.TryLock();
  });
}

TEST(BRELFileLockTest, FileLocksExcludeOtherProcesses) {
  const TempDir folder;
  const std::string path = folder.file("lock");
  {
    BRELNamedMutex named(path.c_str());
    EXPECT_EQ(named.status(), 0);
    const BRELLock guard(named);
    EXPECT_EQ(guard.result(), 0);
    EXPECT_EQ(others_try<BRELNamedMutex>(path), EAGAIN);
    EXPECT_EQ(others_try<BRELFileMutex>(path, true), EAGAIN);
  }
  EXPECT_EQ(others_try<BRELNamedMutex>(path), 0);

  // The file mutex leaves the content alone, the named one empties it.
  log_test::write_file(path, "content");
  BRELFileMutex file(path.c_str(), false);
  EXPECT_EQ(log_test::read_file(path), "content");
  EXPECT_EQ(file.Lock(), 0);
  EXPECT_EQ(others_try<BRELFileMutex>(path, false), EAGAIN);
  EXPECT_EQ(file.Unlock(), 0);
  EXPECT_EQ(others_try<BRELFileMutex>(path, false), 0);
  const BRELNamedMutex emptied(path.c_str());
  EXPECT_EQ(log_test::read_file(path), "");
}

TEST(BRELFileLockTest, UnusableFileIsToldAndLocksNothing) {
  const TempDir folder;
  const std::string path = folder.file("missing/lock");
  BRELNamedMutex named(path.c_str());
  EXPECT_EQ(named.status(), ENOENT);
  EXPECT_EQ(named.Lock(), EBADF);
  BRELFileMutex file(path.c_str(), true);
  EXPECT_EQ(file.Lock(), EBADF);
  EXPECT_EQ(file.error(), "Failed to open lockfile " + path + " : No such file or directory");
  EXPECT_STREQ(BRELFileMutex("", true).error(), "Invalid filename specified for file lock");
  const BRELFileMutex too_long((folder.path() + std::string(3000, 'x')).c_str(), true);
  EXPECT_EQ(std::string(too_long.error()).size(), 511U);
}

TEST(BRELSemaphoreTest, SetIsFoundByNameAndTheOldOneRemoved) {
  const TempDir folder;
  const std::string name = folder.file("semaphore");
  BRELSemaphore first(name.c_str(), nullptr, 1, 2, true);
  ASSERT_EQ(first.status(), 0);
  EXPECT_EQ(first.Lock(), 0);
  BRELSemaphore joined(name.c_str(), nullptr, 1, 2, false);
  EXPECT_EQ(joined.TryLock(), EAGAIN);
  EXPECT_EQ(first.IncrementSemaphore(1), 0);
  EXPECT_EQ(in_child([&] { return joined.TryLock(); }), 0);  // what a process holds comes back when it ends
  EXPECT_EQ(joined.TryLock(), 0);
  EXPECT_EQ(joined.TryLock(), EAGAIN);

  BRELSemaphore anew(name.c_str(), nullptr, 1, 1, true);
  ASSERT_EQ(anew.status(), 0);
  EXPECT_EQ(first.TryLock(), EINVAL);      // its set is gone
  log_test::write_file(name, "999999\n");  // a set that the file does not record is not ours
  EXPECT_EQ(BRELSemaphore(name.c_str(), nullptr, 1, 1, true).status(), EEXIST);
  EXPECT_EQ(anew.Remove(), 0);
  EXPECT_EQ(BRELSemaphore("", nullptr, 1, 1, true).status(), EINVAL);
  EXPECT_EQ(BRELSemaphore(name.c_str(), nullptr, 1, 0, true).status(), EINVAL);

  BRELBaseMutex* const kinds[] = {BRELRequestMutex(0, nullptr, 0, 0), BRELRequestMutex(1, name.c_str(), 0, 0),
                                  BRELRequestMutex(2, name.c_str(), 1, 1),
                                  BRELRequestMutex(3, name.c_str(), 1, 1)};
  EXPECT_NE(dynamic_cast<BRELMutex*>(kinds[0]), nullptr);
  EXPECT_NE(dynamic_cast<BRELNamedMutex*>(kinds[1]), nullptr);
  auto* const set = dynamic_cast<BRELSemaphore*>(kinds[2]);
  ASSERT_NE(set, nullptr);
  EXPECT_EQ(set->Remove(), 0);
  EXPECT_EQ(kinds[3], nullptr);
  for (BRELBaseMutex* mutex : kinds) BRELDestroyMutex(mutex);
}

TEST(BRELPosixSemTest, HolderIsKnownAndANamedValueIsRaised) {
  BRELPosixSem unnamed(nullptr, 1, false);
  EXPECT_EQ(unnamed.Lock(), 0);
  EXPECT_EQ(unnamed.owner(), getpid());
  EXPECT_EQ(unnamed.TryLock(), EAGAIN);
  EXPECT_EQ(unnamed.ReleaseIfHeld(), 0);
  EXPECT_EQ(unnamed.ReleaseIfHeld(), 0);  // holds nothing any more

  const std::string name = "/brel_test_" + std::to_string(getpid());
  BRELPosixSem low(name.c_str(), 1, false);
  const BRELPosixSem not_raised(name.c_str(), 3, false);
  int value = 0;
  EXPECT_EQ(low.GetValue(&value), 0);
  EXPECT_EQ(value, 1);
  const BRELPosixSem raised(name.c_str(), 3, true);
  EXPECT_EQ(low.GetValue(&value), 0);
  EXPECT_EQ(value, 3);
  sem_unlink(name.c_str());
  EXPECT_EQ(BRELPosixSem("/no/such", 1, false).Wait(), EINVAL);
}

}  // namespace
