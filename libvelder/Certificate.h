// Says in words what is wrong with a server's certificate. Decides nothing: what is trusted is the TLS
// library's affair.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

namespace velder {

// What anybody can see of the certificate (DER): it cannot be read, it is not valid at this time, it is for
// other names than `host`. "" when there is nothing of that.
std::string certificate_fault(std::string_view der, const std::string& host, time_t now);

// Who issued it; for the log.
std::string certificate_issuer(std::string_view der);

}  // namespace velder
