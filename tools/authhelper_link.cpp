#include "tools/authhelper_link.h"

#include <google/protobuf/message.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

namespace authhelper {
namespace {

using google::protobuf::Message;
using velder_client::Connection;
using velder_client::ErrorKind;

// A daemon on another machine can vanish without a word. The system finds out within about a minute and a
// half and makes the idle connection readable, which is_usable() sees.
void watch_idle_peer(int fd) {
  const struct {
    int level, option, value;
  } settings[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                  {IPPROTO_TCP, TCP_KEEPIDLE, 60},
                  {IPPROTO_TCP, TCP_KEEPINTVL, 10},
                  {IPPROTO_TCP, TCP_KEEPCNT, 3}};
  for (const auto& one : settings) {
    (void)setsockopt(fd, one.level, one.option, &one.value, sizeof(one.value));
  }
}

}  // namespace

bool Backoff::may_try(Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  return delay_.count() == 0 || now >= next_;
}

void Backoff::failed(Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  delay_ = std::clamp(2 * delay_, kFirst, kLongest);
  next_ = now + delay_;
}

void Backoff::succeeded() {
  const std::lock_guard lock(mutex_);
  delay_ = delay_.zero();
}

void LostUsers::add(std::string_view user, Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  forget_old(now);
  users_.emplace_back(now, user);
}

bool LostUsers::contains(std::string_view user, Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  forget_old(now);
  return std::any_of(users_.begin(), users_.end(), [&](const auto& one) { return one.second == user; });
}

void LostUsers::forget_old(Clock::time_point now) {
  while (!users_.empty() && now - users_.front().first >= kKept) users_.pop_front();
}

DaemonLink::Outcome DaemonLink::ask(int32_t type, const Message& request, Message& answer, Repeat repeat) {
  ErrorKind kind{};
  if (!is_usable()) {
    return connect() ? call(type, request, answer, &kind, false) : Outcome::kNotAsked;
  }
  const bool may_repeat = repeat == Repeat::kOnce;
  const Outcome outcome = call(type, request, answer, &kind, may_repeat);
  // The daemon may have ended between our look at the connection and the request.
  if (outcome == Outcome::kAnswered || !may_repeat || kind != ErrorKind::kClosedWithoutAnswer) return outcome;
  answer.Clear();
  return connect() ? call(type, request, answer, &kind, false) : outcome;
}

DaemonLink::Outcome DaemonLink::ask_on_same(int32_t type, const Message& request, Message& answer) {
  ErrorKind kind{};
  return connection_ ? call(type, request, answer, &kind, false) : Outcome::kNotAsked;
}

// An idle connection has nothing to read. What is readable has ended, or holds an answer to nothing.
bool DaemonLink::is_usable() const {
  if (!connection_) return false;
  pollfd item{connection_->fd(), POLLIN, 0};
  return poll(&item, 1, 0) == 0;
}

bool DaemonLink::connect() {
  connection_.reset();
  if (!backoff_.may_try(Backoff::Clock::now())) return false;
  auto opened = Connection::open(settings_.server, settings_.options);
  if (!opened) {
    backoff_.failed(Backoff::Clock::now());
    complaints_.tell(Topic::kDaemonAway, opened.error().text);
    return false;
  }
  backoff_.succeeded();
  watch_idle_peer(opened->fd());
  connection_.emplace(std::move(*opened));
  return true;
}

// `quiet`: a connection that closes without an answer is not told, because the caller tries another.
DaemonLink::Outcome DaemonLink::call(int32_t type, const Message& request, Message& answer, ErrorKind* kind,
                                     bool quiet) {
  const auto called = connection_->call(type, request, answer);
  if (called) {
    complaints_.settle(Topic::kDaemonAway, "the daemon answers again");
    return Outcome::kAnswered;
  }
  *kind = called.error().kind;
  connection_.reset();
  if (quiet && *kind == ErrorKind::kClosedWithoutAnswer) return Outcome::kLost;
  const bool is_malformed = *kind == ErrorKind::kMalformedAnswer || *kind == ErrorKind::kInvalidRequest;
  complaints_.tell(is_malformed ? Topic::kBadAnswer : Topic::kDaemonAway, called.error().text);
  return Outcome::kLost;
}

}  // namespace authhelper
