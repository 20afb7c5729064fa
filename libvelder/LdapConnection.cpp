#include "libvelder/LdapConnection.h"

#include <openldap.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <ctime>
#include <string_view>
#include <system_error>
#include <utility>

#include "brellog/VrLog.h"
#include "libvelder/Certificate.h"
#include "libvelder/Fold.h"
#include "libvelder/LdapConnectionInternal.h"
#include "libvelder/LongWaits.h"

namespace velder {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// The client library counts a wait by the clock of the day. Short waits under our own steady clock keep a
// clock that is set from stretching a time-out.
constexpr milliseconds kLongestSlice{1000};

// No answer of a directory comes near this. The client library would allocate whatever length a message
// claims to have.
constexpr ber_len_t kLongestMessage = ber_len_t{64} << 20;

// Where Debian keeps the CAs that the system trusts.
constexpr const char* kSystemCas = "/etc/ssl/certs/ca-certificates.crt";

// How much of a server's text goes into the log.
constexpr size_t kServerTextLimit = 200;

timeval to_timeval(milliseconds time) {
  return {static_cast<time_t>(time.count() / 1000), static_cast<suseconds_t>(time.count() % 1000 * 1000)};
}

// How the client library reads from and writes to our socket. Its own way would not do: with GnuTLS it shakes
// hands without a time limit, and a write to a lost connection raises SIGPIPE.
LdapConnection::Session& session_of(Sockbuf_IO_Desc* layer) {
  return *static_cast<LdapConnection::Session*>(layer->sbiod_pvt);
}

// False: the handshake has had its time. Without a handshake nothing is waited for.
bool may_try_again(const LdapConnection::Session& session, int16_t events) {
  if (!session.handshake || (errno != EAGAIN && errno != EINTR)) return false;
  pollfd wanted{session.fd, events, 0};
  if (poll(&wanted, 1, milliseconds_until(*session.handshake)) > 0) return true;
  errno = ETIMEDOUT;
  return false;
}

bool handshake_is_late(const LdapConnection::Session& session) {
  if (!session.handshake || steady_clock::now() < *session.handshake) return false;
  errno = ETIMEDOUT;
  return true;
}

// What begins neither an LDAP message nor, during a handshake, a TLS record. The client library would wait
// for the rest of the message that it takes such a text for.
std::string_view remark_on(unsigned char first, bool handshake) {
  constexpr unsigned char kMessage = 0x30, kAlert = 0x15, kHandshake = 0x16;
  const bool record = first == kAlert || first == kHandshake;
  if (handshake ? record : first == kMessage) return {};
  return record ? "what answers there wants TLS first (ldaps://)"
                : "what answers there is no directory server";
}

ber_slen_t socket_read(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size) {
  LdapConnection::Session& session = session_of(layer);
  ber_slen_t got = -1;
  do {
    if (handshake_is_late(session)) return -1;
    got = recv(session.fd, buffer, size, 0);
  } while (got < 0 && may_try_again(session, POLLIN));
  if (got <= 0 || std::exchange(session.heard, true)) return got;
  session.stranger = remark_on(*static_cast<const unsigned char*>(buffer), session.handshake.has_value());
  if (session.stranger.empty()) return got;
  errno = EPROTO;
  return -1;
}

ber_slen_t socket_write(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size) {
  const LdapConnection::Session& session = session_of(layer);
  ber_slen_t sent = -1;
  do {
    if (handshake_is_late(session)) return -1;
    sent = send(session.fd, buffer, size, MSG_NOSIGNAL);
  } while (sent < 0 && may_try_again(session, POLLOUT));
  return sent;
}

int socket_setup(Sockbuf_IO_Desc* layer, void* session) {
  layer->sbiod_pvt = session;
  return 0;
}

int socket_control(Sockbuf_IO_Desc* /*layer*/, int /*option*/, void* /*value*/) {
  return 0;  // no option is ours
}

int socket_close(Sockbuf_IO_Desc* layer) {
  return close(std::exchange(session_of(layer).fd, -1));
}

// On top, above TLS. The client library frees a request that it has sent as it is, the password in it.
ber_slen_t wiping_write(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size) {
  const ber_slen_t sent = LBER_SBIOD_WRITE_NEXT(layer, buffer, size);
  if (sent > 0) OPENSSL_cleanse(buffer, static_cast<size_t>(sent));
  return sent;
}

ber_slen_t pass_read(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size) {
  return LBER_SBIOD_READ_NEXT(layer, buffer, size);
}

int pass_control(Sockbuf_IO_Desc* layer, int option, void* value) {
  return LBER_SBIOD_CTRL_NEXT(layer, option, value);
}

Sockbuf_IO g_wiping_io{nullptr, nullptr, pass_control, pass_read, wiping_write, nullptr};
Sockbuf_IO g_socket_io{socket_setup, nullptr, socket_control, socket_read, socket_write, socket_close};

// The session owns `socket` afterwards.
bool attach(LdapConnection::Session& session, FileHandle socket) {
  if (ldap_init_fd(socket.get(), LDAP_PROTO_EXT, session.url.c_str(), &session.ld) != LDAP_SUCCESS)
    return false;
  session.fd = socket.release();
  Sockbuf* buffer = nullptr;
  return ldap_get_option(session.ld, LDAP_OPT_SOCKBUF, &buffer) == LDAP_OPT_SUCCESS &&
         ber_sockbuf_add_io(buffer, &g_socket_io, LBER_SBIOD_LEVEL_PROVIDER, &session) == 0 &&
         ber_sockbuf_add_io(buffer, &g_wiping_io, LBER_SBIOD_LEVEL_APPLICATION, nullptr) == 0;
}

std::string diagnostic_of(LDAP* ld) {
  char* text = nullptr;
  if (ldap_get_option(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE, &text) != LDAP_OPT_SUCCESS || text == nullptr)
    return {};
  std::string copy = text;
  ldap_memfree(text);
  return copy;
}

struct UrlParts {
  std::string host;
  uint16_t port = 0;
  bool tls = false;
};

Result<UrlParts> parse_url(const std::string& url) {
  LDAPURLDesc* parsed = nullptr;
  const int rc = ldap_url_parse(url.c_str(), &parsed);
  const std::unique_ptr<LDAPURLDesc, decltype(&ldap_free_urldesc)> owner(parsed, ldap_free_urldesc);
  const bool usable = rc == LDAP_URL_SUCCESS && parsed->lud_host != nullptr && *parsed->lud_host != '\0' &&
                      parsed->lud_port >= 0 && parsed->lud_port <= 65535;
  const bool tls = usable && ascii_iequals(parsed->lud_scheme, "ldaps");
  if (!usable || (!tls && !ascii_iequals(parsed->lud_scheme, "ldap")))
    return tl::unexpected(
        Error{kDirectoryOther, printable(url) + ": no ldap:// or ldaps:// address of a server"});
  UrlParts parts{parsed->lud_host, static_cast<uint16_t>(parsed->lud_port), tls};
  if (parts.port == 0) parts.port = tls ? LDAPS_PORT : LDAP_PORT;
  return parts;
}

// Everything is set here that ldap.conf or the environment could have set differently.
bool set_session_options(LDAP* ld, const Domain& domain) {
  const int protocol = LDAP_VERSION3;
  const int no_limit = LDAP_NO_LIMIT;
  const int never = LDAP_DEREF_NEVER;
  const timeval answer = to_timeval(seconds(domain.operation_timeout));
  Sockbuf* buffer = nullptr;
  ber_len_t longest = kLongestMessage;
  return ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &protocol) == LDAP_OPT_SUCCESS &&
         ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF) == LDAP_OPT_SUCCESS &&
         ldap_set_option(ld, LDAP_OPT_RESTART, LDAP_OPT_ON) == LDAP_OPT_SUCCESS &&
         ldap_set_option(ld, LDAP_OPT_DEREF, &never) == LDAP_OPT_SUCCESS &&
         ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &no_limit) == LDAP_OPT_SUCCESS &&
         ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &no_limit) == LDAP_OPT_SUCCESS &&
         ldap_set_option(ld, LDAP_OPT_TIMEOUT, &answer) == LDAP_OPT_SUCCESS &&
         ldap_get_option(ld, LDAP_OPT_SOCKBUF, &buffer) == LDAP_OPT_SUCCESS &&
         ber_sockbuf_ctrl(buffer, LBER_SB_OPT_SET_MAX_INCOMING, &longest) == 1;
}

