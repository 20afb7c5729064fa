// The way to the daemon: connects when there is something to ask, notices a connection that died while it was
// idle, and never asks twice what must not be asked twice.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "client/Connection.h"
#include "tools/authhelper_io.h"

namespace authhelper {

// Shared by the connections of one helper. While the daemon is away, requests between two attempts fail at
// once: one whose address does not even refuse would hold each of them for the whole time-out, and a proxy
// whose requests pile up ends itself.
class Backoff {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kFirst{100};
  static constexpr std::chrono::milliseconds kLongest{2000};

  bool may_try(Clock::time_point now);
  void failed(Clock::time_point now);
  void succeeded();

 private:
  std::mutex mutex_;
  std::chrono::milliseconds delay_{0};
  Clock::time_point next_;
};

// Users about whom the daemon was asked a moment ago without an answer; shared like Backoff. The proxy
// repeats a request that got BH, up to twice and at once, and whether the first one made a bind nobody knows.
class LostUsers {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kKept{3};

  void add(std::string_view user, Clock::time_point now);
  bool contains(std::string_view user, Clock::time_point now);

 private:
  void forget_old(Clock::time_point now);

  std::mutex mutex_;
  std::deque<std::pair<Clock::time_point, std::string>> users_;  // the oldest first
};

struct LinkSettings {
  std::string server;
  velder_client::Options options;
};

// One connection, for one thread at a time.
class DaemonLink {
 public:
  enum class Repeat {
    kNever,  // the daemon may have taken the request although no answer came: a second bind of a wrong
             // password brings an account nearer to its lock, a ticket shown twice is refused as a replay
    kOnce,   // questions that change nothing
  };

  enum class Outcome {
    kAnswered,
    kNotAsked,  // there was no connection
    kLost,      // asked, but no answer came
  };

  DaemonLink(const LinkSettings& settings, Backoff& backoff, Complaints& complaints)
      : settings_(settings), backoff_(backoff), complaints_(complaints) {}

  // The reason of every failure has been told.
  Outcome ask(int32_t type, const google::protobuf::Message& request, google::protobuf::Message& answer,
              Repeat repeat);
  // The same, but only on the connection that carried the request before.
  Outcome ask_on_same(int32_t type, const google::protobuf::Message& request,
                      google::protobuf::Message& answer);
  void close() { connection_.reset(); }

 private:
  bool is_usable() const;
  bool connect();
  Outcome call(int32_t type, const google::protobuf::Message& request, google::protobuf::Message& answer,
               velder_client::ErrorKind* kind, bool quiet);

  const LinkSettings& settings_;
  Backoff& backoff_;
  Complaints& complaints_;
  std::optional<velder_client::Connection> connection_;
};

}  // namespace authhelper
