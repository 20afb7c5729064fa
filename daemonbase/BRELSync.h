// Locks of one process, and the scoped guards over them.
//
// Every operation returns 0 or the platform's error number (EDEADLK, EBUSY, EPERM, ...). Only constructors
// throw: the error number as an int, when the operating system cannot create the lock. All members may be
// called from any thread, except construction and destruction. The kinds that work between processes are
// in daemonbase/BRELSyncShared.h.
#pragma once

#include <pthread.h>

#include <cerrno>
#include <cstdint>

#include "daemonbase/ThreadSafety.h"

// What all mutex kinds have in common. The status word is -1 until the lock is ready, then 0; some kinds
// leave an error number there when it is not.
class CAPABILITY("mutex") BRELBaseMutex {
 public:
  BRELBaseMutex() = default;
  BRELBaseMutex(const BRELBaseMutex&) = delete;
  BRELBaseMutex& operator=(const BRELBaseMutex&) = delete;
  virtual ~BRELBaseMutex() = default;

  virtual int Lock() ACQUIRE() = 0;
  virtual int Unlock() RELEASE() = 0;
  // 0 if acquired. ENOSYS from a kind that offers no try-lock.
  virtual int TryLock() TRY_ACQUIRE(false) NO_THREAD_SAFETY_ANALYSIS { return ENOSYS; }

  int status() const { return status_; }

 protected:
  int32_t status_ = -1;
};

// One POSIX mutex of this process. Not recursive means error-checking, never the plain type: the owner's
// second Lock() returns EDEADLK instead of hanging, a stranger's Unlock() returns EPERM.
class CAPABILITY("mutex") BRELMutex : public BRELBaseMutex {
 public:
  explicit BRELMutex(bool recursive);
  ~BRELMutex() override;

  int Lock() ACQUIRE() override;
  int Unlock() RELEASE() override;
  int TryLock() TRY_ACQUIRE(false) override;

 private:
  friend class BRELEvent;
  pthread_mutex_t mutex_;
};

// One POSIX reader/writer lock with the platform's default preference (readers).
class CAPABILITY("rwlock") BRELRWLock {
 public:
  BRELRWLock();
  BRELRWLock(const BRELRWLock&) = delete;
  BRELRWLock& operator=(const BRELRWLock&) = delete;
  ~BRELRWLock();

  // Makes the lock anew, for use between processes when `shared`; nobody may hold it. The constructor has
  // already called Init(false).
  void Init(bool shared);

  int ReadLock() ACQUIRE_SHARED();
  int WriteLock() ACQUIRE();
  int Unlock() RELEASE_GENERIC();

 private:
  bool ready_ = false;
  pthread_rwlock_t lock_;
};

// The guards below release only what they acquired. A guard that could not acquire does nothing at its end
// and the guarded code runs all the same: code that already owns a BRELMutex(false) may call a routine that
// guards itself with the same mutex.
class SCOPED_CAPABILITY [[nodiscard]] BRELLock {
 public:
  explicit BRELLock(BRELBaseMutex& mutex) ACQUIRE(mutex);
  BRELLock(const BRELLock&) = delete;
  BRELLock& operator=(const BRELLock&) = delete;
  ~BRELLock() RELEASE();

  int result() const { return result_; }

 private:
  friend class BRELEvent;
  int result_;
  BRELBaseMutex* mutex_;
};

// Holds the mutex only when result() is 0. The analysis cannot express a guard that may hold nothing, so
// data behind such a guard is the caller's to reason about.
class [[nodiscard]] BRELTryLock {
 public:
  explicit BRELTryLock(BRELBaseMutex& mutex);
  BRELTryLock(const BRELTryLock&) = delete;
  BRELTryLock& operator=(const BRELTryLock&) = delete;
  ~BRELTryLock();

  int result() const { return result_; }

 private:
  int result_;
  BRELBaseMutex* mutex_;
};

class SCOPED_CAPABILITY [[nodiscard]] BRELRLock {
 public:
  explicit BRELRLock(BRELRWLock& lock) ACQUIRE_SHARED(lock);
  BRELRLock(const BRELRLock&) = delete;
  BRELRLock& operator=(const BRELRLock&) = delete;
  ~BRELRLock() RELEASE();

  int result() const { return result_; }

 private:
  int result_;
  BRELRWLock* lock_;
};

class SCOPED_CAPABILITY [[nodiscard]] BRELWLock {
 public:
  explicit BRELWLock(BRELRWLock& lock) ACQUIRE(lock);
  BRELWLock(const BRELWLock&) = delete;
  BRELWLock& operator=(const BRELWLock&) = delete;
  ~BRELWLock() RELEASE();

  int result() const { return result_; }

 private:
  int result_;
  BRELRWLock* lock_;
};

// A spin lock of this process.
class CAPABILITY("mutex") BRELSpin : public BRELBaseMutex {
 public:
  BRELSpin();
  ~BRELSpin() override;

  int Lock() ACQUIRE() override;
  int Unlock() RELEASE() override;
  int TryLock() TRY_ACQUIRE(false) override;

 private:
  pthread_spinlock_t lock_;
};

// For single-threaded use of code that wants a mutex: everything succeeds, nothing is excluded.
class CAPABILITY("mutex") BRELNoopMutex : public BRELBaseMutex {
 public:
  BRELNoopMutex() { status_ = 0; }
  int Lock() ACQUIRE() NO_THREAD_SAFETY_ANALYSIS override { return 0; }
  int Unlock() RELEASE() NO_THREAD_SAFETY_ANALYSIS override { return 0; }
  int TryLock() TRY_ACQUIRE(false) NO_THREAD_SAFETY_ANALYSIS override { return 0; }
};

// A condition variable of this process.
class BRELEvent {
 public:
  BRELEvent();
  BRELEvent(const BRELEvent&) = delete;
  BRELEvent& operator=(const BRELEvent&) = delete;
  ~BRELEvent();

  // Waits on the guard's mutex until the start of the current second plus milliseconds/1000 whole seconds:
  // less than 1000 does not wait. Returns 1 on time-out, else the wait's result; may wake without a signal.
  // The guard must hold a BRELMutex (EPERM when it holds nothing, EINVAL for another kind).
  int Wait(BRELLock& guard, uint32_t milliseconds);
  int Signal();
  int Broadcast();

 private:
  pthread_cond_t condition_;
};

// Kind 0: BRELMutex(false); 1: BRELNamedMutex(name); 2: BRELSemaphore(name, nullptr, value, count, true);
// any other: nullptr. The caller owns the result and gives it back to BRELDestroyMutex.
BRELBaseMutex* BRELRequestMutex(int kind, const char* name, int value, int count);
void BRELDestroyMutex(BRELBaseMutex* mutex);
