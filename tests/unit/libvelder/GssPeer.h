// The other side of an exchange, from libraries that nobody here wrote.
#pragma once

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

// An NTLM client with a user's name and password. One exchange.
class NtlmPeer {
 public:
  // `user` is "DOMAIN\user" or "user".
  NtlmPeer(std::string_view user, std::string_view password) {
    OM_uint32 minor = 0;
    gss_OID_set_desc mechanisms = {1, &ntlm()};
    gss_buffer_desc secret = buffer(password);
    gss_name_t name = import(user, GSS_C_NT_USER_NAME);
    const OM_uint32 major = gss_acquire_cred_with_password(
        &minor, name, &secret, GSS_C_INDEFINITE, &mechanisms, GSS_C_INITIATE, &credential_, nullptr, nullptr);
    gss_release_name(&minor, &name);
    if (GSS_ERROR(major)) throw std::runtime_error("no NTLM client credential");
  }
  ~NtlmPeer() {
    OM_uint32 minor = 0;
    gss_delete_sec_context(&minor, &context_, GSS_C_NO_BUFFER);
    gss_release_cred(&minor, &credential_);
  }
  NtlmPeer(const NtlmPeer&) = delete;
  NtlmPeer& operator=(const NtlmPeer&) = delete;

  std::string type1(OM_uint32 flags = 0) {
    flags_ = flags;
    return next("").value_or("");
  }
  // Nothing when the client does not take the challenge.
  std::optional<std::string> type3(std::string_view challenge) { return next(challenge); }

 private:
  static gss_OID_desc& ntlm() {
    static gss_OID_desc oid = {10, const_cast<char*>("\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a")};
    return oid;
  }
  static gss_buffer_desc buffer(std::string_view text) {
    return {text.size(), const_cast<char*>(text.data())};
  }
  static gss_name_t import(std::string_view text, gss_OID type) {
    OM_uint32 minor = 0;
    gss_name_t name = GSS_C_NO_NAME;
    gss_buffer_desc text_buffer = buffer(text);
    if (GSS_ERROR(gss_import_name(&minor, &text_buffer, type, &name))) throw std::runtime_error("no name");
    return name;
  }
  std::optional<std::string> next(std::string_view input) {
    OM_uint32 minor = 0;
    gss_buffer_desc in = buffer(input), out = GSS_C_EMPTY_BUFFER;
    gss_name_t target = import("HTTP@gateway.example.com", GSS_C_NT_HOSTBASED_SERVICE);
    const OM_uint32 major =
        gss_init_sec_context(&minor, credential_, &context_, target, &ntlm(), flags_, 0,
                             GSS_C_NO_CHANNEL_BINDINGS, &in, nullptr, &out, nullptr, nullptr);
    const std::string token(static_cast<const char*>(out.value), out.length);
    gss_release_buffer(&minor, &out);
    gss_release_name(&minor, &target);
    if (GSS_ERROR(major)) return std::nullopt;
    return token;
  }

  gss_cred_id_t credential_ = GSS_C_NO_CREDENTIAL;
  gss_ctx_id_t context_ = GSS_C_NO_CONTEXT;
  OM_uint32 flags_ = 0;
};
