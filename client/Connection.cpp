#include "client/Connection.h"

#include <google/protobuf/message.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>
#include <random>
#include <thread>

namespace velder_client {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The daemon's queue of connections not yet accepted is short. When it is full the kernel drops our
// request and repeats it only after a second, then three, then seven; a new attempt gets through sooner.
// The slices double, so that a slow network is given the time it needs, up to what the kernel itself waits.
constexpr milliseconds kFirstSlice{100};
constexpr milliseconds kLongestSlice{1000};
// Clients that were turned away together must not come back together, or the queue overflows again.
milliseconds spread(milliseconds slice) {
  std::random_device random;
  return milliseconds(
      std::uniform_int_distribution<milliseconds::rep>(slice.count() / 2, slice.count() * 3 / 2)(random));
}

// Between rounds in which every attempt failed at once.
constexpr milliseconds kPause{10};

// Waits until the socket is ready (also with an error, which the next call on it tells) or the deadline has
// passed; false for the latter.
bool wait_ready(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    // Asked before poll: a peer that sends byte by byte is ready every time and would never be late.
    if (left.count() <= 0) return false;
    const auto limit = milliseconds(std::numeric_limits<int>::max());
    pollfd item{fd, events, 0};
    const int ready = poll(&item, 1, static_cast<int>(std::min(left, limit).count()));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return true;
  }
}

bool worth_another_round(ErrorKind kind, const Options& options) {
  return kind == ErrorKind::kConnectAborted || (kind == ErrorKind::kRefused && options.wait_for_listener);
}

// One address under trial.
struct Candidate {
  const SocketAddress* address;
  std::optional<Error> failure;  // set: not tried again
};

// One attempt that ends by `slice_end`. kConnectAborted: undecided, or the daemon's queue was full.
Result<UniqueFd> attempt(const SocketAddress& address, Clock::time_point slice_end) {
  Result<UniqueFd> fd = start_connect(address);
  if (!fd) return fd;
  if (!wait_ready(fd->get(), POLLOUT, slice_end)) {
    return fail(ErrorKind::kConnectAborted, "no answer yet from " + address.text());
  }
  const Result<void> outcome = finish_connect(fd->get(), address);
  if (!outcome) return tl::make_unexpected(outcome.error());
  return fd;
}

// Every address failed for good. One that refused says most: the machine is there, the daemon is not.
tl::unexpected<Error> all_failed(const std::vector<Candidate>& candidates) {
  Error error = *candidates.front().failure;
  for (size_t i = 1; i < candidates.size(); ++i) {
    const Error& other = *candidates[i].failure;
    if (other.kind == ErrorKind::kRefused) error.kind = other.kind;
    error.text += "; " + other.text;
  }
  return tl::make_unexpected(std::move(error));
}

Result<UniqueFd> connect_any(const std::vector<SocketAddress>& addresses, const Options& options) {
  const Clock::time_point deadline = Clock::now() + options.connect_timeout;
  std::vector<Candidate> candidates;
  candidates.reserve(addresses.size());
  for (const SocketAddress& address : addresses) candidates.push_back({&address, std::nullopt});
  bool refused = false;  // in any round: the deadline may cut the last one short
  for (milliseconds slice = kFirstSlice;; slice = std::min(2 * slice, kLongestSlice)) {
    bool again = false;
    const Clock::time_point round_start = Clock::now();
    for (Candidate& candidate : candidates) {
      if (candidate.failure) continue;
      Result<UniqueFd> fd = attempt(*candidate.address, std::min(Clock::now() + spread(slice), deadline));
      if (fd) return fd;
      if (worth_another_round(fd.error().kind, options)) {
        again = true;
        refused = refused || fd.error().kind == ErrorKind::kRefused;
      } else {
        candidate.failure = std::move(fd.error());
      }
    }
    if (!again) return all_failed(candidates);
    if (Clock::now() + kPause >= deadline) {
      std::string text = refused ? "nothing listened on " : "no connection to ";
      text.append(addresses.front().text()).append(" within ");
      text.append(std::to_string(options.connect_timeout.count())).append(" ms");
      return fail(refused ? ErrorKind::kRefused : ErrorKind::kConnectTimeout, std::move(text));
    }
    if (Clock::now() - round_start < kPause) {
      std::this_thread::sleep_for(kPause);
      slice = kFirstSlice / 2;  // nothing was waited for, so the network has not shown itself slow
    }
  }
}

}  // namespace

