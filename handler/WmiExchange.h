// The exchange with the local agent that knows who is logged on at an address: one TCP connection to
// 127.0.0.1:5544 per question, one plain-text request, one plain-text reply. Driven by the event loop; no
// thread waits for the agent, and nothing times out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

enum class WmiStage : int32_t {
  kConnect = 1,  // no socket yet
  kWrite = 2,    // connecting or connected; the question is not sent
  kReceive = 3,  // the question is sent
  kBound = 4,    // the binding was tried: the client that waits can be answered
};

// Which of the agent's sources to ask.
enum WmiScope : int32_t {
  kScopeBoth = 0,
  kScopeDomainController = 1,
  kScopeClient = 2,
};

constexpr size_t kAgentTextBytes = 512;  // of a question or a reply, its NUL included

// One exchange. Allocated with malloc and zeroed; owned and freed by transparent_auth_handler from its
// first call on.
struct wmi_auth_task {
  WmiStage stage;
  int32_t scope;
  char ip[128];
  int32_t agent_fd;   // -1 until there is a socket
  int32_t client_fd;  // the connection that waits for the outcome, not registered meanwhile; -1: none
  char account[kAgentTextBytes];  // that the address is bound to for a client that waits
};

// Runs whenever the agent's socket is ready, and directly, with -1 for both, to begin. Neither `fd` nor
// `events` decides anything. Leaves a wait for the agent or the store, or everything finished and freed.
void transparent_auth_handler(int fd, short events, void* arg);

// The question for `scope` about `ip`, as it goes over the wire.
std::string wmi_question(int32_t scope, const char* ip);

enum class WmiAnswer {
  kUser,     // `account` was filled
  kNobody,   // the agent knows nobody, or failed
  kInvalid,  // it claims to know somebody and does not say whom
};

// Reads the agent's reply; `account` gets DOMAIN\name.
WmiAnswer parse_wmi_answer(const char* text, std::string* account);
