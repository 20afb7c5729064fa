// Many connections driven by one thread, in a closed loop (each asks its next question when it was answered)
// or at a fixed pace (questions are due at fixed times, whatever happened to those before).
//
// A connection is silent (nothing asked), waiting for an answer, or lost. At most one question is under way
// on it, and every answer is compared with the expected bytes.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "bench/Workload.h"
#include "client/Address.h"
#include "daemonbase/UniqueFd.h"

namespace bench {

using Clock = std::chrono::steady_clock;

struct Tally {
  std::vector<uint32_t> latencies;  // nanoseconds, of the answers within the measured time
  uint64_t wrong = 0;               // other bytes than expected; the connection is lost
  uint64_t unanswered = 0;          // closed by the server, or silent until patience ended
  // Of a paced run:
  std::vector<uint32_t> delays;  // nanoseconds by which the generator itself sent late
  uint64_t overdue = 0;          // never sent; their latencies are those that they had reached at least
};

struct Span {
  Clock::time_point start;
  Clock::time_point measured_from;
  Clock::time_point end;
};

class Crowd {
 public:
  // `workload` is shared and outlives the crowd; `offset` is where this one starts in the schedule.
  Crowd(const Workload& workload, const velder_client::SocketAddress& server, size_t offset);

  // Both open connections a few at a time, each proven by one question that was answered rightly; a
  // connection that the server's short queue dropped is tried again. The idle ones then stay silent.
  velder_client::Result<void> open_active(size_t count) { return open(count, active_); }
  velder_client::Result<void> open_idle(size_t count) { return open(count, idle_); }

  // Keeps `at_once` of the active connections asking (the longest silent first) until the end, then waits
  // for what is under way.
  void run(const Span& span, size_t at_once);

  // Has a question due every `interval`, from `phase` after the start to the end, and puts each to the
  // longest silent connection; when none is silent, it and those behind it wait. Latencies count from when a
  // question was due, so a stall of the server shows in every question that fell due meanwhile. `spin`: never
  // sleeps, for a processor of its own.
  void run_paced(const Span& span, Clock::duration interval, Clock::duration phase, bool spin);

  // Asks on every idle connection once more; those that do not answer count as unanswered.
  void prove_idle();

  const Tally& tally() const { return tally_; }

 private:
  struct Peer {
    UniqueFd fd;
    const Exchange* asked = nullptr;  // null: silent or lost
    size_t got = 0;
    Clock::time_point asked_at;  // paced: when the question was due
    Clock::time_point silent_since;
  };
  using Peers = std::vector<std::unique_ptr<Peer>>;

  velder_client::Result<void> open(size_t count, Peers& peers);
  Peers connect_batch(size_t count);
  void prove(const Peers& batch);
  void ask(Peer& peer, Clock::time_point now);
  void begin(const Span& span);
  void end();
  Peer& longest_silent();
  void ask_due();
  void give_up_due();
  void pump(std::chrono::nanoseconds most);
  void take_answer(Peer& peer);
  void answered(Peer& peer);
  void record(Clock::duration latency);
  void lose(Peer& peer, uint64_t& counter);
  void drain();

  const Workload& workload_;
  const velder_client::SocketAddress server_;
  size_t position_;
  UniqueFd epoll_;
  Peers active_;
  Peers idle_;
  std::deque<Peer*> silent_;  // of the active ones, while running
  size_t under_way_ = 0;
  bool running_ = false;  // in a closed loop
  bool paced_ = false;
  Clock::time_point due_;  // paced: the next question
  Clock::duration interval_{};
  Span span_{};
  std::vector<char> buffer_;
  Tally tally_;
};

}  // namespace bench
