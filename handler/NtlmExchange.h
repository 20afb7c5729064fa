// The NTLM exchange: two requests on one connection, the challenge between them. While it lasts the
// connection belongs to it; nothing else may be sent in between.
#pragma once

#include <cstdint>
#include <string>

#include "libvelder/LdapModule.h"

enum NtlmStage : int32_t {
  kNtlmFirstRequest = 1,   // the first request is in hand
  kNtlmGathering = 2,      // the challenge is out, the second request is being received
  kNtlmSecondRequest = 3,  // the second request is complete
};

// One exchange; sic. Made with new by the dispatcher, deleted by the handler however the exchange ends.
class ntlm_authenticaton_task {
 public:
  int32_t stage;
  LdapModule module;  // keeps the challenge between the two requests
  std::string first_frame;
  std::string pending_frame;
};

// Runs directly with the first request in hand, then when the connection is readable. `task` is an
// ntlm_authenticaton_task and never null. Leaves a read wait or a closed socket.
void ntlm_authentication_handler(int fd, short events, void* task);
