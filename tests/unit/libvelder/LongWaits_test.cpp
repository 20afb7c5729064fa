#include "libvelder/LongWaits.h"

#include <gtest/gtest.h>

#include <barrier>
#include <thread>
#include <vector>

namespace {

using velder::LongWait;

// Since when a wait that has had its free time lasts.
std::chrono::steady_clock::time_point overdue() {
  return std::chrono::steady_clock::now() - LongWait::kFree;
}

TEST(LongWaits, HalfOfTheRequestThreadsMayGoOnAndPlacesComeBack) {
  constexpr int kThreads = 10;
  std::barrier together(kThreads);
  std::atomic<int> first{0}, second{0}, late_comers{0};
  std::vector<std::jthread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (int twice = 0; twice < 2; ++twice) velder::count_request_thread();
      together.arrive_and_wait();
      {
        LongWait wait(overdue());
        together.arrive_and_wait();
        if (wait.may_go_on()) {
          ++first;
          if (LongWait(overdue()).may_go_on() && wait.may_go_on()) ++second;  // inside: the same place
        }
        together.arrive_and_wait();
      }
      together.arrive_and_wait();
      if (i < kThreads / 2 && LongWait(overdue()).may_go_on()) ++late_comers;
      together.arrive_and_wait();
    });
  }
  threads.clear();
  EXPECT_EQ(first, kThreads / 2);
  EXPECT_EQ(second, kThreads / 2);
  EXPECT_EQ(late_comers, kThreads / 2);
}

}  // namespace
