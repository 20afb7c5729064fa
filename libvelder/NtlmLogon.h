// An NTLM exchange: who is behind a message 3, and whether the directory lets them in.
//
// The mechanism proves, the directory says who it is. The user and the domain that the client wrote are
// looked up first; a hash is taken from the directory, else from the users file; where there are neither, the
// mechanism asks winbind. Every refusal is one line of the log.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "libvelder/GssAcceptor.h"

namespace velder {

// For one exchange and one thread at a time. A challenge answers for one message 3, whatever comes of it.
class NtlmLogon {
 public:
  enum class Step { kRefused, kChallenge, kProven };

  // `out` is the challenge or "NETBIOS\uid"; empty for a refusal. `message` is changed and wiped.
  Step step(std::string_view client_ip, std::string message, std::string& out);

 private:
  Step challenge(std::string_view client_ip, std::string& message, std::string& out);
  Step verify(std::string_view client_ip, std::string& message, std::string& out);

  enum class Stage { kFresh, kChallenged, kOver };
  Stage stage_ = Stage::kFresh;
  uint32_t challenge_flags_ = 0;
  std::shared_ptr<GssAcceptor> acceptor_;  // outlives the context
  GssContext context_;
};

// Logs the refusal of a message that is not even looked at.
void log_ntlm_refusal(std::string_view client_ip, std::string_view why);

}  // namespace velder
