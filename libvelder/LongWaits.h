// Keeps a process answering while a server is silent.
//
// A thread that answers requests may wait kFree for a server. To wait longer it needs one of a few places:
// half as many as there are such threads, at least one. Without a place the wait ends as if its time were
// over, which puts the server aside, so that the others need not wait for it at all. So of the threads of a
// worker at least half are free again soon after a server has frozen, however long its time-out is.
//
// Threads that answer no requests, those of probes and synchronisations, wait as long as they like.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace velder {

// How many there are of something in this process. A child of a fork, which has none of them, begins at zero.
class ProcessCount {
 public:
  // False: there are `most` already.
  bool add(uint32_t most);
  void subtract();
  uint32_t get() const;

 private:
  std::atomic<uint64_t> value_{0};  // the process id above, the number below
};

// From now on the calling thread is one that answers requests. May be called again.
void count_request_thread();

// One wait of the calling thread; inside another one it shares that one's place.
class LongWait {
 public:
  using Time = std::chrono::steady_clock::time_point;
  static constexpr std::chrono::seconds kFree{2};

  explicit LongWait(std::chrono::seconds free = kFree) : free_(free) {}
  // For a thread that waits for another one, which waits for the server since `began`. Takes a place at once,
  // so that the other one, which has to end its wait for all of them, gets none when they are many.
  explicit LongWait(Time began);
  ~LongWait();
  LongWait(const LongWait&) = delete;
  LongWait& operator=(const LongWait&) = delete;

  // To be asked again at least once a second. False: the wait must end.
  bool may_go_on();

 private:
  void take_place();

  const Time began_ = std::chrono::steady_clock::now();
  const std::chrono::seconds free_ = kFree;
  bool has_place_ = false;
};

}  // namespace velder
