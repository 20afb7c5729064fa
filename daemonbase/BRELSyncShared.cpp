#include "daemonbase/BRELSyncShared.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "brellog/VrLog.h"

// The analysis does not know the system's calls as lock operations, so the bodies that wrap them are
// exempt from it; what they do is declared in the header.

namespace {

// Programs of other accounts take the same locks.
constexpr mode_t kLockFileMode = 0666;
constexpr mode_t kSemaphoreMode = 0600;
constexpr int kKeyProject = 'B';

// The error number of a call that returned -1, or 0.
int error_of(int result) {
  return result == -1 ? errno : 0;
}

int change_record_lock(int file, short type, int command) {
  struct flock whole_file = {};
  whole_file.l_type = type;
  whole_file.l_whence = SEEK_SET;
  return error_of(fcntl(file, command, &whole_file));
}

std::string error_text(int error) {
  char buffer[128];
  return strerror_r(error, buffer, sizeof buffer);
}

// The id that a semaphore's file records, or -1.
int recorded_id(const char* path) {
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return -1;
  char text[16];
  const ssize_t length = read(file, text, sizeof text);
  close(file);
  int id = -1;
  if (length > 0) std::from_chars(text, text + length, id);
  return id;
}

int record_id(const char* path, int id) {
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kSemaphoreMode);
  if (file < 0) return errno;
  char text[16];
  const int length = snprintf(text, sizeof text, "%d\n", id);
  const int error = write(file, text, static_cast<size_t>(length)) == length ? 0 : EIO;
  close(file);
  return error;
}

// A file, made when missing, that is locked by its open descriptor: unlike a record lock this outlives
// the closing of another descriptor of the same file, which recorded_id() does.
class HeldFile {
 public:
  explicit HeldFile(const char* path) : file_(open(path, O_RDONLY | O_CREAT | O_CLOEXEC, kSemaphoreMode)) {
    error_ = error_of(file_);
    while (error_ == 0 && flock(file_, LOCK_EX) != 0) {
      if (errno != EINTR) error_ = errno;
    }
  }
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;
  ~HeldFile() {
    if (file_ >= 0) close(file_);
  }

  int error() const { return error_; }

 private:
  int file_;
  int error_ = 0;
};

// The argument that semctl() takes; the system leaves its definition to the caller.
union SemaphoreArgument {
  int value;
  semid_ds* status;
  unsigned short* values;
};

}  // namespace

BRELSharedSpin::BRELSharedSpin() {
  if (Init() != 0) throw -1;
}

BRELSharedSpin::~BRELSharedSpin() {
  Release();
}

int BRELSharedSpin::Init() {
  Release();
  const int error = pthread_spin_init(&lock_, PTHREAD_PROCESS_SHARED);
  status_ = error == 0 ? 0 : -1;
  return error;
}

int BRELSharedSpin::Release() {
  if (status_ != 0) return 0;
  status_ = -1;
  return pthread_spin_destroy(&lock_);
}

int BRELSharedSpin::Lock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_spin_lock(&lock_);
}
int BRELSharedSpin::Unlock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_spin_unlock(&lock_);
}
int BRELSharedSpin::TryLock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_spin_trylock(&lock_);
}

BRELSharedMutex::BRELSharedMutex(bool recursive) {
  if (Init(recursive) != 0) throw -1;
}

BRELSharedMutex::~BRELSharedMutex() {
  Release();
}

int BRELSharedMutex::Init(bool recursive) {
  Release();
  pthread_mutexattr_t attributes;
  int error = pthread_mutexattr_init(&attributes);
  if (error != 0) return error;
  pthread_mutexattr_settype(&attributes, recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_ERRORCHECK);
  error = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  if (error == 0) error = pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
  status_ = error == 0 ? 0 : -1;
  return error;
}

int BRELSharedMutex::Release() {
  if (status_ != 0) return 0;
  status_ = -1;
  return pthread_mutex_destroy(&mutex_);
}

int BRELSharedMutex::Lock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_mutex_lock(&mutex_);
}
int BRELSharedMutex::Unlock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_mutex_unlock(&mutex_);
}
int BRELSharedMutex::TryLock() NO_THREAD_SAFETY_ANALYSIS {
  return pthread_mutex_trylock(&mutex_);
}

BRELSharedEvent::BRELSharedEvent() {
  if (const int error = Init(false); error != 0) throw error;
}

BRELSharedEvent::~BRELSharedEvent() {
  if (ready_) pthread_cond_destroy(&condition_);
}

