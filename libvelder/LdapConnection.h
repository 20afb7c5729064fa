// The client library for directory servers: one session with one server. Only the units behind this header
// (LdapConnection, LdapBind, LdapSearch) and LdapClient see ldap.h.
//
// LdapClient has prldap_install_routines, which readies the client library of the whole process before any
// connection exists.
//
// Codes of the errors below:
// - 81 (kDirectoryServerDown): not resolved, not connected, no TLS, connection lost, no LDAP
// - 85 (kDirectoryTimeout): connected, but an answer did not come in time
// - 4 (kDirectorySizeLimit): the server's size limit or our own; what came before was handed out
// - 1 (kDirectoryOther): an entry that cannot be used, a filter that cannot be parsed
// - any other: the server's own result code
// Texts name the server and never hold a password.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "libvelder/Error.h"
#include "libvelder/LdapModule.h"
#include "libvelder/LdifReader.h"
#include "libvelder/Settings.h"

namespace velder {

// How far open() came.
struct OpenStages {
  bool resolved = false;
  bool connected = false;  // TCP
  bool tls = false;        // false as well when none was asked for
};

enum class BindVerdict {
  kProven,
  kWrong,       // no such user or a wrong password; the server does not say which
  kAccount,     // disabled, locked, expired, must change its password, may not log on now or here
  kCannotTell,  // no answer, or one that says nothing about the password
};

struct BindResult {
  BindVerdict verdict = BindVerdict::kCannotTell;
  int code = kDirectoryOther;  // 0 only when proven; 49 for kWrong and kAccount
  std::string text;            // for the log: the server and what it said; empty when proven without remarks
};

enum class SearchScope { kBase, kOneLevel, kSubtree };

// A search that goes beyond one of the first two ends with code 4.
struct SearchLimits {
  uint64_t max_entries = 5'000'000;
  uint64_t max_bytes = uint64_t{4} << 30;  // of DNs, attribute names and values together
  // Of the whole search, however many requests it takes. Ends it with code 1: the server may be a good one.
  std::chrono::steady_clock::time_point until = std::chrono::steady_clock::time_point::max();
  // Unless the server had been silent for so long by then: code 85, as for OperationTimeout, which may be
  // longer.
  std::chrono::steady_clock::duration longest_silence = std::chrono::steady_clock::duration::max();
  // OperationTimeout is for each entry, not for each request: whole domains take their time. Then `until` is
  // all that ends a server that sends one entry after the other just in time.
  bool by_entry = false;
};

// The caller escapes what goes into `base` and `filter` (Dn.h).
struct SearchRequest {
  std::string base;
  SearchScope scope = SearchScope::kSubtree;
  std::string filter = "(objectClass=*)";
  std::vector<std::string> attributes;  // empty: all user attributes
  SearchLimits limits;
};

// Gets one complete entry: attribute names in lower case without options, values as bytes, every value of
// the attribute even when the server hands it out in ranges. `line` is 0. The entry may be moved from. An
// error ends the search and is its result. Must not use the connection that the entry comes from.
using EntrySink = std::function<Result<void>(LdifRecord& entry)>;

// What a server says about itself.
struct RootDse {
  std::vector<std::string> naming_contexts;
  std::string default_naming_context;  // Active Directory
  bool offers_paging = false;
};

// One session; movable, closed by the destructor. One thread at a time. After a fork the child only gives
// up the descriptor when it destroys one that it inherited: nothing goes over the wire that the parent still
// uses.
//
// Nothing waits longer than the time-outs of the domain: open() ConnectTimeout for finding, connecting and
// TLS together; a bind, and each request of a search (a page, a range) with all that answers it,
// OperationTimeout. The descriptor is closed on exec.
class LdapConnection {
 public:
  // Connects to `url` (ldap:// or ldaps://) with protocol 3, no referrals, keep-alive; with TLS for ldaps://
  // and for StartTLS. A certificate is always demanded and checked, against CACertFile or else the system's
  // CAs; nothing of that is process-wide. (The client library compares a certificate of "localhost" with the
  // machine's own name.) Nobody is bound yet. `stages`, if given, is filled whatever happens.
  static Result<LdapConnection> open(const Domain& domain, const std::string& url,
                                     OpenStages* stages = nullptr);

  LdapConnection(LdapConnection&&) noexcept;
  LdapConnection& operator=(LdapConnection&&) noexcept;
  ~LdapConnection();

  // A simple bind, one request to one server. An empty password or DN is refused here and never sent. A
  // server that accepts the password and demands a new one before anything else counts as kAccount.
  // Unless proven, the session is anonymous afterwards and bound() is false.
  BindResult bind(const std::string& dn, std::string_view password);

  // An anonymous bind. It proves that the server answers, and nothing else.
  Result<void> bind_anonymously();

  // Hands every entry to `each`, in pages of 900 where the server knows paging. Search references are passed
  // over; a referral is an error. An entry with ranged attributes comes at the end of its page.
  Result<void> search(const SearchRequest& request, const EntrySink& each);

  Result<RootDse> read_root_dse();

  // False after a lost connection or a time-out: every further call fails with the same code.
  bool usable() const;

  // False, too, when the server has closed an idle session or sent something unasked. Sends nothing.
  bool still_open() const;

  // The last bind, anonymous or not, succeeded.
  bool bound() const;

  // How many binds were tried. Tells a pool whether somebody changed the identity of its connection.
  uint64_t bind_count() const;

  const std::string& url() const;

  // The inside; opaque.
  struct Session;

 private:
  explicit LdapConnection(std::unique_ptr<Session> session);

  std::unique_ptr<Session> session_;
};

// What a refused bind says about the account, from the result code and the server's own text (Active
// Directory puts a number there: "..., data 775, ..."). The text may be empty.
struct BindRefusal {
  BindVerdict verdict = BindVerdict::kCannotTell;
  std::string_view reason;  // static text
};
BindRefusal classify_refusal(int result_code, std::string_view server_text);

// An attribute description such as "member;range=0-1499": name in lower case without options, and its range.
struct AttributeName {
  std::string name;
  bool ranged = false;
  bool valid = true;  // false: a range that cannot be read
  uint64_t low = 0;
  uint64_t high = 0;  // of the last value; meaningless when `last`
  bool last = false;  // "*": the values end here
};
AttributeName parse_attribute_name(std::string_view description);

}  // namespace velder
