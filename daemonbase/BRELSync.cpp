#include "daemonbase/BRELSync.h"

#include <ctime>

// The analysis does not know the POSIX calls as lock operations, so the bodies that wrap them are exempt
// from it; what they do is declared in the header.

namespace {

// Throws the error number, as constructors of locks do.
void require(int error) {
  if (error != 0) throw error;
}

}  // namespace

BRELMutex::BRELMutex(bool recursive) {
  pthread_mutexattr_t attributes;
  require(pthread_mutexattr_init(&attributes));
  pthread_mutexattr_settype(&attributes, recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_ERRORCHECK);
  const int error = pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
  require(error);
  status_ = 0;
}

BRELMutex::~BRELMutex() {
  pthread_mutex_destroy(&mutex_);
}

int BRELMutex::Lock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_mutex_lock(&mutex_);
}
int BRELMutex::Unlock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_mutex_unlock(&mutex_);
}
int BRELMutex::TryLock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_mutex_trylock(&mutex_);
}

BRELRWLock::BRELRWLock() {
  Init(false);
}

void BRELRWLock::Init(bool shared) {
  if (ready_) pthread_rwlock_destroy(&lock_);
  ready_ = false;
  pthread_rwlockattr_t attributes;
  require(pthread_rwlockattr_init(&attributes));
  pthread_rwlockattr_setpshared(&attributes, shared ? PTHREAD_PROCESS_SHARED : PTHREAD_PROCESS_PRIVATE);
  const int error = pthread_rwlock_init(&lock_, &attributes);
  pthread_rwlockattr_destroy(&attributes);
  require(error);
  ready_ = true;
}

BRELRWLock::~BRELRWLock() {
  if (ready_) pthread_rwlock_destroy(&lock_);
}

int BRELRWLock::ReadLock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_rwlock_rdlock(&lock_);
}
int BRELRWLock::WriteLock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_rwlock_wrlock(&lock_);
}
int BRELRWLock::Unlock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_rwlock_unlock(&lock_);
}

// The guards are exempt too: whether they hold anything is known only at run time.
BRELLock::BRELLock(BRELBaseMutex& mutex) NO_THREAD_SAFETY_ANALYSIS : result_(mutex.Lock()),
                                                                     mutex_(result_ == 0 ? &mutex : nullptr) {
}

BRELLock::~BRELLock() NO_THREAD_SAFETY_ANALYSIS {
  if (mutex_ != nullptr) mutex_->Unlock();
}

BRELTryLock::BRELTryLock(BRELBaseMutex& mutex) NO_THREAD_SAFETY_ANALYSIS
    : result_(mutex.TryLock()),
      mutex_(result_ == 0 ? &mutex : nullptr) {}

BRELTryLock::~BRELTryLock() NO_THREAD_SAFETY_ANALYSIS {
  if (mutex_ != nullptr) mutex_->Unlock();
}

BRELRLock::BRELRLock(BRELRWLock& lock) NO_THREAD_SAFETY_ANALYSIS : result_(lock.ReadLock()),
                                                                   lock_(result_ == 0 ? &lock : nullptr) {}

BRELRLock::~BRELRLock() NO_THREAD_SAFETY_ANALYSIS {
  if (lock_ != nullptr) lock_->Unlock();
}

BRELWLock::BRELWLock(BRELRWLock& lock) NO_THREAD_SAFETY_ANALYSIS : result_(lock.WriteLock()),
                                                                   lock_(result_ == 0 ? &lock : nullptr) {}

BRELWLock::~BRELWLock() NO_THREAD_SAFETY_ANALYSIS {
  if (lock_ != nullptr) lock_->Unlock();
}

BRELSpin::BRELSpin() {
  require(pthread_spin_init(&lock_, PTHREAD_PROCESS_PRIVATE));
  status_ = 0;
}

BRELSpin::~BRELSpin() {
  pthread_spin_destroy(&lock_);
}

int BRELSpin::Lock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_spin_lock(&lock_);
}
int BRELSpin::Unlock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_spin_unlock(&lock_);
}
int BRELSpin::TryLock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_spin_trylock(&lock_);
}

BRELEvent::BRELEvent() {
  require(pthread_cond_init(&condition_, nullptr));
}
BRELEvent::~BRELEvent() {
  pthread_cond_destroy(&condition_);
}

int BRELEvent::Wait(BRELLock& guard, uint32_t milliseconds) {
  if (guard.mutex_ == nullptr) return EPERM;
  auto* mutex = dynamic_cast<BRELMutex*>(guard.mutex_);
  if (mutex == nullptr) return EINVAL;
  timespec deadline = {};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += static_cast<time_t>(milliseconds / 1000);
  deadline.tv_nsec = 0;
  const int result = pthread_cond_timedwait(&condition_, &mutex->mutex_, &deadline);
  return result == ETIMEDOUT ? 1 : result;
}

int BRELEvent::Signal() {
  return pthread_cond_signal(&condition_);
}
int BRELEvent::Broadcast() {
  return pthread_cond_broadcast(&condition_);
}
