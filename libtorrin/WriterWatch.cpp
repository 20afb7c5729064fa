#include "libtorrin/WriterWatch.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>

#include "brellog/VrLog.h"
#include "daemonbase/UniqueFd.h"

namespace torrin {
namespace {

// The library's: what readers share, then the writers' mutex, each in cache lines of its own.
struct LockFileHead {
  struct alignas(64) {
    uint32_t magic;
    uint32_t format;
    pthread_mutex_t mutex;
    size_t transaction;
    unsigned slots;
  } readers;
  alignas(64) pthread_mutex_t writers;  // begins with its futex word
};

}  // namespace

void WriterWatch::open(const std::string& lock_file, mode_t mode) {
  close();
  const UniqueFd fd(::open(lock_file.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, mode));
  if (!fd.valid()) return;
  void* page = mmap(nullptr, sizeof(LockFileHead), PROT_READ, MAP_SHARED, fd.get(), 0);
  if (page != MAP_FAILED) page_ = page;
}

void WriterWatch::close() {
  if (page_ != nullptr) munmap(page_, sizeof(LockFileHead));
  page_ = nullptr;
  confirmed_ = false;
  wrong_ = false;
}

uint32_t WriterWatch::holder() const {
  const auto* head = static_cast<const LockFileHead*>(page_);
  const auto* word = reinterpret_cast<const uint32_t*>(&head->writers);
  return __atomic_load_n(word, __ATOMIC_RELAXED) & FUTEX_TID_MASK;
}

bool WriterWatch::sees_writer() const {
  return page_ != nullptr && !wrong_.load(std::memory_order_relaxed) && holder() != 0;
}

void WriterWatch::confirm() {
  if (page_ == nullptr || confirmed_.load(std::memory_order_relaxed)) return;
  if (holder() != static_cast<uint32_t>(gettid())) {
    wrong_ = true;
    VRLOG(kLogInfo, "IP-user cache: other writers cannot be seen with this database library");
  }
  confirmed_ = true;
}

}  // namespace torrin
