// Work that is quick as a rule and therefore keeps the lead of the event loop while it is done, but waits at
// times: for a disk whose pages are cold, for a store that is durable, for another process.
#pragma once

#include <atomic>
#include <chrono>

#include "event/Event.h"

// One for each kind of work, of the whole process. When the work before had to wait, others get the lead
// first, until it was quick again: nobody can tell beforehand, but one wait seldom comes alone.
class QuickWork {
 public:
  template <class Work>
  auto run(Work work) {
    if (waited()) event_release_lead();
    const auto start = std::chrono::steady_clock::now();
    const auto result = work();
    waited_.store(std::chrono::steady_clock::now() - start > kQuick, std::memory_order_relaxed);
    return result;
  }

  // Whether the work before had to wait.
  bool waited() const { return waited_.load(std::memory_order_relaxed); }

 private:
  // Some twenty requests are answered in that time.
  static constexpr std::chrono::microseconds kQuick{500};

  std::atomic<bool> waited_{false};
};