int BRELSharedEvent::Init(bool shared) {
  if (ready_) pthread_cond_destroy(&condition_);
  ready_ = false;
  pthread_condattr_t attributes;
  int error = pthread_condattr_init(&attributes);
  if (error != 0) return error;
  error = pthread_condattr_setpshared(&attributes, shared ? PTHREAD_PROCESS_SHARED : PTHREAD_PROCESS_PRIVATE);
  if (error == 0) error = pthread_cond_init(&condition_, &attributes);
  pthread_condattr_destroy(&attributes);
  ready_ = error == 0;
  return error;
}

int BRELSharedEvent::Wait(BRELSharedMutex& mutex, uint32_t milliseconds) {
  if (milliseconds == kNoTimeout) return pthread_cond_wait(&condition_, &mutex.mutex_);
  constexpr long kNanosecondsPerSecond = 1'000'000'000;
  timespec deadline = {};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += static_cast<time_t>(milliseconds / 1000);
  deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1'000'000;
  if (deadline.tv_nsec >= kNanosecondsPerSecond) {
    ++deadline.tv_sec;
    deadline.tv_nsec -= kNanosecondsPerSecond;
  }
  const int result = pthread_cond_timedwait(&condition_, &mutex.mutex_, &deadline);
  return result == ETIMEDOUT ? 1 : result;
}

int BRELSharedEvent::Signal() {
  return pthread_cond_signal(&condition_);
}
int BRELSharedEvent::Broadcast() {
  return pthread_cond_broadcast(&condition_);
}

BRELNamedMutex::BRELNamedMutex(const char* path) {
  if (path == nullptr) path = "";
  file_ = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, kLockFileMode);
  status_ = error_of(file_);
  if (file_ < 0) VRLOG(kLogInfo, "Failed to create lock %s : %s", path, error_text(status_).c_str());
}

BRELNamedMutex::~BRELNamedMutex() {
  if (file_ >= 0) close(file_);
}

int BRELNamedMutex::Lock() NO_THREAD_SAFETY_ANALYSIS {
  return change_record_lock(file_, F_WRLCK, F_SETLKW);
}
int BRELNamedMutex::Unlock() NO_THREAD_SAFETY_ANALYSIS {
  return change_record_lock(file_, F_UNLCK, F_SETLKW);
}
int BRELNamedMutex::TryLock() NO_THREAD_SAFETY_ANALYSIS {
  return change_record_lock(file_, F_WRLCK, F_SETLK);
}

BRELFileMutex::BRELFileMutex(const char* path, bool retry) : retry_(retry) {
  if (path == nullptr || *path == '\0') {
    status_ = EINVAL;
    snprintf(error_, sizeof error_, "Invalid filename specified for file lock");
    return;
  }
  // Two processes may both find no file: the one whose exclusive creation fails opens the other's.
  for (int attempt = 0; attempt < 2 && file_ < 0; ++attempt) {
    file_ = open(path, O_RDWR | O_CLOEXEC);
    if (file_ < 0 && errno == ENOENT)
      file_ = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kLockFileMode);
    status_ = error_of(file_);
    if (status_ != EEXIST) break;
  }
  if (file_ < 0) {
    snprintf(error_, sizeof error_, "Failed to open lockfile %s : %s", path, error_text(status_).c_str());
  }
}

BRELFileMutex::~BRELFileMutex() {
  if (file_ >= 0) close(file_);
}

int BRELFileMutex::Lock() NO_THREAD_SAFETY_ANALYSIS {
  int error = change_record_lock(file_, F_WRLCK, F_SETLKW);
  if (error == EINTR && retry_) error = change_record_lock(file_, F_WRLCK, F_SETLKW);
  return error;
}

int BRELFileMutex::Unlock() NO_THREAD_SAFETY_ANALYSIS {
  return change_record_lock(file_, F_UNLCK, F_SETLKW);
}
int BRELFileMutex::TryLock() NO_THREAD_SAFETY_ANALYSIS {
  return change_record_lock(file_, F_WRLCK, F_SETLK);
}

BRELSemaphore::BRELSemaphore(const char* name, const char* id_file, int value, int count, bool remove_old) {
  status_ = name == nullptr || *name == '\0' || count < 1 || value < 0
                ? EINVAL
                : open_set(name, id_file == nullptr ? name : id_file, value, count, remove_old);
}

