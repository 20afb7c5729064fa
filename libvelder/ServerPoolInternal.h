// What the server pool and the prober of the process share: the state of one domain's servers.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "libvelder/BindCheck.h"
#include "libvelder/ServerPool.h"

namespace velder {

// All functions from any thread. `mutex` is never held while a server is asked.
struct ServerPool::State : std::enable_shared_from_this<ServerPool::State> {
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;

  struct IdleConnection {
    LdapConnection connection;
    Time since;
  };
  struct Server {
    std::string url;
    bool aside = false;
    bool failed_fast = false;  // refused or closed, which costs next to nothing to find out again
    uint64_t returns = 0;      // how often it was put back: a failure from before that is old news
    std::chrono::seconds pause = kProbeFirst;  // between the last two probes
    Time last_trial;
    Time next_probe;
    Time last_logged;
    bool aside_logged = false;
    std::vector<IdleConnection> idle;  // the one used last is at the end
  };
  // A server that somebody is about to ask.
  struct Attempt {
    size_t number = 0;
    uint64_t returns = 0;
    Time started;
  };

  State(const Domain& settings, Probes mode);

  // The first server in the order of preference that is not aside and not among those tried already, else one
  // aside whose turn for a trial it is.
  std::optional<Attempt> choose(const std::vector<bool>& tried);
  // The attempt found out that the server does not answer.
  void put_aside(const Attempt& attempt, const Error& error);
  // The attempt had an answer.
  void put_back(const Attempt& attempt);

  Result<void> read_on(const Attempt& attempt, const std::function<Result<void>(LdapConnection&)>& work);
  Result<LdapConnection> open_reader(const std::string& url);
  std::optional<LdapConnection> take_idle(size_t number);
  void give_idle(size_t number, LdapConnection connection);
  void close();

  // For the prober: the time of the next probe, nothing when no server is aside; then the probe itself.
  std::optional<Time> next_probe_time();
  void probe_due();

  const Domain domain;
  const Probes probes;
  RefusedPasswords refused_reader;
  std::mutex mutex;  // guards the two below
  std::vector<Server> servers;
  bool closed = false;

 private:
  std::optional<Attempt> choose_trial(const std::vector<bool>& tried, Time now);
  std::optional<Attempt> claim_probe();
  void probe(const Attempt& attempt);
};

// Whether a server that gives this code to its first request can be asked more, be it that it refuses us.
bool is_at_work(int code);

// Has the prober of this process look at the state soon; starts its thread when there is none.
void wake_prober(const std::shared_ptr<ServerPool::State>& state);

}  // namespace velder
