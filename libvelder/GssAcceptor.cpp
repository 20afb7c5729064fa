#include "libvelder/GssAcceptor.h"

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>
#include <locale.h>
#include <malloc.h>
#include <openssl/crypto.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <mutex>

#include "libvelder/Fold.h"
#include "libvelder/Keytab.h"

namespace velder {
namespace {

// What each mechanism is called on the wire (1.3.6.1.4.1.311.2.2.10, 1.3.6.1.5.5.2, 1.2.840.113554.1.2.2).
constexpr std::string_view kNtlmOid("\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a", 10);
constexpr std::string_view kSpnegoOid("\x2b\x06\x01\x05\x05\x02", 6);
constexpr std::string_view kKerberosOid("\x2a\x86\x48\x86\xf7\x12\x01\x02\x02", 9);

constexpr std::string_view kSidsAttribute = "urn:gssntlmssp:sids";
constexpr char kUsersFileKey[] = "ntlmssp_keyfile";
constexpr size_t kLongestNetbiosName = 15;
constexpr size_t kLongestHostName = 255;
constexpr int kCrowd = 256;

gss_OID_desc oid_of(std::string_view bytes) {
  return {static_cast<OM_uint32>(bytes.size()), const_cast<char*>(bytes.data())};
}

gss_OID_desc g_ntlm = oid_of(kNtlmOid);
gss_OID_desc g_kerberos = oid_of(kKerberosOid);
std::array<gss_OID_desc, 2> g_negotiate = {oid_of(kKerberosOid), oid_of(kSpnegoOid)};
gss_OID_set_desc g_only_ntlm = {1, &g_ntlm};
gss_OID_set_desc g_only_kerberos = {1, &g_kerberos};
gss_OID_set_desc g_kerberos_and_spnego = {g_negotiate.size(), g_negotiate.data()};

gss_buffer_desc buffer_of(std::string_view bytes) {
  return {bytes.size(), const_cast<char*>(bytes.data())};
}

// What the library allocated.
class Buffer {
 public:
  Buffer() = default;
  ~Buffer() {
    OM_uint32 minor = 0;
    gss_release_buffer(&minor, &buffer_);
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  gss_buffer_t get() { return &buffer_; }
  std::string_view view() const {
    if (buffer_.value == nullptr) return {};
    return {static_cast<const char*>(buffer_.value), buffer_.length};
  }

 private:
  gss_buffer_desc buffer_ = GSS_C_EMPTY_BUFFER;
};

class Name {
 public:
  Name() = default;
  ~Name() {
    OM_uint32 minor = 0;
    gss_release_name(&minor, &name_);
  }
  Name(const Name&) = delete;
  Name& operator=(const Name&) = delete;
  gss_name_t* out() { return &name_; }
  gss_name_t get() const { return name_; }

 private:
  gss_name_t name_ = GSS_C_NO_NAME;
};

class Credential {
 public:
  Credential() = default;
  ~Credential() {
    OM_uint32 minor = 0;
    gss_release_cred(&minor, &credential_);
  }
  Credential(const Credential&) = delete;
  Credential& operator=(const Credential&) = delete;
  gss_cred_id_t* out() { return &credential_; }
  gss_cred_id_t get() const { return credential_; }

 private:
  gss_cred_id_t credential_ = GSS_C_NO_CREDENTIAL;
};

void append_status(OM_uint32 code, int kind, gss_OID mechanism, std::string& text) {
  OM_uint32 more = 0;
  do {
    OM_uint32 minor = 0;
    Buffer part;
    if (GSS_ERROR(gss_display_status(&minor, code, kind, mechanism, &more, part.get()))) return;
    if (!text.empty()) text += ": ";
    text += part.view();
  } while (more != 0);
}

// The mechanism's own words when it has any: the general ones add nothing to them.
std::string reason_of(OM_uint32 major, OM_uint32 minor, gss_OID mechanism) {
  std::string text;
  if (minor != 0) append_status(minor, GSS_C_MECH_CODE, mechanism, text);
  if (text == "Success") text = "it is cut short or malformed";  // a failure without a code of its own
  if (text.empty()) append_status(major, GSS_C_GSS_CODE, mechanism, text);
  return text;
}

GssAnswer no_acceptor(std::string reason) {
  GssAnswer answer;
  answer.reason = std::move(reason);
  return answer;
}

// Display names of this mechanism end in a NUL that is counted.
std::string_view without_nul(std::string_view name) {
  while (name.ends_with('\0')) name.remove_suffix(1);
  return name;
}

// The user's own stands before those of the groups.
std::string first_sid_of(gss_name_t peer) {
  gss_buffer_desc attribute = buffer_of(kSidsAttribute);
  Buffer sids;
  OM_uint32 minor = 0;
  int authenticated = 0, complete = 0, more = -1;
  if (GSS_ERROR(gss_get_name_attribute(&minor, peer, &attribute, &authenticated, &complete, sids.get(),
                                       nullptr, &more))) {
    return {};
  }
  return std::string(sids.view().substr(0, sids.view().find_first_of(std::string_view(",\0", 2))));
}

// A context of NTLM takes some 65 KB. After a crowd of clients that got a challenge and then said nothing,
// the allocator would keep what they took.
class Crowd {
 public:
  void enter() {
    const int now = here_.fetch_add(1) + 1;
    int most = most_.load();
    while (most < now && !most_.compare_exchange_weak(most, now)) continue;
  }
  void leave() {
    const int left = here_.fetch_sub(1) - 1;
    int most = most_.load();
    if (most >= kCrowd && left <= most / 16 && most_.compare_exchange_strong(most, left)) malloc_trim(0);
  }