int BRELSemaphore::open_set(const char* name, const char* id_file, int value, int count, bool remove_old) {
  // Two starters must not remove each other's set: the file stays locked until its id is recorded.
  const HeldFile file(name);
  if (file.error() != 0) return file.error();
  const key_t key = ftok(name, kKeyProject);
  if (key == -1) return errno;

  const int recorded = recorded_id(id_file);
  int existing = semget(key, 0, 0);
  if (existing != -1 && existing != recorded) return EEXIST;
  if (existing != -1 && remove_old) {
    if (semctl(existing, 0, IPC_RMID) == -1) return errno;
    existing = -1;
  }
  if (existing != -1) {
    id_ = existing;
    return 0;
  }
  id_ = semget(key, count, IPC_CREAT | IPC_EXCL | static_cast<int>(kSemaphoreMode));
  if (id_ == -1) return errno;
  std::vector<unsigned short> values(static_cast<size_t>(count), static_cast<unsigned short>(value));
  SemaphoreArgument argument = {};
  argument.values = values.data();
  const int error = semctl(id_, 0, SETALL, argument) == -1 ? errno : record_id(id_file, id_);
  if (error != 0) Remove();
  return error;
}

int BRELSemaphore::change(int amount, int flags) {
  sembuf operation = {0, static_cast<short>(amount), static_cast<short>(flags)};
  int error = 0;
  do {
    error = error_of(semop(id_, &operation, 1));
  } while (error == EINTR);
  return error;
}

int BRELSemaphore::Lock() NO_THREAD_SAFETY_ANALYSIS {
  return change(-1, SEM_UNDO);
}
int BRELSemaphore::Unlock() NO_THREAD_SAFETY_ANALYSIS {
  return change(1, SEM_UNDO);
}
int BRELSemaphore::TryLock() NO_THREAD_SAFETY_ANALYSIS {
  return change(-1, SEM_UNDO | IPC_NOWAIT);
}
int BRELSemaphore::IncrementSemaphore(int amount) {
  // What does not fit would become another amount: 65536 a wait for zero.
  if (amount < SHRT_MIN || amount > SHRT_MAX) return ERANGE;
  return change(amount, 0);
}

int BRELSemaphore::Remove() {
  const int error = error_of(semctl(id_, 0, IPC_RMID));
  id_ = -1;
  status_ = -1;
  return error;
}

BRELPosixSem::BRELPosixSem(const char* name, unsigned value, bool raise)
    : named_(name != nullptr && *name != '\0') {
  if (!named_) {
    status_ = error_of(sem_init(&unnamed_, 0, value));
    if (status_ == 0) semaphore_ = &unnamed_;
    return;
  }
  semaphore_ = sem_open(name, O_CREAT, kLockFileMode, value);
  if (semaphore_ == SEM_FAILED) {
    status_ = errno;
    semaphore_ = nullptr;
    return;
  }
  status_ = 0;
  int current = 0;
  while (raise && GetValue(&current) == 0 && current < static_cast<int>(value) && sem_post(semaphore_) == 0) {
  }
}

BRELPosixSem::~BRELPosixSem() {
  if (semaphore_ == nullptr) return;
  if (named_) {
    sem_close(semaphore_);
  } else {
    sem_destroy(semaphore_);
  }
}

int BRELPosixSem::Post() {
  if (semaphore_ == nullptr) return status_;
  owner_ = 0;
  return error_of(sem_post(semaphore_));
}

int BRELPosixSem::Wait() {
  if (semaphore_ == nullptr) return status_;
  int error = 0;
  do {
    error = error_of(sem_wait(semaphore_));
  } while (error == EINTR);
  if (error == 0) owner_ = getpid();
  return error;
}

int BRELPosixSem::TryLock() NO_THREAD_SAFETY_ANALYSIS {
  if (semaphore_ == nullptr) return status_;
  const int error = error_of(sem_trywait(semaphore_));
  if (error == 0) owner_ = getpid();
  return error;
}

int BRELPosixSem::Lock() NO_THREAD_SAFETY_ANALYSIS {
  return Wait();
}
int BRELPosixSem::Unlock() NO_THREAD_SAFETY_ANALYSIS {
  return Post();
}

int BRELPosixSem::GetValue(int* value) {
  return semaphore_ == nullptr ? status_ : error_of(sem_getvalue(semaphore_, value));
}

int BRELPosixSem::ReleaseIfHeld() {
  return owner_ == getpid() ? Post() : 0;
}

BRELBaseMutex* BRELRequestMutex(int kind, const char* name, int value, int count) {
  switch (kind) {
    case 0: return std::make_unique<BRELMutex>(false).release();
    case 1: return std::make_unique<BRELNamedMutex>(name).release();
    case 2: return std::make_unique<BRELSemaphore>(name, nullptr, value, count, true).release();
    default: return nullptr;
  }
}

void BRELDestroyMutex(BRELBaseMutex* mutex) {
  delete mutex;
}
