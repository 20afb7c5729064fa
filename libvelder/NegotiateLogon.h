// One Negotiate token: Kerberos, bare or inside SPNEGO. Nothing is kept between two tokens.
#pragma once

#include <string>
#include <string_view>

#include "libvelder/GssAcceptor.h"

namespace velder {

struct NegotiateAnswer {
  bool proven = false;
  std::string principal;  // user@REALM
  std::string token;      // base64; for the client, also with a refusal
  bool another_leg = false;
};

// `text` is base64. Every refusal is one line of the log, except where no keytab is configured: there nobody
// is let in and nothing is said.
NegotiateAnswer check_negotiate_token(GssAcceptor& acceptor, std::string_view text);

}  // namespace velder
