// Questions to a directory server, as bytes: the search and the bind that an application would use in the
// place of the daemon. They are sent and compared like every other exchange, so the generator's cost is the
// same.
#pragma once

#include <string>

#include "bench/Subject.h"
#include "client/Error.h"

namespace velder_client {
class Connection;
}

namespace bench {

// Every message has the same number: one question at a time is under way on a connection.
//
// A search below DC=example by the indexed sAMAccountName, for names and direct groups.
std::string ldap_search(const Subject& subject);

std::string ldap_bind(const std::string& dn, const std::string& password);

// The bytes that answer `request`: exactly one entry about the subject, or a bind that succeeded.
velder_client::Result<std::string> learn_ldap_answer(velder_client::Connection& connection,
                                                     const std::string& request, const Subject& subject);

// The DN of the one entry in an answer to ldap_search.
std::string dn_found(const std::string& answer);

}  // namespace bench
