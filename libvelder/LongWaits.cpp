#include "libvelder/LongWaits.h"

#include <unistd.h>

#include <algorithm>

namespace velder {
namespace {

ProcessCount g_request_threads;
ProcessCount g_places_taken;

// Leaves the count when its thread ends.
struct RequestThread {
  pid_t process = 0;  // that it was counted in; 0: in none
  int waits = 0;      // that share its place
  RequestThread() = default;
  RequestThread(const RequestThread&) = delete;
  RequestThread& operator=(const RequestThread&) = delete;
  ~RequestThread() {
    if (process == getpid()) g_request_threads.subtract();
  }
};

RequestThread& this_thread() {
  thread_local RequestThread thread;
  return thread;
}

uint64_t own_process() {
  return static_cast<uint64_t>(getpid()) << 32;
}

uint32_t number_in(uint64_t value) {
  return (value >> 32) == (own_process() >> 32) ? static_cast<uint32_t>(value) : 0;
}

}  // namespace

bool ProcessCount::add(uint32_t most) {
  uint64_t seen = value_.load();
  for (;;) {
    const uint32_t number = number_in(seen);
    if (number >= most) return false;
    if (value_.compare_exchange_weak(seen, own_process() | (number + 1))) return true;
  }
}

void ProcessCount::subtract() {
  value_.fetch_sub(1);
}

uint32_t ProcessCount::get() const {
  return number_in(value_.load());
}

void count_request_thread() {
  RequestThread& thread = this_thread();
  if (thread.process == getpid()) return;
  thread.process = getpid();
  g_request_threads.add(UINT32_MAX);
}

LongWait::~LongWait() {
  if (has_place_ && --this_thread().waits == 0) g_places_taken.subtract();
}

LongWait::LongWait(Time began) : began_(began) {
  if (this_thread().process == getpid()) take_place();
}

bool LongWait::may_go_on() {
  if (has_place_ || std::chrono::steady_clock::now() - began_ < free_) return true;
  if (this_thread().process != getpid()) return true;
  take_place();
  return has_place_;
}

void LongWait::take_place() {
  int& waits = this_thread().waits;
  has_place_ = waits > 0 || g_places_taken.add(std::max(g_request_threads.get() / 2, 1U));
  if (has_place_) ++waits;
}

}  // namespace velder
