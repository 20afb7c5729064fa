#include "libvelder/LdapConnection.h"

#include <gtest/gtest.h>
#include <ldap.h>

namespace {

TEST(LdapConnection, OptionsOfADaemonHoldForLaterConnections) {
  // What an administrator's ldap.conf may have left behind.
  const int never = LDAP_OPT_X_TLS_NEVER;
  ASSERT_EQ(ldap_set_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &never), LDAP_OPT_SUCCESS);

  ASSERT_EQ(prldap_install_routines(nullptr, 1), 0);

  LDAP* connection = nullptr;
  ASSERT_EQ(ldap_initialize(&connection, "ldap://127.0.0.1:9"), LDAP_SUCCESS);
  int version = 0;
  int certificates = -1;
  int referrals = -1;
  EXPECT_EQ(ldap_get_option(connection, LDAP_OPT_PROTOCOL_VERSION, &version), LDAP_OPT_SUCCESS);
  EXPECT_EQ(ldap_get_option(connection, LDAP_OPT_X_TLS_REQUIRE_CERT, &certificates), LDAP_OPT_SUCCESS);
  EXPECT_EQ(ldap_get_option(connection, LDAP_OPT_REFERRALS, &referrals), LDAP_OPT_SUCCESS);
  EXPECT_EQ(version, 3);
  EXPECT_EQ(certificates, LDAP_OPT_X_TLS_DEMAND);
  EXPECT_EQ(referrals, 0);
  ldap_unbind_ext_s(connection, nullptr, nullptr);
}

TEST(LdapConnection, OtherArgumentsAreRefused) {
  int something = 0;
  EXPECT_EQ(prldap_install_routines(&something, 1), -1);
  EXPECT_EQ(prldap_install_routines(nullptr, 0), -1);
  EXPECT_EQ(prldap_install_routines(nullptr, 2), -1);
}

}  // namespace
