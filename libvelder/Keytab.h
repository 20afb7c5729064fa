// What is in a Kerberos keytab. The library would notice a missing or wrong one at the first client only.
#pragma once

#include <string>

#include "libvelder/Error.h"

namespace velder {

// The principal of the keytab that `service` (HTTP@host, host names in any letter case) means; for an empty
// `service` any. The error names the file and what was expected: a keytab that cannot be read, without keys,
// or without one of that service.
Result<std::string> find_in_keytab(const std::string& file, const std::string& service);

}  // namespace velder