// Whether a certificate is demanded and checked. kNone is for finding out what is wrong with it: nothing is
// ever sent over such a session.
enum class Trust { kChecked, kNone };

// With a context of this session's own. TLS before 1.2 is not spoken.
Result<void> set_tls_options(LdapConnection::Session& session, const std::string& ca_setting, Trust trust) {
  const std::string ca_file = ca_setting.empty() ? kSystemCas : ca_setting;
  if (access(ca_file.c_str(), R_OK) != 0)
    return session.fail(kDirectoryServerDown, "no trusted CAs: cannot read " + printable(ca_file, 200) +
                                                  ": " + std::system_category().message(errno));
  const int checking = trust == Trust::kChecked ? LDAP_OPT_X_TLS_DEMAND : LDAP_OPT_X_TLS_NEVER;
  const int lowest = LDAP_OPT_X_TLS_PROTOCOL_TLS1_2;
  const int client = 0;
  LDAP* ld = session.ld;
  if (ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &checking) != LDAP_OPT_SUCCESS ||
      ldap_set_option(ld, LDAP_OPT_X_TLS_CACERTDIR, nullptr) != LDAP_OPT_SUCCESS ||
      ldap_set_option(ld, LDAP_OPT_X_TLS_CACERTFILE, ca_file.c_str()) != LDAP_OPT_SUCCESS ||
      ldap_set_option(ld, LDAP_OPT_X_TLS_PROTOCOL_MIN, &lowest) != LDAP_OPT_SUCCESS ||
      ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &client) != LDAP_OPT_SUCCESS)
    return session.fail(kDirectoryServerDown,
                        "TLS cannot be set up: no certificates in " + printable(ca_file, 200) + "?");
  return {};
}

