#include "daemonbase/BRELSync.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <typeinfo>

#include "daemonbase/BRELSyncShared.h"
#include "tests/unit/Support.h"

// These tests lock twice, fail to lock and unlock what is not theirs: nothing for the analysis.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace {

using support::TempDir;
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

TEST(BRELMutexTest, EveryKindAnswersWithTheErrorNumber) {
  constexpr int kHangs = -1;
  const std::pair<BRELBaseMutex*, int> kinds[] = {
      // with what the owner's second Lock() returns
      {new BRELMutex(false), EDEADLK}, {new BRELMutex(true), 0}, {new BRELSharedMutex(false), EDEADLK},
      {new BRELSharedMutex(true), 0},  {new BRELSpin, kHangs},   {new BRELSharedSpin, kHangs}};
  for (const auto& [kind, second_lock] : kinds) {
    const std::unique_ptr<BRELBaseMutex> mutex(kind);
    SCOPED_TRACE(typeid(*kind).name());
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

TEST(BRELSyncSharedTest, OtherProcessesAreExcludedUntilTheLockIsGivenBack) {
  const TempDir folder;
  const std::string kept = folder.file("kept"), emptied = folder.file("emptied"), set = folder.file("set");
  const std::string semaphore = "/brel_test_" + std::to_string(getpid());
  for (const std::string& path : {kept, emptied}) support::write_file(path, "content");
  const std::function<BRELBaseMutex*()> kinds[] = {
      [&] { return new BRELFileMutex(kept.c_str(), true); },
      [&] { return new BRELNamedMutex(emptied.c_str()); },
      [&] { return new BRELSemaphore(set.c_str(), nullptr, 1, 1, false); },
      [&] { return new BRELPosixSem(semaphore.c_str(), 1, false); },
  };
  for (const auto& make : kinds) {
    const std::unique_ptr<BRELBaseMutex> mutex(make());
    const BRELBaseMutex& kind = *mutex;
    SCOPED_TRACE(typeid(kind).name());
    const auto others_try = [&] {
      return support::in_child([&] { return std::unique_ptr<BRELBaseMutex>(make())->TryLock(); });
    };
    EXPECT_EQ(mutex->Lock(), 0);
    EXPECT_EQ(others_try(), EAGAIN);
    EXPECT_EQ(mutex->Unlock(), 0);
    EXPECT_EQ(others_try(), 0);
  }
  EXPECT_EQ(support::read_file(kept) + support::read_file(emptied), "content");
  EXPECT_EQ(BRELNamedMutex("/missing/lock").status(), ENOENT);
  EXPECT_EQ(BRELFileMutex("/missing/lock", true).Lock(), EBADF);

  BRELSemaphore joined(set.c_str(), nullptr, 1, 1, false);
  EXPECT_EQ(joined.TryLock(), 0) << "what a process held came back when it ended";
  EXPECT_EQ(joined.IncrementSemaphore(65536), ERANGE);
  const std::unique_ptr<BRELBaseMutex> anew(BRELRequestMutex(2, set.c_str(), 1, 1));
  EXPECT_EQ(joined.TryLock(), EINVAL) << "its set is gone";
  support::write_file(set, "999999\n");
  EXPECT_EQ(BRELSemaphore(set.c_str(), nullptr, 1, 1, true).status(), EEXIST) << "not recorded, so not ours";
  EXPECT_EQ(dynamic_cast<BRELSemaphore&>(*anew).Remove(), 0);

  BRELPosixSem raised(semaphore.c_str(), 3, true);
  for (int value = 3; value > 0; --value) EXPECT_EQ(raised.TryLock(), 0);
  EXPECT_EQ(raised.TryLock(), EAGAIN);
  EXPECT_EQ(raised.owner(), getpid());
  sem_unlink(semaphore.c_str());

  BRELSharedMutex mutex(false);
  BRELSharedEvent event;
  const BRELLock guard(mutex);
  const auto start = steady_clock::now();
  EXPECT_EQ(event.Wait(mutex, 30), 1);
  EXPECT_GE(steady_clock::now() - start, 25ms);
}

}  // namespace
