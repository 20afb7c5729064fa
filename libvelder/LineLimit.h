// Keeps a kind of line from filling the log.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <utility>

namespace velder {

// Lets `most` lines through in any kEvery, and counts the others. All calls from any thread.
class LineLimit {
 public:
  static constexpr std::chrono::seconds kEvery{10};

  explicit LineLimit(unsigned most) : most_(most) {}

  // False: the line is to be left out. `remark` is what the line is to end with: how many were left out since
  // the last one, or nothing.
  bool lets_through(std::string& remark) {
    const auto now = std::chrono::steady_clock::now();
    const std::lock_guard lock(mutex_);
    if (lines_ == 0 || now - began_ >= kEvery) {
      began_ = now;
      lines_ = 0;
    }
    if (lines_ == most_) {
      ++left_out_;
      return false;
    }
    ++lines_;
    const unsigned left_out = std::exchange(left_out_, 0);
    if (left_out != 0) remark = " (and " + std::to_string(left_out) + " more since the last such line)";
    return true;
  }

 private:
  const unsigned most_;
  std::mutex mutex_;  // guards the rest
  std::chrono::steady_clock::time_point began_;
  unsigned lines_ = 0;
  unsigned left_out_ = 0;
};

}  // namespace velder
