// The servers of one domain: which one to ask, connections for reading, and what happens when one fails.
//
// Servers are asked in their order of preference. One that fails is put aside and probed in the background
// (first after kProbeFirst, then at doubling intervals up to kProbeMost); a probe that has connected and
// bound as the reading account puts it back into use. A server that answers the probe's bind with a refusal
// is put back as well: it works, and reading will say what is wrong with the account.
//
// While every server of the domain is aside calls fail at once with code 81. Two things shorten that:
// a call then asks for an early probe, and a server that had failed fast (refused, closed) is tried by one
// caller each second. So nobody queues behind a frozen server, and a restarted one is missed for a second.
//
// The probes of all pools share one thread, which exists only while a server is aside, blocks all signals
// and may be running when the process ends by _exit.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "libvelder/Error.h"
#include "libvelder/LdapConnection.h"
#include "libvelder/Settings.h"

namespace velder {

// What an administrator wants to know about one server, in the order in which it is found out.
struct ServerStatus {
  std::string url;
  bool resolved = false;
  bool connected = false;
  bool tls_wanted = false;
  bool tls = false;
  bool bound = false;            // as the reading account, or anonymously without one
  bool account_refused = false;  // the server says that the reading account or its password is wrong
  bool base_found = false;       // BaseDN exists and may be read
  bool users_found = false;      // at least one, as the settings recognise them
  size_t naming_contexts = 0;
  bool offers_paging = false;
  std::string error;  // of the first step that failed; empty: all is well
  std::chrono::milliseconds took{0};

  bool works() const { return error.empty(); }
};

// All calls from any thread at once; no lock is held while a server is asked. After a fork the child starts
// anew: it neither uses nor unbinds a connection that it inherited.
class ServerPool {
 public:
  static constexpr std::chrono::seconds kProbeFirst{5};
  static constexpr std::chrono::seconds kProbeMost{60};
  // An idle connection is given up after this time: well below what servers and firewalls grant.
  static constexpr std::chrono::seconds kIdleMost{60};

  // kNone: no thread is ever started; a server that was put aside is tried again by the caller that comes
  // when its next probe would be due. For programs that end by returning from main, and before a fork.
  enum class Probes { kBackground, kNone };

  explicit ServerPool(const Domain& domain, Probes probes = Probes::kBackground);
  ~ServerPool();  // no call may be under way
  ServerPool(const ServerPool&) = delete;
  ServerPool& operator=(const ServerPool&) = delete;

  // Runs `work` on a connection that is bound as the reading account (anonymous without one) and is nobody
  // else's meanwhile. When it returns 81 or 85 the connection is closed, and `work` is run once more from its
  // beginning on the next server; the same when a server says that it is busy or unavailable (51, 52) (on the
  // same one after a connection that had been idle): it must be able to start over. Any other result is
  // passed on at once, and so is a refused reading account (49). The last error comes back when no server is
  // left.
  Result<void> read(const std::function<Result<void>(LdapConnection&)>& work);

  // Proves a password by a bind on a connection of its own, which is closed afterwards. One bind on one
  // server; only when that did not answer the next one is asked. Logs nothing about the verdict.
  // (BindCheck.h has the memory that belongs in front of this.)
  BindResult check_bind(const std::string& dn, std::string_view password);

  // Tries every server from the beginning, whether put aside or not, one after the other. Changes nothing.
  std::vector<ServerStatus> probe_all() const;

  const Domain& domain() const { return domain_; }

  // The inside; opaque. In the header because the prober of the process refers to it.
  struct State;

 private:
  struct Holder;
  std::shared_ptr<State> state();

  const Domain domain_;
  const Probes probes_;
  std::atomic<Holder*> holder_;
};

// The reading account's password. An error (code 1) names the file: missing, readable or writable by others
// or by the group, not a plain file, empty, too long. One line end at the end of the file is cut. The caller
// wipes the text.
Result<std::string> read_password_file(const std::string& file);

}  // namespace velder
