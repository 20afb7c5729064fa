// The clock that the log writer reads, while a test holds it.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <cstdint>

namespace log_test {

inline std::atomic<int64_t> g_fake_microseconds{-1};  // since the epoch; -1: the real time

// Stands still at a time; the real one runs again at the object's end.
class FakeClock {
 public:
  explicit FakeClock(int64_t seconds, int microseconds = 0) { set(seconds, microseconds); }
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;
  ~FakeClock() { g_fake_microseconds = -1; }

  void set(int64_t seconds, int microseconds = 0) {
    g_fake_microseconds = seconds * 1'000'000 + microseconds;
  }
};

}  // namespace log_test