 private:
  std::atomic<int> here_{0};
  std::atomic<int> most_{0};  // since memory was given back last
};

Crowd g_contexts;

// One leg. `context` keeps what the mechanism left in it, also after a failure.
GssAnswer accept(gss_ctx_id_t* context, gss_cred_id_t credential, std::string_view token, gss_OID mechanism) {
  gss_buffer_desc input = buffer_of(token);
  Buffer output;
  Name peer;
  OM_uint32 minor = 0, flags = 0, ignored = 0;
  const bool had_one = *context != GSS_C_NO_CONTEXT;
  const OM_uint32 major =
      gss_accept_sec_context(&minor, context, credential, &input, GSS_C_NO_CHANNEL_BINDINGS, peer.out(),
                             nullptr, output.get(), &flags, nullptr, nullptr);
  if (!had_one && *context != GSS_C_NO_CONTEXT) g_contexts.enter();
  if (had_one && *context == GSS_C_NO_CONTEXT) g_contexts.leave();
  GssAnswer answer;
  answer.token = output.view();
  if (GSS_ERROR(major)) {
    answer.outcome = GssOutcome::kRefused;
    const OM_uint32 routine = GSS_ROUTINE_ERROR(major);
    answer.damaged = routine == GSS_S_DEFECTIVE_TOKEN;
    answer.denied = minor == EACCES;
    answer.reason = reason_of(major, minor, mechanism);
  } else if ((major & GSS_S_CONTINUE_NEEDED) != 0) {
    answer.outcome = GssOutcome::kAnotherLeg;
  } else {
    Buffer name;
    if (peer.get() == GSS_C_NO_NAME ||
        GSS_ERROR(gss_display_name(&ignored, peer.get(), name.get(), nullptr))) {
      answer.outcome = GssOutcome::kRefused;
      answer.reason = "the mechanism gives no name";
    } else {
      answer.outcome = GssOutcome::kProven;
      answer.name = without_nul(name.view());
      if (mechanism == &g_ntlm) answer.sid = first_sid_of(peer.get());
      answer.anonymous = (flags & GSS_C_ANON_FLAG) != 0;
    }
  }
  return answer;
}

gss_ctx_id_t* handle_of(void*& handle) {
  return reinterpret_cast<gss_ctx_id_t*>(&handle);
}

// The mechanism compares users in the encoding of the calling thread's locale, and in that of a daemon
// nothing beyond ASCII is equal to anything.
class InUtf8 {
 public:
  InUtf8() : before_(locale() == nullptr ? nullptr : uselocale(locale())) {}
  ~InUtf8() {
    if (before_ != nullptr) uselocale(before_);
  }
  InUtf8(const InUtf8&) = delete;
  InUtf8& operator=(const InUtf8&) = delete;

  // Kept for good, from the first call on.
  static locale_t locale() {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return utf8;
  }

 private:
  const locale_t before_;
};

// A users file of one line that only this process can see, for as long as one message is checked.
class OneUserFile {
 public:
  OneUserFile(std::string_view user, const Secret& nt_hash) : fd_(memfd_create("ntlm-user", MFD_CLOEXEC)) {
    if (fd_ < 0) return;
    fchmod(fd_, 0600);
    std::string line;
    line.reserve(user.size() + 128);  // never moves, so no copy is left behind
    line.append(user).append(":0:XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXX:").append(ascii_upper(nt_hash.text()));
    line.append(":[U          ]:LCT-00000000:\n");
    size_ = line.size();
    complete_ = pwrite(fd_, line.data(), line.size(), 0) == static_cast<ssize_t>(line.size());
    OPENSSL_cleanse(line.data(), line.size());
  }
  ~OneUserFile() {
    if (fd_ < 0) return;
    const std::string nothing(size_, '\0');
    [[maybe_unused]] const ssize_t wiped = pwrite(fd_, nothing.data(), nothing.size(), 0);
    close(fd_);
  }
  OneUserFile(const OneUserFile&) = delete;
  OneUserFile& operator=(const OneUserFile&) = delete;

