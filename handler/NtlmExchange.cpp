#include "handler/NtlmExchange.h"

#include <unistd.h>

#include <cassert>  // __assert_fail
#include <cstring>
#include <memory>

#include "brellog/VrLog.h"
#include "handler/Base64.h"
#include "handler/EventHandler.h"
#include "handler/HandlerInternal.h"

namespace {

constexpr size_t kReceiveBytes = 2048;
constexpr size_t kTokenBytes = 3072;  // one less is decoded into
constexpr size_t kOutputBytes = 2048;
constexpr int kChallengeMade = 1;  // the library's answer to a good first message
constexpr int kUserProven = 0;     // and to a good second one

enum class Next {
  kStay,    // wait for the second request
  kReturn,  // the exchange is over: back to ordinary requests
  kClose,
};

// What the library made of a token. The buffers held secrets and are wiped.
struct TokenResult {
  int code = -1;
  int length = kOutputBytes;
  char output[kOutputBytes] = {};

  [[nodiscard]] size_t size() const {
    return length < 0 ? 0 : std::min(static_cast<size_t>(length), sizeof(output));
  }
  ~TokenResult() { explicit_bzero(output, sizeof(output)); }
};

// The body ends at its first zero byte, as clients of this exchange have always sent it.
bool parse_body(const std::string& frame, int expected_type, Velder::NTLMAuthRequest* request) {
  const std::string_view body = frame.c_str() + kHeaderBytes;
  return request->ParseFromArray(body.data(), static_cast<int>(body.size())) &&
         request->messagetype() == expected_type;
}

void validate(LdapModule& module, const Velder::NTLMAuthRequest& request, TokenResult* result) {
  char token[kTokenBytes] = {};
  // The length is the token's own even when the buffer took less of it.
  const int token_length = ToB64Dec(request.requestcontent().c_str(), token, kTokenBytes - 1);
  result->code = module.validate_ntlm_message(request.clientip().c_str(), token, token_length, result->output,
                                              result->length);
  explicit_bzero(token, sizeof(token));
}

Next answer_first(int fd, ntlm_authenticaton_task& task) {
  Velder::NTLMAuthRequest request;
  const WipeAtEnd wiped(request, &Velder::NTLMAuthRequest::mutable_requestcontent);
  if (!parse_body(task.first_frame, 1, &request)) {
    VRLOG(kLogError, "Error: invalid NTLM_AUTH_REQUEST type 1 message");
    return Next::kClose;
  }
  VRLOG(kLogDebug, "EventHandler:clientip=%s", request.clientip().c_str());
  TokenResult challenge;
  validate(task.module, request, &challenge);

  Velder::NTLMAuthResponse response;
  const bool made = challenge.code == kChallengeMade;
  response.set_result(made ? 0 : -1);
  if (made) {
    VRLOG(kLogDebug, "Info: successfully authenticate ntlm messag type 1");  // sic
    char text[kTokenBytes] = {};
    ToB64Enc(challenge.output, static_cast<int>(challenge.size()), text, sizeof(text));
    response.set_responsecontent(text);
    explicit_bzero(text, sizeof(text));
  } else {
    VRLOG(kLogDebug, "Info: fail authenticate ntlm messag type 1");  // sic
  }
  VRLOG(kLogDebug, "ntlm message type 1, rc(%d)", challenge.code);
  if (reply_request(fd, Velder::NTLM_AUTH_RESPONSE, &response) == -1) return Next::kClose;
  if (!made) return Next::kReturn;
  task.stage = kNtlmGathering;
  return Next::kStay;
}

Next answer_second(int fd, ntlm_authenticaton_task& task) {
  Velder::NTLMAuthRequest request;
  const WipeAtEnd wiped(request, &Velder::NTLMAuthRequest::mutable_requestcontent);
  if (!parse_body(task.pending_frame, 2, &request)) {
    VRLOG(kLogError, "Error: invalid NTLM_AUTH_REQUEST type 2 message");
    return Next::kClose;
  }
  TokenResult verdict;
  validate(task.module, request, &verdict);

  Velder::NTLMAuthResponse response;
  const bool proven = verdict.code == kUserProven;
  response.set_result(proven ? 0 : -1);
  response.set_responsecontent(verdict.output, verdict.size());
  if (proven) {
    VRLOG(kLogDebug, "Info: successfully authenticate ntlm messag type 3");  // sic
  } else {
    VRLOG(kLogDebug, "Info: fail authenticate ntlm messag type 3");  // sic
  }
  VRLOG(kLogDebug, "ntlm message type 2, rc(%d)", response.result());
  return reply_request(fd, Velder::NTLM_AUTH_RESPONSE, &response) == -1 ? Next::kClose : Next::kReturn;
}

Next gather_second(int fd, ntlm_authenticaton_task& task) {
  char buffer[kReceiveBytes];
  switch (gather_frame(fd, buffer, TypeCheck::kIgnore, task.pending_frame)) {
    case GatherResult::kWait: return Next::kStay;
    case GatherResult::kClose: return Next::kClose;
    case GatherResult::kComplete: break;
  }
  task.stage = kNtlmSecondRequest;
  VRLOG(kLogDebug, "Info: finish to receive client message");
  return answer_second(fd, task);
}

void wipe_and_delete(std::unique_ptr<ntlm_authenticaton_task> task) {
  wipe(task->first_frame);
  wipe(task->pending_frame);
}

}  // namespace

Outcome start_ntlm_exchange(Frame& frame) {
  auto task = std::make_unique<ntlm_authenticaton_task>();
  task->stage = kNtlmFirstRequest;
  task->first_frame = std::move(frame.bytes);
  ntlm_authentication_handler(frame.fd, EVENT_READ, task.release());
  return Outcome::kHandedOver;
}

void ntlm_authentication_handler(int fd, short /*events*/, void* arg) {
  VrLogContext::setCurrentThreadTag(fd);
  std::unique_ptr<ntlm_authenticaton_task> task(static_cast<ntlm_authenticaton_task*>(arg));
  // Operators know this failure by its text.
  if (task == nullptr) __assert_fail("__null != task", __FILE__, __LINE__, __PRETTY_FUNCTION__);
  const Next next = task->stage == kNtlmFirstRequest ? answer_first(fd, *task) : gather_second(fd, *task);
  switch (next) {
    case Next::kStay: wait_for(fd, EVENT_READ, ntlm_authentication_handler, task.release()); return;
    case Next::kReturn:
      wipe_and_delete(std::move(task));
      wait_for(fd, EVENT_READ, tcp_read_socket_handler, nullptr);
      return;
    case Next::kClose:
      wipe_and_delete(std::move(task));
      close_connection(fd);
      return;
  }
}
