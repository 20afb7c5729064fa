// Keeps clients that ask for names which do not exist from passing all of their questions on to the
// directory servers.
//
// A name that no server knew is remembered for a short time: long enough to stop a client that repeats it,
// short enough for a user who has just been created. And only a few such questions are under way at once:
// the next ones wait a moment for their turn, and not at all when those under way are stuck.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace velder {

// All calls from any thread at once. Each process has its own.
class UnknownNames {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  using Clock = std::function<TimePoint()>;

  static constexpr std::chrono::seconds kLifetime{10};
  static constexpr size_t kMostNames = 10'000;
  static constexpr size_t kMostQuestions = 4;
  static constexpr std::chrono::milliseconds kPatience{200};
  // A question that has taken longer is not waited for: its server is slow or silent.
  static constexpr std::chrono::milliseconds kStuck{500};

  explicit UnknownNames(size_t most_names = kMostNames, Clock clock = std::chrono::steady_clock::now)
      : most_names_(most_names), clock_(std::move(clock)) {}

  // Beyond so many names the oldest is forgotten.
  void remember(const std::string& name);
  bool knows(const std::string& name);

  // The turn to ask one question; ends with the object.
  class Turn {
   public:
    explicit Turn(UnknownNames& names) : names_(names), place_(names.take_turn()) {}
    ~Turn() {
      if (place_) names_.give_turn_back(*place_);
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    bool granted() const { return place_.has_value(); }

   private:
    UnknownNames& names_;
    std::optional<size_t> place_;
  };

 private:
  std::optional<size_t> take_turn();
  void give_turn_back(size_t place);
  void forget_old(TimePoint now);

  const size_t most_names_;
  const Clock clock_;
  std::mutex mutex_;  // guards all below
  std::condition_variable turn_free_;
  std::array<std::optional<TimePoint>, kMostQuestions> begun_;  // of those under way
  std::unordered_map<std::string, TimePoint> until_;
  std::deque<const std::string*> order_;  // keys of until_, the first to be forgotten in front
};

}  // namespace velder
