#include "daemonbase/BRELSync.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>
#include <typeinfo>

#include "daemonbase/BRELSyncShared.h"
#include "tests/unit/brellog/LogTestSupport.h"

// These tests lock twice, fail to lock and unlock what is not theirs: nothing for the analysis.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace {

using log_test::TempDir;
using namespace std::chrono;

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

int in_child(const auto& call) {
  if (fork() == 0) _exit(call());
  int status = 0;
  wait(&status);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(BRELMutexTest, EveryKindAnswersWithTheErrorNumber) {
  constexpr int kHangs = -1;
  const std::pair<BRELBaseMutex*, int> kinds[] = {
      // with what the owner's second Lock() returns
      {new BRELMutex(false), EDEADLK}, {new BRELMutex(true), 0}, {new BRELSharedMutex(false), EDEADLK},
      {new BRELSharedMutex(true), 0},  {new BRELSpin, kHangs},   {new BRELSharedSpin, kHangs}};
  for (const auto& [kind, second_lock] : kinds) {
    const std::unique_ptr<BRELBaseMutex> mutex(kind);
    SCOPED_TRACE(typeid(*mutex).name());
    const auto try_elsewhere = [&] { return in_thread([&] { return BRELTryLock(*mutex).result(); }); };
    EXPECT_EQ(mutex->status(), 0);
    EXPECT_EQ(mutex->Lock(), 0);
    if (second_lock != kHangs) {
      EXPECT_TRUE(!kMayUnlockWrongly || in_thread([&] { return mutex->Unlock(); }) == EPERM);
      // A guard within a guard releases only what it acquired.
      EXPECT_EQ(BRELLock(*mutex).result(), second_lock);
    }
    EXPECT_EQ(try_elsewhere(), EBUSY);
    EXPECT_EQ(mutex->Unlock(), 0);
    EXPECT_EQ(try_elsewhere(), 0);
    EXPECT_EQ(try_elsewhere(), 0);
  }
}

TEST(BRELRWLockTest, ReadersShareAndAWriterExcludes) {
  BRELRWLock lock;
  {
    const BRELRLock reader(lock);
    EXPECT_EQ(in_thread([&] { return BRELRLock(lock).result(); }), 0);
  }
  const BRELWLock writer(lock);
  for (int i = 0; i < 2; ++i) {  // a guard that fails releases nothing
    EXPECT_EQ(BRELWLock(lock).result(), EDEADLK);
    EXPECT_EQ(BRELRLock(lock).result(), EDEADLK);
  }
}

TEST(BRELEventTest, WaitEndsBySignalOrWholeSeconds) {
  BRELMutex mutex(false);
  BRELEvent event;
  BRELLock guard(mutex);
  bool within_one_second = false;
  for (int i = 0; i < 3; ++i) {
    const auto second = floor<seconds>(system_clock::now());
    EXPECT_EQ(event.Wait(guard, 999), 1);  // not at all
    within_one_second = within_one_second || floor<seconds>(system_clock::now()) == second;
  }
  EXPECT_TRUE(within_one_second);
  bool ready = false;
  const std::jthread signaller([&] {
    const BRELLock inner(mutex);
    ready = true;
    event.Broadcast();
  });
  while (!ready) EXPECT_EQ(event.Wait(guard, 30'000), 0);
  BRELLock failed(mutex);
  EXPECT_EQ(event.Wait(failed, 0), EPERM);
}

TEST(BRELEventTest, SharedEventKeepsMillisecondsAndWaitsWithoutEnd) {
  BRELSharedMutex mutex(false);
  BRELSharedEvent event;
  ASSERT_EQ(event.Init(true), 0);
  const BRELLock guard(mutex);
  const auto start = steady_clock::now();
  EXPECT_EQ(event.Wait(mutex, 30), 1);
  EXPECT_GE(steady_clock::now() - start, 25ms);
  bool ready = false;
  const std::jthread signaller([&] {
    const BRELLock inner(mutex);
    ready = true;
    event.Signal();
  });
  while (!ready) EXPECT_EQ(event.Wait(mutex, BRELSharedEvent::kNoTimeout), 0);
}

template <typename Mutex, typename... Args>
void expect_exclusion_of_other_processes(const std::string& path, Args... args) {
  const auto others_try = [&] { return in_child([&] { return Mutex(path.c_str(), args...).TryLock(); }); };
  Mutex mutex(path.c_str(), args...);
  EXPECT_EQ(mutex.Lock(), 0);
  EXPECT_EQ(others_try(), EAGAIN);
  EXPECT_EQ(mutex.Unlock(), 0);
  EXPECT_EQ(others_try(), 0);
  EXPECT_EQ(Mutex("/missing/lock", args...).Lock(), EBADF);
}

TEST(BRELFileLockTest, FileLocksExcludeOtherProcesses) {
  const TempDir folder;
  const std::string path = folder.file("lock");
  log_test::write_file(path, "content");
  expect_exclusion_of_other_processes<BRELFileMutex>(path, true);
  EXPECT_EQ(log_test::read_file(path), "content");
  expect_exclusion_of_other_processes<BRELNamedMutex>(path);
  EXPECT_EQ(log_test::read_file(path), "");
  EXPECT_EQ(BRELNamedMutex("/missing/lock").status(), ENOENT);
  const std::string missing = "/missing/" + std::string(800, 'x');
  EXPECT_EQ(BRELFileMutex(missing.c_str(), true).error(),
            ("Failed to open lockfile " + missing).substr(0, 511));
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
  EXPECT_EQ(first.IncrementSemaphore(65536), ERANGE);
  EXPECT_EQ(in_child([&] { return joined.TryLock(); }), 0);  // what a process holds comes back when it ends
  EXPECT_EQ(joined.TryLock(), 0);
  EXPECT_EQ(joined.TryLock(), EAGAIN);

  const std::unique_ptr<BRELBaseMutex> anew(BRELRequestMutex(2, name.c_str(), 1, 1));
  ASSERT_EQ(anew->status(), 0);
  EXPECT_EQ(first.TryLock(), EINVAL);      // its set is gone
  log_test::write_file(name, "999999\n");  // a set that the file does not record is not ours
  EXPECT_EQ(BRELSemaphore(name.c_str(), nullptr, 1, 1, true).status(), EEXIST);
  EXPECT_EQ(dynamic_cast<BRELSemaphore&>(*anew).Remove(), 0);
}

TEST(BRELPosixSemTest, HolderIsKnownAndANamedValueIsRaised) {
  const std::string name = "/brel_test_" + std::to_string(getpid());
  BRELPosixSem semaphore(name.c_str(), 1, false);
  EXPECT_EQ(semaphore.Lock(), 0);
  EXPECT_EQ(semaphore.owner(), getpid());
  EXPECT_EQ(BRELPosixSem(name.c_str(), 1, false).TryLock(), EAGAIN);
  EXPECT_EQ(semaphore.ReleaseIfHeld(), 0);
  EXPECT_EQ(semaphore.ReleaseIfHeld(), 0);  // holds nothing any more
  for (const int value : {1, 3}) {
    const BRELPosixSem raised(name.c_str(), 3, value == 3);
    int seen = 0;
    semaphore.GetValue(&seen);
    EXPECT_EQ(seen, value);
  }
  sem_unlink(name.c_str());
  EXPECT_EQ(BRELPosixSem("/no/such", 1, false).Wait(), EINVAL);
}

}  // namespace
