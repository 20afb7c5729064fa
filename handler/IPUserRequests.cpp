// The binding of client addresses to users: bind, unbind, query, export, and the request that asks the
// local agent who is behind an address.
#include <google/protobuf/io/coded_stream.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "brellog/VrLog.h"
#include "cache/Cache.h"
#include "handler/BindingChanges.h"
#include "handler/EventHandler.h"
#include "handler/HandlerInternal.h"
#include "handler/WmiExchange.h"
#include "wrapper/CacheWrapper.h"

namespace {

constexpr int kQueryLifetime = 86400;  // seconds
// An address that was just asked about is answered from the cache for this long, without asking the agent.
constexpr int kAuthPlaceholderLifetime = 120;
constexpr const char* kGuestUser = "Proxy_guest_user";  // the proxy's guest account: not in any directory

// The tag before a text or a message in serialised form.
constexpr uint32_t tag_of(int field) {
  return static_cast<uint32_t>(field) << 3 | 2;
}

// Whether a serialised answer is about this user: its one field, the user information, begins with the name.
bool is_about(const std::string& user, const std::string& encoded) {
  google::protobuf::io::CodedInputStream input(reinterpret_cast<const uint8_t*>(encoded.data()),
                                               static_cast<int>(encoded.size()));
  uint32_t length = 0;
  return input.ReadTag() == tag_of(Velder::IPUserQueryResponse::kUserInfoFieldNumber) &&
         input.ReadVarint32(&length) && input.ReadTag() == tag_of(Velder::UserInfo::kUserLnFieldNumber) &&
         input.ReadVarint32(&length) &&
         std::string_view(encoded).substr(static_cast<size_t>(input.CurrentPosition()), length) == user;
}

// True when the cached answer is about the user to whom the address is bound now; `encoded` is then it.
bool find_cached(const char* ip, const std::string& user, std::string& encoded) {
  if (Velder::search_reply_cache(Velder::IP_USER_QUERY_REQUEST, ip, encoded) == 0 && is_about(user, encoded))
    return true;
  encoded.clear();
  return false;
}

// Appends what the directory knows of the user to the answer, as a field.
void answer_from_directory(const char* ip, const std::string& user, std::string& encoded) {
  constexpr int kField = Velder::IPUserQueryResponse::kUserInfoFieldNumber;
  const uint32_t generation = Velder::reply_cache_generation();
  int code = 0;
  if (strcasecmp(whole_text(user), kGuestUser) == 0) {
    append_user_info(kField, kGuestUser, {{}, kGuestUser, kGuestUser, {}, kGuestUser, {}}, encoded);
  } else {
    code = encode_user(kField, user, false, encoded);
  }
  if (code != 0) return;
  if (Velder::update_reply_cache(Velder::IP_USER_QUERY_REQUEST, ip, encoded, kQueryLifetime, generation) !=
      0) {
    VRLOG(kLogInfo, "Error: fail to update reply cache");
  }
}

// The scope of the agent's search that a request asks for.
int agent_scope(const Velder::IPAuthRequest& request) {
  if (!request.has_scope()) {
    VRLOG(kLogDebug, "both dc cache and client wmi query");
    return kScopeBoth;
  }
  switch (request.scope()) {
    case 1: VRLOG(kLogDebug, "only dc cache query"); return kScopeDomainController;
    case 2: VRLOG(kLogDebug, "only wmi client query"); return kScopeClient;
    case 3: VRLOG(kLogDebug, "query both dc cache and client"); return kScopeBoth;
    default:
      VRLOG(kLogInfo, "Error: unkonw scope, query both dc cache and client");  // sic
      return kScopeBoth;
  }
}

wmi_auth_task* new_wmi_task(const Velder::IPAuthRequest& request, int client_fd) {
  auto* task = static_cast<wmi_auth_task*>(malloc(sizeof(wmi_auth_task)));
  if (task == nullptr) return nullptr;
  memset(task, 0, sizeof(*task));
  task->scope = agent_scope(request);
  task->stage = WmiStage::kConnect;
  task->client_fd = client_fd;
  task->agent_fd = -1;
  strncpy(task->ip, whole_text(request.ip()), sizeof(task->ip) - 1);
  return task;
}

// Default mode, an address asked about a moment ago: the answer of then, and no question to the agent.
bool answer_auth_from_cache(const Frame& frame, const char* ip, Outcome* outcome) {
  Velder::IPAuthResponse response;
  if (Velder::search_reply_cache(frame.type, ip, &response) != 0) {
    response.Clear();
    response.set_result(0);
    if (Velder::update_reply_cache(frame.type, ip, &response, kAuthPlaceholderLifetime) != 0) {
      VRLOG(kLogInfo, "Error: fail to update reply cache");
    }
    return false;
  }
  VRLOG(kLogDebug, "messge_type(%d), async, ip(%s), cache, rc(%d)", frame.type, ip,
        response.result());  // sic
  *outcome = reply(frame, response);
  return true;
}

// Default mode: the client gets its answer at once; what the agent says only fills the IP-user cache.
Outcome answer_then_ask_agent(const Frame& frame, wmi_auth_task* task) {
  Velder::IPAuthResponse response;
  response.set_result(0);
  VRLOG(kLogDebug, "messge_type(%d), async, ip(%s), rc(%d)", frame.type, task->ip, response.result());  // sic
  if (reply(frame, response) == Outcome::kClose) {
    free(task);
    return Outcome::kClose;
  }
  task->client_fd = -1;
  wait_for(frame.fd, EVENT_READ, tcp_read_socket_handler, nullptr);
  transparent_auth_handler(-1, -1, task);
  return Outcome::kHandedOver;
}

}  // namespace

