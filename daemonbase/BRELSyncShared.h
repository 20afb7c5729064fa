// Locks between processes. Same conventions as daemonbase/BRELSync.h: 0 or the platform's error number.
//
// The "Shared" classes are to be constructed inside shared memory by its owner. They hold virtual tables,
// so the processes that use them must be forked from the one that constructed them. None is robust: a
// process that dies with the lock keeps it.
//
// The file locks are record locks: they exclude other processes, not the threads of the same one; closing
// any descriptor of the file gives the lock up; a child made by fork does not hold it.
#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "daemonbase/BRELSync.h"

class CAPABILITY("mutex") BRELSharedSpin : public BRELBaseMutex {
 public:
  BRELSharedSpin();  // throws -1 when Init() fails
  ~BRELSharedSpin() override;

  int Init();     // makes the lock; the constructor has already done so
  int Release();  // destroys it; harmless when there is none

  int Lock() ACQUIRE() override;
  int Unlock() RELEASE() override;
  int TryLock() TRY_ACQUIRE(false) override;

 private:
  pthread_spinlock_t lock_;
};

class CAPABILITY("mutex") BRELSharedMutex : public BRELBaseMutex {
 public:
  explicit BRELSharedMutex(bool recursive);  // else error-checking; throws -1 when Init() fails
  ~BRELSharedMutex() override;

  int Init(bool recursive);
  int Release();

  int Lock() ACQUIRE() override;
  int Unlock() RELEASE() override;
  int TryLock() TRY_ACQUIRE(false) override;

 private:
  friend class BRELSharedEvent;
  pthread_mutex_t mutex_;
};

// A condition variable, process-private until Init(true).
class BRELSharedEvent {
 public:
  static constexpr uint32_t kNoTimeout = 4294967295U;

  BRELSharedEvent();  // throws the error number when it cannot be made
  BRELSharedEvent(const BRELSharedEvent&) = delete;
  BRELSharedEvent& operator=(const BRELSharedEvent&) = delete;
  ~BRELSharedEvent();

  int Init(bool shared);  // makes it anew; nobody may be waiting
  // The caller holds the mutex. 1 on time-out, else the wait's result; may wake without a signal.
  int Wait(BRELSharedMutex& mutex, uint32_t milliseconds) REQUIRES(mutex);
  int Signal();
  int Broadcast();

 private:
  bool ready_ = false;
  pthread_cond_t condition_;
};

// A write lock on a whole file, which is made (mode 0666) or emptied at construction. status() is the
// error number when that failed; the lock calls then return EBADF.
class CAPABILITY("mutex") BRELNamedMutex : public BRELBaseMutex {
 public:
  explicit BRELNamedMutex(const char* path);
  ~BRELNamedMutex() override;

  int Lock() ACQUIRE() override;  // waits; EINTR when a signal ends the wait
  int Unlock() RELEASE() override;
  int TryLock() TRY_ACQUIRE(false) override;  // EAGAIN or EACCES when another process holds it

 private:
  int file_ = -1;
};

// The same on a file that is kept as it is, or made when missing. error() tells why it could not be had.
class CAPABILITY("mutex") BRELFileMutex : public BRELBaseMutex {
 public:
  // With `retry`, a Lock() that a signal interrupted is tried once more.
  BRELFileMutex(const char* path, bool retry);
  ~BRELFileMutex() override;

  int Lock() ACQUIRE() override;
  int Unlock() RELEASE() override;
  int TryLock() TRY_ACQUIRE(false) override;

  const char* error() const { return error_; }

 private:
  bool retry_;
  int file_ = -1;
  char error_[512] = {};  // 511 characters and the NUL
};

// A System V semaphore set that processes find by the name of a file. The file is made when missing; its
// content is the id of the set (that of `id_file`, if one is named, instead). The lock is semaphore 0 of
// the set; what a process holds is given back when it ends.
class CAPABILITY("mutex") BRELSemaphore : public BRELBaseMutex {
 public:
  // Makes `count` semaphores of the given value, or joins the set that is there. With `remove_old`, a set
  // that the file records is removed first, and whoever waits on it gets EIDRM. A set under the same key
  // that the file does not record belongs to somebody else: status() is then EEXIST.
  BRELSemaphore(const char* name, const char* id_file, int value, int count, bool remove_old);
  ~BRELSemaphore() override = default;  // leaves the set: others may use it

  int Lock() ACQUIRE() override;
  int Unlock() RELEASE() override;
  int TryLock() TRY_ACQUIRE(false) override;  // EAGAIN when taken
  int IncrementSemaphore(int amount);         // stays when the process ends, unlike Unlock()
  int Remove();                               // removes the set for everybody

 private:
  int open_set(const char* name, const char* id_file, int value, int count, bool remove_old);
  int change(int amount, int flags);

  int id_ = -1;
};

// A POSIX semaphore, of this process (no name) or named.
class CAPABILITY("mutex") BRELPosixSem : public BRELBaseMutex {
 public:
  // With `raise`, a named semaphore that exists with a lower value is posted up to `value`. status() is
  // the error number when there is no semaphore; all calls then return it.
  BRELPosixSem(const char* name, unsigned value, bool raise);
  ~BRELPosixSem() override;

  int Post();
  int Wait();
  int TryLock() TRY_ACQUIRE(false) override;  // EAGAIN when the value is 0
  int Lock() ACQUIRE() override;              // Wait()
  int Unlock() RELEASE() override;            // Post()
  int GetValue(int* value);
  // Posts if this process was the last to get the semaphore through this object and has not posted since.
  int ReleaseIfHeld();

  pid_t owner() const { return owner_; }  // 0 for nobody

 private:
  sem_t unnamed_;
  sem_t* semaphore_ = nullptr;
  bool named_;
  std::atomic<pid_t> owner_{0};
};