Connection::Connection(UniqueFd fd, const Options& options)
    : fd_(std::move(fd)), options_(options), reader_(options.max_answer_body) {}

Result<Connection> Connection::open(std::string_view server, const Options& options) {
  const Result<Server> parsed = parse_server(server);
  if (!parsed) return tl::make_unexpected(parsed.error());
  const Result<std::vector<SocketAddress>> addresses = resolve(*parsed);
  if (!addresses) return tl::make_unexpected(addresses.error());
  return open(*addresses, options);
}

Result<Connection> Connection::open(const std::vector<SocketAddress>& addresses, const Options& options) {
  if (addresses.empty()) return fail(ErrorKind::kInvalidAddress, "no address to connect to");
  Result<UniqueFd> fd = connect_any(addresses, options);
  if (!fd) return tl::make_unexpected(std::move(fd.error()));
  return Connection(std::move(*fd), options);
}

tl::unexpected<Error> Connection::close_with(Error error) {
  close();
  return tl::make_unexpected(std::move(error));
}

Result<void> Connection::call(int32_t type, const google::protobuf::Message& request,
                              google::protobuf::Message& answer) {
  const Deadline deadline = call_deadline();
  std::string frame;
  if (Result<void> encoded = encode_request(type, request, frame); !encoded) return encoded;
  Result<void> sent = send_bytes(frame, deadline);
  wipe(frame);
  if (!sent) return sent;

  const Result<RawAnswer> raw = receive_frame(deadline);
  if (!raw) return tl::make_unexpected(raw.error());
  if (raw->type != answer_type(type)) {
    return close_with({ErrorKind::kMalformedAnswer, "malformed answer: type " + std::to_string(raw->type) +
                                                        " where " + std::to_string(answer_type(type)) +
                                                        " was due"});
  }
  if (Result<void> parsed = parse_answer(raw->body, answer); !parsed) return close_with(parsed.error());
  return {};
}

Result<void> Connection::send_bytes(std::string_view bytes, Deadline deadline) {
  if (!is_open()) return fail(ErrorKind::kNotOpen, "the connection is not open");
  while (!bytes.empty()) {
    const ssize_t sent = send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<size_t>(sent));
      continue;
    }
    const int error_number = errno;
    if (error_number == EINTR) continue;
    if (error_number != EAGAIN && error_number != EWOULDBLOCK) {
      return close_with(
          {ErrorKind::kClosedWithoutAnswer,
           system_text("the daemon closed the connection before it took the request", error_number)});
    }
    if (!wait_ready(fd_.get(), POLLOUT, deadline)) {
      return close_with({ErrorKind::kAnswerTimeout, "the daemon did not take the whole request in time"});
    }
  }
  return {};
}

Result<Connection::RawAnswer> Connection::receive_frame(Deadline deadline) {
  if (!is_open()) return fail(ErrorKind::kNotOpen, "the connection is not open");
  reader_.clear();
  for (;;) {
    const Result<FrameReader::Progress> progress = reader_.receive(fd_.get());
    if (!progress) return close_with(progress.error());
    if (*progress == FrameReader::Progress::kComplete) return RawAnswer{reader_.type(), reader_.body()};
    if (!wait_ready(fd_.get(), POLLIN, deadline)) {
      return close_with({ErrorKind::kAnswerTimeout, reader_.empty() ? "the daemon did not answer in time"
                                                                    : "the answer was not complete in time"});
    }
  }
}

}  // namespace velder_client
