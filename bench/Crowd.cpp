#include "bench/Crowd.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "client/RawFrames.h"

namespace bench {
namespace {

using std::chrono::milliseconds;
using velder_client::ErrorKind;
using velder_client::fail;
using velder_client::Result;

// The daemon's queue of connections not yet accepted holds ten.
constexpr size_t kBatch = 8;
constexpr milliseconds kConnectPatience{2000};
constexpr milliseconds kAnswerPatience{3000};
constexpr std::chrono::seconds kLongestLatency{4};  // what fits the tally
constexpr int kFruitlessBatches = 3;
constexpr milliseconds kLongestWait{100};
constexpr size_t kBufferBytes = 65536;
constexpr size_t kEventsAtOnce = 256;
constexpr size_t kExpectedRate = 300'000;  // answers a second for which latencies find room beforehand

uint32_t nanoseconds_in_tally(Clock::duration time) {
  return static_cast<uint32_t>(std::min<std::chrono::nanoseconds>(time, kLongestLatency).count());
}

bool connected(int fd, const velder_client::SocketAddress& server) {
  pollfd item{fd, POLLOUT, 0};
  return poll(&item, 1, static_cast<int>(kConnectPatience.count())) == 1 &&
         velder_client::finish_connect(fd, server).has_value();
}

}  // namespace

Crowd::Crowd(const Workload& workload, const velder_client::SocketAddress& server, size_t offset)
    : workload_(workload),
      server_(server),
      position_(offset % workload.schedule.size()),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      buffer_(kBufferBytes) {}

Result<void> Crowd::open(size_t count, Peers& peers) {
  peers.reserve(count);
  for (int fruitless = 0; peers.size() < count;) {
    Peers batch = connect_batch(std::min(kBatch, count - peers.size()));
    prove(batch);
    if (tally_.wrong > 0) return fail(ErrorKind::kMalformedAnswer, "wrong answer on a new connection");
    const size_t before = peers.size();
    for (auto& peer : batch) {
      if (peer->fd.valid()) peers.push_back(std::move(peer));
    }
    fruitless = peers.size() > before ? 0 : fruitless + 1;
    if (fruitless == kFruitlessBatches) {
      return fail(ErrorKind::kUnreachable, "no further connection after " + std::to_string(before));
    }
  }
  return {};
}

Crowd::Peers Crowd::connect_batch(size_t count) {
  Peers batch;
  for (size_t i = 0; i < count; ++i) {
    Result<UniqueFd> fd = velder_client::start_connect(server_);
    if (!fd || !connected(fd->get(), server_)) continue;
    batch.push_back(std::make_unique<Peer>());
    Peer& peer = *batch.back();
    peer.fd = std::move(*fd);
    epoll_event request{};
    request.events = EPOLLIN;
    request.data.ptr = &peer;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, peer.fd.get(), &request) != 0) batch.pop_back();
  }
  return batch;
}

void Crowd::prove(const Peers& batch) {
  for (const auto& peer : batch) ask(*peer, Clock::now());
  drain();
  for (const auto& peer : batch) {
    if (peer->asked != nullptr) lose(*peer, tally_.unanswered);
    if (!peer->fd.valid() && tally_.wrong == 0) --tally_.unanswered;  // is tried again
  }
}

void Crowd::ask(Peer& peer, Clock::time_point now) {
  if (!peer.fd.valid()) return;
  const Exchange& exchange = workload_.exchanges[workload_.schedule[position_]];
  if (++position_ == workload_.schedule.size()) position_ = 0;
  peer.asked = &exchange;
  peer.got = 0;
  peer.asked_at = now;
  ++under_way_;
  // A socket without anything under way takes a small request whole.
  const ssize_t sent = send(peer.fd.get(), exchange.request.data(), exchange.request.size(), MSG_NOSIGNAL);
  if (sent != static_cast<ssize_t>(exchange.request.size())) lose(peer, tally_.unanswered);
}

void Crowd::lose(Peer& peer, uint64_t& counter) {
  ++counter;
  if (peer.asked != nullptr) --under_way_;
  peer.asked = nullptr;
  peer.fd.reset();
}

void Crowd::pump(std::chrono::nanoseconds most) {
  std::array<epoll_event, kEventsAtOnce> events;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(most);
  const timespec wait{seconds.count(), (most - seconds).count()};
  const int count =
      epoll_pwait2(epoll_.get(), events.data(), static_cast<int>(events.size()), &wait, nullptr);
  for (int i = 0; i < count; ++i) take_answer(*static_cast<Peer*>(events[static_cast<size_t>(i)].data.ptr));
}

