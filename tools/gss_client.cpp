#include "tools/gss_client.h"

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>

#include <cstring>
#include <utility>

namespace gss_client {
namespace {

gss_OID_desc oid_of(std::string_view bytes) {
  return {static_cast<OM_uint32>(bytes.size()), const_cast<char*>(bytes.data())};
}

// On the wire 1.3.6.1.4.1.311.2.2.10, 1.3.6.1.5.5.2 and 1.2.840.113554.1.2.2.
gss_OID_desc g_ntlm = oid_of({"\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a", 10});
gss_OID_desc g_spnego = oid_of({"\x2b\x06\x01\x05\x05\x02", 6});
gss_OID_desc g_kerberos = oid_of({"\x2a\x86\x48\x86\xf7\x12\x01\x02\x02", 9});

// The mechanism wants a target; which one does not matter, since the daemon's challenge names none.
constexpr char kAnyTarget[] = "HTTP@gateway";

gss_buffer_desc buffer_of(std::string_view text) {
  return {text.size(), const_cast<char*>(text.data())};
}

void append_status(OM_uint32 code, int kind, gss_OID mechanism, std::string& text) {
  OM_uint32 more = 0;
  do {
    OM_uint32 minor = 0;
    gss_buffer_desc part = GSS_C_EMPTY_BUFFER;
    if (GSS_ERROR(gss_display_status(&minor, code, kind, mechanism, &more, &part))) return;
    if (!text.empty()) text += ": ";
    // SPNEGO counts the NUL behind its texts.
    text.append(static_cast<const char*>(part.value),
                strnlen(static_cast<const char*>(part.value), part.length));
    gss_release_buffer(&minor, &part);
  } while (more != 0);
}

tl::unexpected<std::string> failed(const char* what, OM_uint32 major, OM_uint32 minor, gss_OID mechanism) {
  std::string text = what;
  append_status(major, GSS_C_GSS_CODE, mechanism, text);
  if (minor != 0) append_status(minor, GSS_C_MECH_CODE, mechanism, text);
  return tl::make_unexpected(std::move(text));
}

// A principal name has no domain in front: the mechanism would split it at the @ otherwise.
std::string mechanism_form(std::string_view user) {
  const bool principal =
      user.find('\\') == std::string_view::npos && user.find('@') != std::string_view::npos;
  return (principal ? "\\" : "") + std::string(user);
}

}  // namespace

struct Client::State {
  State() = default;
  ~State() {
    OM_uint32 minor = 0;
    gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
    gss_release_cred(&minor, &credential);
    gss_release_name(&minor, &target);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  tl::expected<void, std::string> aim_at(const std::string& service) {
    OM_uint32 minor = 0;
    gss_buffer_desc text = buffer_of(service);
    const OM_uint32 major = gss_import_name(&minor, &text, GSS_C_NT_HOSTBASED_SERVICE, &target);
    if (GSS_ERROR(major)) return failed("service", major, minor, GSS_C_NO_OID);
    return {};
  }

  gss_OID mechanism = GSS_C_NO_OID;
  gss_OID reasons_of = GSS_C_NO_OID;  // whose words explain a failure
  OM_uint32 flags = 0;
  gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
  gss_name_t target = GSS_C_NO_NAME;
  gss_ctx_id_t context = GSS_C_NO_CONTEXT;
  bool done = false;
};

Client::Client(std::unique_ptr<State> state) : state_(std::move(state)) {}
Client::Client(Client&& other) noexcept = default;
Client& Client::operator=(Client&& other) noexcept = default;
Client::~Client() = default;

tl::expected<Client, std::string> Client::ntlm(std::string_view user, const std::string& password) {
  auto state = std::make_unique<State>();
  state->mechanism = state->reasons_of = &g_ntlm;
  if (auto aimed = state->aim_at(kAnyTarget); !aimed) return tl::make_unexpected(aimed.error());
  OM_uint32 minor = 0;
  gss_name_t name = GSS_C_NO_NAME;
  const std::string form = mechanism_form(user);
  gss_buffer_desc text = buffer_of(form);
  OM_uint32 major = gss_import_name(&minor, &text, GSS_C_NT_USER_NAME, &name);
  if (GSS_ERROR(major)) return failed("user", major, minor, &g_ntlm);
  gss_OID_set_desc mechanisms = {1, &g_ntlm};
  gss_buffer_desc secret = buffer_of(password);
  OM_uint32 ignored = 0;
  major = gss_acquire_cred_with_password(&minor, name, &secret, GSS_C_INDEFINITE, &mechanisms, GSS_C_INITIATE,
                                         &state->credential, nullptr, nullptr);
  gss_release_name(&ignored, &name);
  if (GSS_ERROR(major)) return failed("NTLM (is the mechanism installed?)", major, minor, &g_ntlm);
  return Client(std::move(state));
}

tl::expected<Client, std::string> Client::kerberos(const std::string& service) {
  auto state = std::make_unique<State>();
  state->mechanism = &g_spnego;
  state->reasons_of = &g_kerberos;
  state->flags = GSS_C_MUTUAL_FLAG;
  if (auto aimed = state->aim_at(service); !aimed) return tl::make_unexpected(aimed.error());
  gss_OID_set_desc with_spnego = {1, &g_spnego};
  gss_OID_set_desc only_kerberos = {1, &g_kerberos};
  OM_uint32 minor = 0;
  OM_uint32 major = gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &with_spnego, GSS_C_INITIATE,
                                     &state->credential, nullptr, nullptr);
  if (!GSS_ERROR(major)) major = gss_set_neg_mechs(&minor, state->credential, &only_kerberos);
  if (GSS_ERROR(major)) return failed("no ticket", major, minor, &g_kerberos);
  return Client(std::move(state));
}

Client::Result Client::next(std::string_view received) {
  OM_uint32 minor = 0, ignored = 0;
  gss_buffer_desc in = buffer_of(received), out = GSS_C_EMPTY_BUFFER;
  const OM_uint32 major =
      gss_init_sec_context(&minor, state_->credential, &state_->context, state_->target, state_->mechanism,
                           state_->flags, 0, GSS_C_NO_CHANNEL_BINDINGS, &in, nullptr, &out, nullptr, nullptr);
  std::string token(static_cast<const char*>(out.value), out.length);
  gss_release_buffer(&ignored, &out);
  if (GSS_ERROR(major)) {
    return failed(received.empty() ? "no token" : "what the daemon answered is not accepted", major, minor,
                  state_->reasons_of);
  }
  state_->done = major == GSS_S_COMPLETE;
  return token;
}

bool Client::done() const {
  return state_->done;
}

}  // namespace gss_client