  bool complete() const { return complete_; }
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  const int fd_;
  size_t size_ = 0;
  bool complete_ = false;
};

std::string own_host_name() {
  std::array<char, kLongestHostName + 1> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? std::string(name.data()) : std::string("localhost");
}

std::string netbios_form(std::string_view name) {
  return ascii_upper(name.substr(0, name.find('.'))).substr(0, kLongestNetbiosName);
}

}  // namespace

void GssContext::reset() {
  if (handle_ == nullptr) return;
  OM_uint32 minor = 0;
  gss_delete_sec_context(&minor, handle_of(handle_), GSS_C_NO_BUFFER);
  handle_ = nullptr;
  g_contexts.leave();
}

GssContext::~GssContext() {
  reset();
}

// Made at the first call and kept; a failure is tried again by the next one.
struct GssAcceptor::Credentials {
  std::mutex mutex;  // guards the making only
  bool have_ntlm = false;
  bool have_negotiate = false;
  Name own_name;
  Credential ntlm;
  Credential negotiate;

  // Why there is no credential; empty when there is one.
  std::string make_ntlm();
  std::string make_negotiate(const Settings& settings, const std::string& workdir);

 private:
  std::string import_own_name();
};

// The mechanism takes a credential without a name for one of another kind, and crashes: always a host-based
// name. A service in it would be shown in the challenge, and clients that know us by another name would
// refuse to answer.
std::string GssAcceptor::Credentials::import_own_name() {
  if (own_name.get() != GSS_C_NO_NAME) return {};
  const std::string text = "@" + own_host_name();
  gss_buffer_desc buffer = buffer_of(text);
  OM_uint32 minor = 0;
  const OM_uint32 major = gss_import_name(&minor, &buffer, GSS_C_NT_HOSTBASED_SERVICE, own_name.out());
  return GSS_ERROR(major) ? reason_of(major, minor, GSS_C_NO_OID) : std::string();
}

std::string GssAcceptor::Credentials::make_ntlm() {
  const std::lock_guard lock(mutex);
  if (have_ntlm) return {};
  if (std::string wrong = import_own_name(); !wrong.empty()) return wrong;
  OM_uint32 minor = 0;
  const OM_uint32 major = gss_acquire_cred(&minor, own_name.get(), GSS_C_INDEFINITE, &g_only_ntlm,
                                           GSS_C_ACCEPT, ntlm.out(), nullptr, nullptr);
  if (GSS_ERROR(major)) return "is the mechanism installed? " + reason_of(major, minor, &g_ntlm);
  have_ntlm = true;
  return {};
}

std::string GssAcceptor::Credentials::make_negotiate(const Settings& settings, const std::string& workdir) {
  const std::lock_guard lock(mutex);
  if (have_negotiate) return {};
  OM_uint32 minor = 0;
  Name service;
  if (!settings.negotiate_service.empty()) {
    const auto principal = find_in_keytab(settings.negotiate_keytab, settings.negotiate_service);
    if (!principal) return principal.error().text;
    gss_buffer_desc buffer = buffer_of(*principal);
    const OM_uint32 imported =
        gss_import_name(&minor, &buffer, const_cast<gss_OID>(GSS_KRB5_NT_PRINCIPAL_NAME), service.out());
    if (GSS_ERROR(imported)) return reason_of(imported, minor, &g_kerberos);
  }
  const std::string keytab = "FILE:" + settings.negotiate_keytab;
  const std::string replay = settings.negotiate_replay_cache ? "file2:" + path_in(workdir, "negotiate.rcache")
                                                             : std::string("none:");
  std::array<gss_key_value_element_desc, 2> elements = {
      {{"keytab", keytab.c_str()}, {"rcache", replay.c_str()}}};
  const gss_key_value_set_desc store = {elements.size(), elements.data()};
  Credential made;
  gss_OID_set present = GSS_C_NO_OID_SET;
  OM_uint32 major = gss_acquire_cred_from(&minor, service.get(), GSS_C_INDEFINITE, &g_kerberos_and_spnego,
                                          GSS_C_ACCEPT, &store, made.out(), &present, nullptr);
  const bool complete = present != GSS_C_NO_OID_SET && present->count == g_negotiate.size();
  OM_uint32 ignored = 0;
  gss_release_oid_set(&ignored, &present);
  // Inside SPNEGO nothing else is offered or taken, whatever mechanisms the machine has.
  if (!GSS_ERROR(major)) major = gss_set_neg_mechs(&minor, made.get(), &g_only_kerberos);
  if (GSS_ERROR(major)) return reason_of(major, minor, &g_kerberos);
  // What could not be had for want of a descriptor is left out without an error. An empty token asks for an
  // offer, which there is only with Kerberos in it.
  GssContext context;
  const GssAnswer offer = accept(handle_of(context.handle_), made.get(), {}, &g_kerberos);
  if (!complete || offer.outcome != GssOutcome::kAnotherLeg)
    return "Kerberos is not available: " + offer.reason;
  std::swap(*negotiate.out(), *made.out());
  have_negotiate = true;
  return {};
}

GssAcceptor::GssAcceptor(const Settings& settings, const std::string& workdir)
    : settings_(settings),
      workdir_(workdir),
      users_file_(settings.ntlm_user_file.empty() ? nullptr
                                                  : std::make_unique<NtlmUsersFile>(settings.ntlm_user_file)),
      credentials_(std::make_unique<Credentials>()) {}

GssAcceptor::~GssAcceptor() = default;

GssAnswer GssAcceptor::ntlm_challenge(GssContext& context, std::string_view type1) {
  context.reset();
  if (std::string wrong = credentials_->make_ntlm(); !wrong.empty()) return no_acceptor(std::move(wrong));
  return accept(handle_of(context.handle_), credentials_->ntlm.get(), type1, &g_ntlm);
}

GssAnswer GssAcceptor::ntlm_verify(GssContext& context, std::string_view type3, std::string_view user,
                                   const Secret& nt_hash) {
  const OneUserFile file(user, nt_hash);
  if (!file.complete()) return no_acceptor("no room for one user's line");
  const std::string path = file.path();
  gss_key_value_element_desc element = {kUsersFileKey, path.c_str()};
  const gss_key_value_set_desc store = {1, &element};
  Credential credential;
  OM_uint32 minor = 0;
  const OM_uint32 major =
      gss_acquire_cred_from(&minor, credentials_->own_name.get(), GSS_C_INDEFINITE, &g_only_ntlm,
                            GSS_C_ACCEPT, &store, credential.out(), nullptr, nullptr);
  if (GSS_ERROR(major)) return no_acceptor(reason_of(major, minor, &g_ntlm));
  const InUtf8 encoding;
  return accept(handle_of(context.handle_), credential.get(), type3, &g_ntlm);
}

GssAnswer GssAcceptor::ntlm_ask_winbind(GssContext& context, std::string_view type3) {
  const InUtf8 encoding;
  return accept(handle_of(context.handle_), credentials_->ntlm.get(), type3, &g_ntlm);
}

GssAnswer GssAcceptor::negotiate(std::string_view token) {
  if (std::string wrong = credentials_->make_negotiate(settings_, workdir_); !wrong.empty()) {
    return no_acceptor(std::move(wrong));
  }
  GssContext context;
  return accept(handle_of(context.handle_), credentials_->negotiate.get(), token, &g_kerberos);
}

Result<void> check_acceptor_files(const Settings& settings) {
  if (!settings.ntlm_user_file.empty()) {
    if (auto users = NtlmUsers::load(settings.ntlm_user_file); !users)
      return tl::make_unexpected(users.error());
  }
  if (!settings.negotiate_keytab.empty()) {
    auto principal = find_in_keytab(settings.negotiate_keytab, settings.negotiate_service);
    if (!principal) return tl::make_unexpected(principal.error());
  }
  return {};
}

void prepare_ntlm(std::string_view netbios_domain) {
  // The mechanism would read users from a file of the caller's choice.
  unsetenv("NTLM_USER_FILE");
  // Only the second version of the protocol.
  setenv("LM_COMPAT_LEVEL", "5", 1);
  // One connection to winbind for each thread instead of one for each exchange.
  setenv("GSSNTLMSSP_WB_TLS_CTX", "1", 1);
  if (netbios_domain.empty()) {
    unsetenv("NETBIOS_COMPUTER_NAME");
    unsetenv("NETBIOS_DOMAIN_NAME");
  } else {
    setenv("NETBIOS_COMPUTER_NAME", netbios_form(own_host_name()).c_str(), 1);
    setenv("NETBIOS_DOMAIN_NAME", std::string(netbios_domain).c_str(), 1);
  }
  // Both come from files that are looked for only once: a worker that had no descriptor left at its first
  // logon would never have them.
  InUtf8::locale();
  OM_uint32 minor = 0;
  gss_OID_set names = GSS_C_NO_OID_SET;
  gss_inquire_names_for_mech(&minor, &g_ntlm, &names);
  gss_release_oid_set(&minor, &names);
}

bool ntlm_challenge_asks_winbind() {
  return getenv("NETBIOS_DOMAIN_NAME") == nullptr;
}

}  // namespace velder
