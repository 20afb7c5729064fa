// Proves passwords by binding, without letting clients that repeat a wrong one lock the account.
//
// The passwords of a user that a server has just refused, the last few, are remembered as keyed hashes under
// a random key of this process. The same one again within the time is refused without asking; another one
// goes to the server, so that a corrected password works at once. Only "wrong" is remembered: an account that
// was locked or a server that was silent may be fine a second later.
//
// Threads that bring the same password of the same user at the same moment (a browser opens six connections)
// share one bind and its result.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "libvelder/LdapConnection.h"

namespace velder {

class ServerPool;

// The memory itself. All calls from any thread at once. Each process should have its own.
class RefusedPasswords {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  // `seconds` 0: nothing is remembered. Beyond `most_users` the one refused longest ago is forgotten.
  RefusedPasswords(uint32_t seconds, size_t most_users, Clock clock);
  ~RefusedPasswords();
  RefusedPasswords(const RefusedPasswords&) = delete;
  RefusedPasswords& operator=(const RefusedPasswords&) = delete;

  // `user` is any text that means one user; the password is neither kept nor compared as text.
  bool contains(std::string_view user, std::string_view password);
  void remember(std::string_view user, std::string_view password);
  void forget(std::string_view user);

 private:
  struct Table;
  std::unique_ptr<Table> table_;
};

// All calls from any thread at once. Each process has its own memory.
class BindCheck {
 public:
  using Clock = RefusedPasswords::Clock;
  using Bind = std::function<BindResult(const std::string& dn, std::string_view password)>;

  // Beyond so many users the one refused longest ago is forgotten.
  static constexpr size_t kMostUsers = 10'000;

  // `seconds` 0: nothing is remembered.
  explicit BindCheck(uint32_t seconds, size_t most_users = kMostUsers,
                     Clock clock = std::chrono::steady_clock::now);
  ~BindCheck();
  BindCheck(const BindCheck&) = delete;
  BindCheck& operator=(const BindCheck&) = delete;

  // The verdict on the password of the user with this DN. An empty password is kWrong and never sent. May
  // wait as long as the bind of another thread for the same user and password takes.
  BindResult check(ServerPool& servers, const std::string& dn, std::string_view password);

  // The same with any other way to bind. `domain` keeps apart equal DNs of different domains.
  BindResult check(const Bind& bind, std::string_view domain, const std::string& dn,
                   std::string_view password);

 private:
  struct Flights;
  RefusedPasswords refused_;
  std::unique_ptr<Flights> flights_;
};

}  // namespace velder
