// The other side of an exchange, from libraries that nobody here wrote.
#pragma once

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

inline gss_OID_desc g_peer_ntlm = {10, const_cast<char*>("\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a")};
inline gss_OID_desc g_peer_spnego = {6, const_cast<char*>("\x2b\x06\x01\x05\x05\x02")};

inline gss_buffer_desc peer_buffer(std::string_view text) {
  return {text.size(), const_cast<char*>(text.data())};
}

inline gss_name_t peer_name(std::string_view text, gss_OID type) {
  OM_uint32 minor = 0;
  gss_name_t name = GSS_C_NO_NAME;
  gss_buffer_desc buffer = peer_buffer(text);
  if (GSS_ERROR(gss_import_name(&minor, &buffer, type, &name))) throw std::runtime_error("no name");
  return name;
}

// A user's name, "DOMAIN\\user" or "user", whose hash a users file has. A plain password would cost the
// mechanism 6 KB, which it never gives back.
class NtlmUser {
 public:
  NtlmUser(std::string_view user, const std::string& users_file) {
    OM_uint32 minor = 0;
    gss_OID_set_desc mechanisms = {1, &g_peer_ntlm};
    gss_key_value_element_desc element = {"ntlmssp_keyfile", users_file.c_str()};
    const gss_key_value_set_desc store = {1, &element};
    gss_name_t name = peer_name(user, GSS_C_NT_USER_NAME);
    const OM_uint32 major = gss_acquire_cred_from(&minor, name, GSS_C_INDEFINITE, &mechanisms, GSS_C_INITIATE,
                                                  &store, &credential_, nullptr, nullptr);
    gss_release_name(&minor, &name);
    if (GSS_ERROR(major)) throw std::runtime_error("no NTLM client credential");
  }
  ~NtlmUser() {
    OM_uint32 minor = 0;
    gss_release_cred(&minor, &credential_);
  }
  NtlmUser(const NtlmUser&) = delete;
  NtlmUser& operator=(const NtlmUser&) = delete;
  gss_cred_id_t get() const { return credential_; }

 private:
  gss_cred_id_t credential_ = GSS_C_NO_CREDENTIAL;
};

// The client of one exchange.
class GssPeer {
 public:
  explicit GssPeer(const NtlmUser& user, OM_uint32 flags = 0)
      : GssPeer(user.get(), &g_peer_ntlm, "HTTP@gateway.example.com", flags) {}
  // Negotiate, with a ticket of the default credential cache.
  explicit GssPeer(std::string_view service)
      : GssPeer(GSS_C_NO_CREDENTIAL, &g_peer_spnego, service, GSS_C_MUTUAL_FLAG) {}
  ~GssPeer() {
    OM_uint32 minor = 0;
    gss_delete_sec_context(&minor, &context_, GSS_C_NO_BUFFER);
    gss_release_name(&minor, &target_);
  }
  GssPeer(const GssPeer&) = delete;
  GssPeer& operator=(const GssPeer&) = delete;

  // Nothing when the client does not take what it received.
  std::optional<std::string> next(std::string_view received = "") {
    OM_uint32 minor = 0;
    gss_buffer_desc in = peer_buffer(received), out = GSS_C_EMPTY_BUFFER;
    const OM_uint32 major =
        gss_init_sec_context(&minor, credential_, &context_, target_, mechanism_, flags_, 0,
                             GSS_C_NO_CHANNEL_BINDINGS, &in, nullptr, &out, nullptr, nullptr);
    const std::string token(static_cast<const char*>(out.value), out.length);
    gss_release_buffer(&minor, &out);
    if (GSS_ERROR(major)) return std::nullopt;
    return token;
  }

 private:
  GssPeer(gss_cred_id_t credential, gss_OID mechanism, std::string_view target, OM_uint32 flags)
      : credential_(credential),
        mechanism_(mechanism),
        flags_(flags),
        target_(peer_name(target, GSS_C_NT_HOSTBASED_SERVICE)) {}

  const gss_cred_id_t credential_;  // not ours
  const gss_OID mechanism_;
  const OM_uint32 flags_;
  gss_name_t target_;
  gss_ctx_id_t context_ = GSS_C_NO_CONTEXT;
};