Result<void> ask_for_tls(LdapConnection::Session& session, Deadline deadline) {
  int id = 0;
  const int rc = ldap_start_tls(session.ld, nullptr, nullptr, &id);
  if (rc != LDAP_SUCCESS) return session.fail_local(rc, "asking for TLS");
  const auto outcome = session.finish(id, LDAP_RES_EXTENDED, deadline, "StartTLS");
  if (!outcome) return tl::unexpected(outcome.error());
  if (outcome->code != LDAP_SUCCESS)
    return session.lose(kDirectoryServerDown, "no StartTLS: " + describe(outcome->code, outcome->text));
  return {};
}

// Why TLS failed, as far as the client library says; "" when it minds the certificate, of which it tells
// nothing but in a trace.
std::string failed_handshake(const LdapConnection::Session& session, Deadline deadline) {
  if (steady_clock::now() >= deadline) return "no TLS in time";
  if (!session.stranger.empty()) return "no TLS: " + std::string(session.stranger);
  const std::string reason = diagnostic_of(session.ld);
  const bool told = !reason.empty() && reason.find("unknown error") == std::string::npos;
  return told ? "no TLS: " + printable(reason, kServerTextLimit) : "";
}

// Puts TLS on a session that has none. The error has no text when the certificate is minded.
Result<void> start_tls(LdapConnection::Session& session, const Domain& domain, bool ask, Trust trust,
                       Deadline deadline) {
  if (auto set = set_tls_options(session, domain.ca_cert_file, trust); !set) return set;
  if (ask) {
    if (auto granted = ask_for_tls(session, deadline); !granted) return granted;
  }
  session.handshake = deadline;
  session.heard = false;  // another protocol begins
  const int rc = ldap_install_tls(session.ld);
  session.handshake.reset();
  if (rc == LDAP_SUCCESS) return {};
  const std::string why = failed_handshake(session, deadline);
  if (!why.empty()) return session.lose(kDirectoryServerDown, why);
  session.lost = kDirectoryServerDown;
  return tl::unexpected(Error{kDirectoryServerDown, ""});
}

Result<std::unique_ptr<LdapConnection::Session>> connect(const Domain& domain, const std::string& url,
                                                         const UrlParts& parts, Deadline deadline,
                                                         OpenStages& stage) {
  auto session = std::make_unique<LdapConnection::Session>();
  session->url = url;
  session->owner = getpid();
  session->operation_timeout = seconds(domain.operation_timeout);
  auto socket = connect_tcp(parts.host, parts.port, deadline, session->operation_timeout, stage.resolved);
  if (!socket) return session->fail(socket.error().code, socket.error().text);
  stage.connected = true;
  if (!attach(*session, std::move(*socket)) || !set_session_options(session->ld, domain))
    return session->fail(kDirectoryOther, "the client library refuses an option");
  return session;
}

