// The prober of the process: one thread for all pools, there only while a server is aside.
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <utility>

#include "brellog/VrLog.h"
#include "libvelder/BackgroundThread.h"
#include "libvelder/ServerPoolInternal.h"

namespace velder {
namespace {

using State = ServerPool::State;

// Lives as long as the process: its thread may be at work when the process ends.
// Lock order: `mutex` of a state before that of the prober. The prober's thread asks the states without its
// own.
class Prober {
 public:
  explicit Prober(pid_t owner) : owner_(owner) {}

  pid_t owner() const { return owner_; }

  void wake(const std::shared_ptr<State>& state) {
    const std::lock_guard lock(mutex_);
    const bool known =
        std::any_of(states_.begin(), states_.end(), [&](const auto& one) { return one.lock() == state; });
    if (!known) states_.push_back(state);
    woken_ = true;
    wake_.notify_one();
    if (running_) return;
    running_ = start_background_thread([this] { run(); });
    if (!running_) VRLOG(kLogError, "no thread to probe servers that were put aside");
  }

 private:
  using Time = State::Time;

  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      woken_ = false;
      auto states = live_states();
      lock.unlock();
      const auto next = probe_what_is_due(states);
      states.clear();
      lock.lock();
      if (woken_) continue;
      if (!next) {
        states_.clear();
        running_ = false;
        return;
      }
      wake_.wait_until(lock, *next, [&] { return woken_; });
    }
  }

  std::vector<std::shared_ptr<State>> live_states() {
    std::vector<std::shared_ptr<State>> live;
    for (const auto& one : states_)
      if (auto state = one.lock()) live.push_back(std::move(state));
    states_.assign(live.begin(), live.end());
    return live;
  }

  // When the next probe is due; nothing when there is no server aside.
  static std::optional<Time> probe_what_is_due(const std::vector<std::shared_ptr<State>>& states) {
    std::optional<Time> next;
    for (const auto& state : states) {
      state->probe_due();
      const auto due = state->next_probe_time();
      if (due && (!next || *due < *next)) next = due;
    }
    return next;
  }

  const pid_t owner_;
  std::mutex mutex_;  // guards what follows
  std::condition_variable wake_;
  std::vector<std::weak_ptr<State>> states_;
  bool woken_ = false;
  bool running_ = false;
};

// A child of a fork gets a prober of its own; the inherited one has no thread there.
Prober& prober() {
  static std::atomic<Prober*> current{nullptr};
  Prober* seen = current.load(std::memory_order_acquire);
  if (seen != nullptr && seen->owner() == getpid()) return *seen;
  auto fresh = std::make_unique<Prober>(getpid());
  if (current.compare_exchange_strong(seen, fresh.get(), std::memory_order_acq_rel)) return *fresh.release();
  return *seen;
}

}  // namespace

void wake_prober(const std::shared_ptr<ServerPool::State>& state) {
  prober().wake(state);
}

std::optional<ServerPool::State::Time> ServerPool::State::next_probe_time() {
  const std::lock_guard lock(mutex);
  std::optional<Time> next;
  if (closed) return next;
  for (const Server& server : servers)
    if (server.aside && (!next || server.next_probe < *next)) next = server.next_probe;
  return next;
}

// The server whose probe is overdue longest. Its next one is set now, so that nobody else takes it.
std::optional<ServerPool::State::Attempt> ServerPool::State::claim_probe() {
  const Time now = Clock::now();
  const std::lock_guard lock(mutex);
  Server* chosen = nullptr;
  for (Server& server : servers)
    if (server.aside && server.next_probe <= now &&
        (chosen == nullptr || server.next_probe < chosen->next_probe))
      chosen = &server;
  if (closed || chosen == nullptr) return {};
  chosen->pause = std::min(chosen->pause * 2, kProbeMost);
  chosen->next_probe = now + chosen->pause;
  chosen->last_trial = now;
  return Attempt{static_cast<size_t>(chosen - servers.data()), chosen->returns, now};
}

void ServerPool::State::probe(const Attempt& attempt) {
  auto reader = open_reader(domain.servers[attempt.number]);
  if (reader) {
    give_idle(attempt.number, std::move(*reader));
    put_back(attempt);
    return;
  }
  VRLOG(kLogDebug, "probe: %s", reader.error().text.c_str());
  if (is_at_work(reader.error().code)) {
    put_back(attempt);
  } else {
    put_aside(attempt, reader.error());
  }
}

void ServerPool::State::probe_due() {
  while (const auto attempt = claim_probe()) probe(*attempt);
}

}  // namespace velder