Outcome handle_ip_bind(Frame& frame) {
  Velder::IPUserBindRequest request;
  if (!parse_request(frame, &request)) return Outcome::kClose;
  return change_binding(
      {frame.fd, frame.type, std::move(*request.mutable_ip()), std::move(*request.mutable_user_ln())});
}

Outcome handle_ip_unbind(Frame& frame) {
  Velder::IPUserUnBindRequest request;
  if (!parse_request(frame, &request)) return Outcome::kClose;
  return change_binding({frame.fd, frame.type, std::move(*request.mutable_ip()), {}});
}

Outcome handle_ip_query(Frame& frame) {
  Velder::IPUserQueryRequest request;
  if (!parse_request(frame, &request)) return Outcome::kClose;

  const char* ip = whole_text(request.ip());
  Velder::IPUserQueryResponse response;
  std::string user;
  long expire = 0;
  const int code = CacheWrapper::query_cache_item(ip, user, expire);
  std::string info;  // the field that comes last
  if (code == 0) {
    if (find_cached(ip, user, info)) {
      VRLOG(kLogDebug, "Debug: in reply cache (%s->%s)", ip, user.c_str());
    } else {
      VRLOG(kLogDebug, "Debug: miss from reply cache, query database");
      answer_from_directory(ip, user, info);
    }
  }
  // The directory's code never reaches the client: a bound address has a user even when nobody knows more.
  response.set_result(code);
  response.set_expire_at(static_cast<uint32_t>(expire));
  VRLOG(kLogDebug, "message_type(%d) ip(%s), rc(%d)", frame.type, ip, code);
  std::string answer(kHeaderBytes, '\0');
  response.AppendPartialToString(&answer);
  answer += info;
  return reply_encoded(frame, answer);
}

Outcome handle_ip_export(Frame& frame) {
  Velder::IPUserCacheExportRequest request;
  if (!parse_request(frame, &request)) return Outcome::kClose;

  Velder::IPUserCacheExportResponse response;
  response.set_result(CacheWrapper::export_cache_item(request.file_path()) ? 0 : -1);
  VRLOG(kLogDebug, "message_type(%d) ip(%s), rc(%d)", frame.type, request.file_path().c_str(),
        response.result());
  return reply(frame, response);
}

Outcome handle_ip_auth(Frame& frame) {
  Velder::IPAuthRequest request;
  const std::string_view body = frame.body();
  if (!request.ParseFromArray(body.data(), static_cast<int>(body.size()))) {
    VRLOG(kLogError, "Error: fail to parse IP_AUTH_REQUEST message");
    return Outcome::kClose;
  }

  const bool client_waits = request.has_async() && request.async() == 1;
  Outcome outcome{};
  if (!client_waits && answer_auth_from_cache(frame, whole_text(request.ip()), &outcome)) return outcome;

  wmi_auth_task* task = new_wmi_task(request, frame.fd);
  if (task == nullptr) return Outcome::kClose;
  if (!client_waits) return answer_then_ask_agent(frame, task);
  transparent_auth_handler(-1, -1, task);
  return Outcome::kHandedOver;
}