void Crowd::take_answer(Peer& peer) {
  if (!peer.fd.valid()) return;
  const ssize_t size = recv(peer.fd.get(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size < 1) return lose(peer, tally_.unanswered);
  const auto got = static_cast<size_t>(size);
  if (peer.asked == nullptr || got > peer.asked->answer.size() - peer.got ||
      std::memcmp(buffer_.data(), peer.asked->answer.data() + peer.got, got) != 0) {
    return lose(peer, tally_.wrong);
  }
  peer.got += got;
  if (peer.got == peer.asked->answer.size()) answered(peer);
}

void Crowd::answered(Peer& peer) {
  --under_way_;
  peer.asked = nullptr;
  if (!running_ && !paced_) return;
  const Clock::time_point now = Clock::now();
  if (paced_) {
    if (peer.asked_at >= span_.measured_from) record(now - peer.asked_at);
    peer.silent_since = now;
    silent_.push_back(&peer);
    return;
  }
  if (now >= span_.end) {
    running_ = false;
    return;
  }
  if (now >= span_.measured_from) record(now - peer.asked_at);
  silent_.push_back(&peer);
  ask(longest_silent(), now);
}

void Crowd::record(Clock::duration latency) {
  tally_.latencies.push_back(nanoseconds_in_tally(latency));
}

Crowd::Peer& Crowd::longest_silent() {
  Peer& peer = *silent_.front();
  silent_.pop_front();
  return peer;
}

void Crowd::begin(const Span& span) {
  span_ = span;
  const auto seconds = std::chrono::duration<double>(span.end - span.measured_from).count();
  tally_.latencies.reserve(static_cast<size_t>(seconds * static_cast<double>(kExpectedRate)));
  silent_.clear();
  for (const auto& peer : active_) silent_.push_back(peer.get());
}

void Crowd::end() {
  drain();
  for (const auto& peer : active_) {
    if (peer->asked != nullptr) lose(*peer, tally_.unanswered);
  }
}

void Crowd::run(const Span& span, size_t at_once) {
  begin(span);
  running_ = true;
  for (size_t i = 0; i < at_once && !silent_.empty(); ++i) ask(longest_silent(), Clock::now());
  while (running_ && Clock::now() < span.end) pump(kLongestWait);
  running_ = false;
  end();
}

void Crowd::run_paced(const Span& span, Clock::duration interval, Clock::duration phase, bool spin) {
  // Else the kernel lets a sleeper lie up to 50 us longer, as long as one interval at 20,000 a second.
  prctl(PR_SET_TIMERSLACK, 1);
  begin(span);
  tally_.delays.reserve(tally_.latencies.capacity());
  interval_ = interval;
  due_ = span.start + phase;
  paced_ = true;
  const auto anybody = [this] { return !silent_.empty() || under_way_ > 0; };
  while (due_ < span.end && anybody() && Clock::now() < span.end + kAnswerPatience) {
    ask_due();
    const auto pause = std::max<Clock::duration>(due_ - Clock::now(), {});
    pump(spin ? Clock::duration{} : silent_.empty() ? kLongestWait : pause);
  }
  give_up_due();
  end();
  paced_ = false;
}

void Crowd::ask_due() {
  for (Clock::time_point now = Clock::now(); due_ <= now && due_ < span_.end && !silent_.empty();) {
    Peer& peer = longest_silent();
    if (!peer.fd.valid()) continue;
    ask(peer, now);
    peer.asked_at = due_;
    // What the server made a question wait for a silent connection is not the generator's delay.
    if (due_ >= span_.measured_from) {
      tally_.delays.push_back(nanoseconds_in_tally(now - std::max(due_, peer.silent_since)));
    }
    due_ += interval_;
    now = Clock::now();
  }
}

void Crowd::give_up_due() {
  for (const Clock::time_point now = Clock::now(); due_ < span_.end; due_ += interval_) {
    if (due_ < span_.measured_from) continue;
    record(now - due_);
    ++tally_.overdue;
  }
}

void Crowd::drain() {
  const Clock::time_point deadline = Clock::now() + kAnswerPatience;
  while (under_way_ > 0 && Clock::now() < deadline) pump(kLongestWait);
}

void Crowd::prove_idle() {
  // As few at once as when they were opened: this is a check, not a load.
  for (size_t i = 0; i < idle_.size(); i += kBatch) {
    for (size_t j = i; j < std::min(i + kBatch, idle_.size()); ++j) {
      ask(*idle_[j], Clock::now());
    }
    drain();
    if (under_way_ > 0) break;  // a stalled server is bad enough; the others would only take long
  }
  for (const auto& peer : idle_) {
    if (peer->asked != nullptr) lose(*peer, tally_.unanswered);
  }
}

}  // namespace bench
