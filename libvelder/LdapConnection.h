// The client library for directory servers. This unit is the only one that sees ldap.h.
//
// prldap_install_routines, which the public header declares, is defined here: it readies the client library
// of the whole process before any connection exists.
#pragma once

#include "libvelder/LdapModule.h"
