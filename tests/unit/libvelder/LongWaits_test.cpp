#include "libvelder/LongWaits.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <barrier>
#include <memory>
#include <thread>
#include <vector>

namespace {

using std::chrono::steady_clock;
using velder::LongWait;

// A wait that has had its free time.
std::unique_ptr<LongWait> overdue() {
  return std::make_unique<LongWait>(steady_clock::now() - LongWait::kFree);
}

TEST(LongWaits, HalfOfTheRequestThreadsMayGoOnAndPlacesComeBack) {
  constexpr int kThreads = 10;
  std::barrier together(kThreads);
  std::atomic<int> first{0}, second{0}, late_comers{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      velder::count_request_thread();
      velder::count_request_thread();
      together.arrive_and_wait();
      {
        const auto wait = overdue();
        together.arrive_and_wait();
        if (wait->may_go_on()) {
          ++first;
          if (overdue()->may_go_on() && wait->may_go_on()) ++second;  // inside: the same place
        }
        together.arrive_and_wait();
      }
      together.arrive_and_wait();
      if (i < kThreads / 2) {
        if (overdue()->may_go_on()) ++late_comers;
      }
      together.arrive_and_wait();
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(first, kThreads / 2);
  EXPECT_EQ(second, kThreads / 2);
  EXPECT_EQ(late_comers, kThreads / 2);
}

TEST(LongWaits, OtherThreadsAndFreshWaitsAreNotLimited) {
  std::vector<std::unique_ptr<LongWait>> waits;
  for (int i = 0; i < 50; ++i) waits.push_back(overdue());
  for (const auto& one : waits) EXPECT_TRUE(one->may_go_on());
}

// What the parent's threads hold does not count in a child.
TEST(LongWaits, AChildBeginsAnew) {
  std::thread([] {
    velder::count_request_thread();
    const auto held = overdue();
    ASSERT_TRUE(held->may_go_on());
    const pid_t child = fork();
    if (child == 0) {
      velder::count_request_thread();
      _exit(overdue()->may_go_on() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }).join();
}

}  // namespace
