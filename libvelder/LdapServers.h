// What one process keeps to ask the directory servers: a pool for each domain, and the memories that protect
// the servers and the accounts there.
#pragma once

#include <memory>
#include <string_view>

#include "libvelder/BindCheck.h"
#include "libvelder/LineLimit.h"
#include "libvelder/LiveSearch.h"
#include "libvelder/LongWork.h"
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

  // Closes the connections of those pools that nobody goes on with.
  ~LdapServers() { before_long_work(); }
  LdapServers(const LdapServers&) = delete;
  LdapServers& operator=(const LdapServers&) = delete;

  const Settings& settings() const { return settings_; }
  const ServerPools& pools() const { return pools_; }
  BindCheck& bind_check() const { return *bind_check_; }
  UnknownNames& unknown_names() const { return unknown_names_; }

  // One line for the log, now and then: a domain that is down fails every question.
  void complain(const Error& error) const;

 private:
  const Settings settings_;
  ServerPools pools_;
  std::shared_ptr<BindCheck> bind_check_;
  mutable UnknownNames unknown_names_;
  mutable LineLimit complaints_{1};
};

}  // namespace velder