// The client library wants the machine's own name in the certificate of "localhost".
std::string name_in_certificate(const std::string& host) {
  std::array<char, HOST_NAME_MAX + 1> own{};
  const bool local = ascii_iequals(host, "localhost");
  return local && gethostname(own.data(), own.size() - 1) == 0 ? own.data() : host;
}

// What is wrong with a server's certificate. It is fetched by a session that trusts it, and looked at here.
std::string minded_certificate(const Domain& domain, const std::string& url, const UrlParts& parts,
                               Deadline deadline) {
  const std::string cas =
      domain.ca_cert_file.empty() ? "the system trusts" : printable(domain.ca_cert_file, 200) + " holds";
  OpenStages unused;
  const auto session = connect(domain, url, parts, deadline, unused);
  berval certificate{};
  if (session && start_tls(**session, domain, !parts.tls, Trust::kNone, deadline))
    ldap_get_option((*session)->ld, LDAP_OPT_X_TLS_PEERCERT, &certificate);
  const std::unique_ptr<char, decltype(&ldap_memfree)> owner(certificate.bv_val, ldap_memfree);
  if (certificate.bv_val == nullptr)
    return "no TLS: the server speaks none, or its certificate has expired, is for another name, or is of no "
           "CA that " +
           cas;
  const std::string_view der(certificate.bv_val, certificate.bv_len);
  const std::string fault = certificate_fault(der, name_in_certificate(parts.host), time(nullptr));
  if (!fault.empty()) return "no TLS: its certificate " + fault;
  return "no TLS: its certificate is of no CA that " + cas + "; issued by " + certificate_issuer(der);
}

milliseconds slice_until(Deadline until) {
  return std::min(kLongestSlice, milliseconds(milliseconds_until(until)));
}

}  // namespace

int outward_code(int server_code) {
  return server_code > 0 && server_code < kDirectoryServerDown ? server_code : kDirectoryOther;
}

std::string describe(int server_code, std::string_view server_text) {
  std::string text = std::string(ldap_err2string(server_code)) + " (" + std::to_string(server_code) + ")";
  if (!server_text.empty()) text += ": " + printable(server_text, kServerTextLimit);
  return text;
}

LdapConnection::Session::~Session() {
  if (ld == nullptr) return;
  if (owner != getpid()) {
    // The library's locks may have been held at the fork, and the other end still talks to the parent.
    if (fd >= 0) close(fd);
    return;
  }
  ldap_unbind_ext_s(ld, nullptr, nullptr);
}

tl::unexpected<Error> LdapConnection::Session::fail(int code, std::string_view text) const {
  return tl::unexpected(Error{code, url + ": " + std::string(text)});
}

tl::unexpected<Error> LdapConnection::Session::lose(int code, std::string_view text) {
  lost = code;
  bound = false;
  return fail(code, text);
}

tl::unexpected<Error> LdapConnection::Session::fail_local(int library_code, std::string_view doing) {
  if (!stranger.empty()) return lose(kDirectoryServerDown, std::string(doing) + ": " + std::string(stranger));
  const std::string what = std::string(doing) + ": " + ldap_err2string(library_code);
  switch (library_code) {
    case LDAP_FILTER_ERROR:
    case LDAP_PARAM_ERROR:
    case LDAP_ENCODING_ERROR:
    case LDAP_NO_MEMORY: return fail(kDirectoryOther, what);
    case LDAP_TIMEOUT: return lose(kDirectoryTimeout, what);
    case LDAP_SERVER_DOWN:
      return lose(kDirectoryServerDown, std::string(doing) + ": the connection was lost");
    default: return lose(kDirectoryServerDown, what);
  }
}

Result<void> LdapConnection::Session::ready() const {
  if (lost != 0) return fail(lost, "the connection was lost before");
  return {};
}

void LdapConnection::Session::abandon(int id) const {
  ldap_abandon_ext(ld, id, nullptr, nullptr);
}

