#include "libvelder/UnknownNames.h"

#include <algorithm>

namespace velder {

void UnknownNames::forget_old(TimePoint now) {
  while (!order_.empty() && (order_.size() > most_names_ || until_.find(*order_.front())->second <= now)) {
    until_.erase(until_.find(*order_.front()));
    order_.pop_front();
  }
}

// A name that is remembered already keeps its time, so that it is asked for again however often it comes.
void UnknownNames::remember(const std::string& name) {
  const TimePoint now = clock_();
  const std::lock_guard lock(mutex_);
  forget_old(now);
  const auto [place, added] = until_.emplace(name, now + kLifetime);
  if (!added) return;
  order_.push_back(&place->first);
  forget_old(now);
}

bool UnknownNames::knows(const std::string& name) {
  const TimePoint now = clock_();
  const std::lock_guard lock(mutex_);
  forget_old(now);
  return until_.contains(name);
}

std::optional<size_t> UnknownNames::take_turn() {
  std::unique_lock lock(mutex_);
  const auto find_free = [&] {
    return std::find_if(begun_.begin(), begun_.end(), [](const auto& begun) { return !begun.has_value(); });
  };
  auto place = find_free();
  if (place == begun_.end()) {
    const TimePoint now = clock_();
    const bool stuck =
        std::all_of(begun_.begin(), begun_.end(), [&](const auto& begun) { return now - *begun > kStuck; });
    if (stuck) return std::nullopt;
    turn_free_.wait_for(lock, kPatience, [&] { return (place = find_free()) != begun_.end(); });
    if (place == begun_.end()) return std::nullopt;
  }
  *place = clock_();
  return static_cast<size_t>(place - begun_.begin());
}

void UnknownNames::give_turn_back(size_t place) {
  {
    const std::lock_guard lock(mutex_);
    begun_[place].reset();
  }
  turn_free_.notify_one();
}

}  // namespace velder
