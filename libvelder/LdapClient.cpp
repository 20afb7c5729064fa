// Readies the client library of the whole process.
#include <ldap.h>

#include <array>
#include <string_view>

#include "brellog/VrLog.h"
#include "libvelder/LdapModule.h"

namespace {

// Which releases share one interface: 2.5.13 is 20513.
constexpr int release_of(int vendor_version) {
  return vendor_version / 100;
}

struct ApiInfo {
  LDAPAPIInfo info{};
  ApiInfo() { info.ldapai_info_version = LDAP_API_INFO_VERSION; }
  ApiInfo(const ApiInfo&) = delete;
  ApiInfo& operator=(const ApiInfo&) = delete;
  ~ApiInfo() {
    ldap_memvfree(reinterpret_cast<void**>(info.ldapai_extensions));
    ldap_memfree(info.ldapai_vendor_name);
  }
};

bool versions_fit() {
  ApiInfo api;
  if (ldap_get_option(nullptr, LDAP_OPT_API_INFO, &api.info) != LDAP_OPT_SUCCESS) {
    VRLOG(kLogError, "LDAP client library: no API information version %d", LDAP_API_INFO_VERSION);
    return false;
  }
  if (api.info.ldapai_api_version != LDAP_API_VERSION || api.info.ldapai_protocol_version < LDAP_VERSION3 ||
      release_of(api.info.ldapai_vendor_version) != release_of(LDAP_VENDOR_VERSION)) {
    VRLOG(kLogError, "LDAP client library: API %d, release %d; built for API %d, release %d",
          api.info.ldapai_api_version, api.info.ldapai_vendor_version, LDAP_API_VERSION, LDAP_VENDOR_VERSION);
    return false;
  }
  return true;
}

bool has_feature(const char* name) {
  LDAPAPIFeatureInfo feature{};
  feature.ldapaif_info_version = LDAP_FEATURE_INFO_VERSION;
  std::array<char, 32> text{};  // the library's structure wants a name that it could write to
  std::string_view(name).copy(text.data(), text.size() - 1);
  feature.ldapaif_name = text.data();
  if (ldap_get_option(nullptr, LDAP_OPT_API_FEATURE_INFO, &feature) == LDAP_OPT_SUCCESS) return true;
  VRLOG(kLogError, "LDAP client library: no feature %s", name);
  return false;
}

bool set_option(int option, const void* value, const char* what) {
  if (ldap_set_option(nullptr, option, value) == LDAP_OPT_SUCCESS) return true;
  VRLOG(kLogError, "LDAP client library: cannot set %s", what);
  return false;
}

// Defaults of every connection made later. They also win over ldap.conf and the environment, which must not
// decide whether a gateway trusts a certificate.
bool set_client_options() {
  const int protocol = LDAP_VERSION3;
  const int demand = LDAP_OPT_X_TLS_DEMAND;
  return set_option(LDAP_OPT_PROTOCOL_VERSION, &protocol, "the protocol version") &&
         set_option(LDAP_OPT_REFERRALS, LDAP_OPT_OFF, "referrals off") &&
         set_option(LDAP_OPT_RESTART, LDAP_OPT_ON, "restart after signals") &&
         set_option(LDAP_OPT_X_TLS_REQUIRE_CERT, &demand, "certificate checking");
}

}  // namespace

int prldap_install_routines(void* ld, int shared) {
  if (ld != nullptr || shared != 1) return -1;
  const bool ready = versions_fit() && has_feature("THREAD_SAFE") && has_feature("SESSION_THREAD_SAFE") &&
                     has_feature("OPERATION_THREAD_SAFE") && set_client_options();
  return ready ? 0 : -1;
}