Result<Message> LdapConnection::Session::wait(int id, Deadline until, std::string_view doing) {
  LongWait patience;
  for (;;) {
    timeval slice = to_timeval(slice_until(until));
    LDAPMessage* raw = nullptr;
    const int type = ldap_result(ld, id, LDAP_MSG_ONE, &slice, &raw);
    Message message(raw);
    if (type > 0 && message) return message;
    if (type != 0) {
      int code = LDAP_SERVER_DOWN;
      ldap_get_option(ld, LDAP_OPT_RESULT_CODE, &code);
      return fail_local(code < 0 ? code : LDAP_SERVER_DOWN, doing);
    }
    const bool late = steady_clock::now() >= until;
    if (late || !patience.may_go_on()) {
      abandon(id);
      const std::string_view why = late ? ": no answer in time" : ": no answer soon, too many wait longer";
      return lose(kDirectoryTimeout, std::string(doing).append(why));
    }
  }
}

Result<Outcome> LdapConnection::Session::parse_outcome(LDAPMessage* message, std::string_view doing) {
  Outcome outcome;
  char* text = nullptr;
  char** referrals = nullptr;
  LDAPControl** controls = nullptr;
  const int rc = ldap_parse_result(ld, message, &outcome.code, nullptr, &text, &referrals, &controls, 0);
  outcome.controls.reset(controls);
  if (text != nullptr) outcome.text = text;
  for (char** one = referrals; one != nullptr && *one != nullptr; ++one) outcome.referrals.emplace_back(*one);
  ldap_memfree(text);
  ldap_memvfree(reinterpret_cast<void**>(referrals));
  if (rc != LDAP_SUCCESS) return fail_local(rc, doing);
  if (outcome.code < 0) return fail_local(outcome.code, doing);
  return outcome;
}

Result<Outcome> LdapConnection::Session::finish(int id, int type, Deadline until, std::string_view doing) {
  const auto message = wait(id, until, doing);
  if (!message) return tl::unexpected(message.error());
  if (ldap_msgtype(message->get()) != type)
    return lose(kDirectoryServerDown, std::string(doing) + ": an answer to something else");
  return parse_outcome(message->get(), doing);
}

tl::unexpected<Error> LdapConnection::Session::refused(const Outcome& outcome, std::string_view doing) const {
  std::string text = std::string(doing) + ": " + describe(outcome.code, outcome.text);
  if (outcome.code == LDAP_REFERRAL || !outcome.referrals.empty()) {
    text += "; what is asked for is held by another server";
    if (!outcome.referrals.empty()) text += ", " + printable(outcome.referrals.front(), kServerTextLimit);
  }
  return fail(outward_code(outcome.code), text);
}

LdapConnection::LdapConnection(std::unique_ptr<Session> session) : session_(std::move(session)) {}
LdapConnection::LdapConnection(LdapConnection&&) noexcept = default;
LdapConnection& LdapConnection::operator=(LdapConnection&&) noexcept = default;
LdapConnection::~LdapConnection() = default;

Result<LdapConnection> LdapConnection::open(const Domain& domain, const std::string& url,
                                            OpenStages* stages) {
  OpenStages unused;
  OpenStages& stage = stages != nullptr ? *stages : unused;
  stage = {};
  const Deadline deadline = steady_clock::now() + seconds(domain.connect_timeout);
  const auto parts = parse_url(url);
  if (!parts) return tl::unexpected(parts.error());

  auto session = connect(domain, url, *parts, deadline, stage);
  if (!session) return tl::unexpected(session.error());
  if (parts->tls || domain.start_tls) {
    auto ready = start_tls(**session, domain, !parts->tls, Trust::kChecked, deadline);
    if (!ready && ready.error().text.empty())
      ready = (*session)->fail(kDirectoryServerDown, minded_certificate(domain, url, *parts, deadline));
    if (!ready) return tl::unexpected(ready.error());
    stage.tls = true;
  }
  return LdapConnection(std::move(*session));
}

bool LdapConnection::usable() const {
  return session_ != nullptr && session_->lost == 0;
}

bool LdapConnection::still_open() const {
  if (!usable()) return false;
  char byte = 0;
  // Nothing is outstanding. So whatever can be read, and the end, is a server that has given up.
  return recv(session_->fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
         (errno == EAGAIN || errno == EWOULDBLOCK);
}

bool LdapConnection::bound() const {
  return usable() && session_->bound;
}

uint64_t LdapConnection::bind_count() const {
  return session_ != nullptr ? session_->binds : 0;
}

const std::string& LdapConnection::url() const {
  static const std::string kNone;
  if (session_ == nullptr) return kNone;
  return session_->url;
}

}  // namespace velder
