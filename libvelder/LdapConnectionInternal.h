// What the units behind LdapConnection.h share: the session and how an answer is waited for.
#pragma once

#include <ldap.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libvelder/LdapConnection.h"
#include "libvelder/TcpConnect.h"

namespace velder {

struct MessageFree {
  void operator()(LDAPMessage* message) const { ldap_msgfree(message); }
};
using Message = std::unique_ptr<LDAPMessage, MessageFree>;

struct ControlFree {
  void operator()(LDAPControl* control) const { ldap_control_free(control); }
};
using Control = std::unique_ptr<LDAPControl, ControlFree>;

struct ControlsFree {
  void operator()(LDAPControl** controls) const { ldap_controls_free(controls); }
};
using Controls = std::unique_ptr<LDAPControl*, ControlsFree>;

// The end of an operation as the server reported it.
struct Outcome {
  int code = LDAP_OTHER;
  std::string text;  // the server's own words, as they came
  std::vector<std::string> referrals;
  Controls controls;
};

// A lost session is never used again: the client library would connect anew by itself, without StartTLS and
// bound as nobody.
struct LdapConnection::Session {
  LDAP* ld = nullptr;
  pid_t owner = 0;
  int fd = -1;                        // -1 as well once the client library has closed it
  std::optional<Deadline> handshake;  // reading and writing block, but not beyond it
  bool heard = false;                 // something has come from the other end
  std::string_view stranger;          // what was heard first is no LDAP: a remark on it; else empty
  std::string url;
  std::chrono::milliseconds operation_timeout{0};
  int lost = 0;  // 0, or the code of the failure that ended the session
  bool bound = false;
  uint64_t binds = 0;

  Session() = default;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  Deadline deadline() const { return std::chrono::steady_clock::now() + operation_timeout; }

  tl::unexpected<Error> fail(int code, std::string_view text) const;
  // An error of the client library itself (a negative code); most of them end the session.
  tl::unexpected<Error> fail_local(int library_code, std::string_view doing);
  // Ends the session.
  tl::unexpected<Error> lose(int code, std::string_view text);
  // For the first line of every operation: the error of a session that is lost.
  Result<void> ready() const;

  // The next message that answers request `id`. A time-out ends the session.
  Result<Message> wait(int id, Deadline until, std::string_view doing);
  Result<Outcome> parse_outcome(LDAPMessage* message, std::string_view doing);
  // The one message that answers request `id`, which must be of this type.
  Result<Outcome> finish(int id, int type, Deadline until, std::string_view doing);
  void abandon(int id) const;

  // The server's refusal of an operation.
  tl::unexpected<Error> refused(const Outcome& outcome, std::string_view doing) const;
};

// A server's result code as it is passed on: what is no result of a server but would read like one of the
// client library's (81 and up) becomes kDirectoryOther.
int outward_code(int server_code);

// "Invalid credentials (49): the server's words"
std::string describe(int server_code, std::string_view server_text);

}  // namespace velder
