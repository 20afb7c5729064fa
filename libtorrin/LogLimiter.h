// Keeps a failure that meets every request from filling the log.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

namespace torrin {

// Lets one line a minute through. Callable from any thread.
class LogLimiter {
 public:
  // True when a line may be written; `suppressed` then tells how many were not since the last one.
  bool allow(uint64_t& suppressed) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    int64_t next = next_.load(std::memory_order_relaxed);
    if (now.tv_sec < next || !next_.compare_exchange_strong(next, now.tv_sec + kSeconds)) {
      suppressed_.fetch_add(1, std::memory_order_relaxed);
      return false;
    }
    suppressed = suppressed_.exchange(0, std::memory_order_relaxed);
    return true;
  }

 private:
  static constexpr int64_t kSeconds = 60;
  std::atomic<int64_t> next_{0};
  std::atomic<uint64_t> suppressed_{0};
};

}  // namespace torrin
