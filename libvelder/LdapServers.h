// What one process keeps to ask the directory servers: a pool for each domain, and the memories that protect
// the servers and the accounts there.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string_view>

#include "libvelder/BindCheck.h"
#include "libvelder/LiveSearch.h"
#include "libvelder/Settings.h"
#include "libvelder/UnknownNames.h"

namespace velder {

// All calls from any thread at once. Whoever asks holds a reference, so that a reload can put another one in
// its place at any time.
class LdapServers {
 public:
  // Goes on with those pools of `before` (may be null) whose domain has not changed, and with its refused
  // passwords: a reload must not let a client that repeats a wrong one lock the account.
  LdapServers(const Settings& settings, const LdapServers* before);

  const Settings& settings() const { return settings_; }
  const ServerPools& pools() const { return pools_; }
  BindCheck& bind_check() const { return *bind_check_; }
  UnknownNames& unknown_names() const { return unknown_names_; }

  // One line for the log, and no more than one in kComplainEvery: a domain that is down fails every question.
  void complain(const Error& error) const;
  static constexpr std::chrono::seconds kComplainEvery{10};

 private:
  const Settings settings_;
  ServerPools pools_;
  std::shared_ptr<BindCheck> bind_check_;
  mutable UnknownNames unknown_names_;
  mutable std::mutex mutex_;  // guards the two below
  mutable std::chrono::steady_clock::time_point complained_at_;
  mutable unsigned held_back_ = 0;
};

}  // namespace velder
