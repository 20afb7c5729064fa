#include "handler/WmiExchange.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "brellog/VrLog.h"
#include "handler/BindingChanges.h"
#include "handler/EventHandler.h"
#include "handler/HandlerInternal.h"

namespace {

constexpr uint16_t kAgentPort = 5544;
constexpr std::string_view kFound = "tolva_wmi_ok:";

enum class Step {
  kNext,       // the stage is done: run the next one
  kWaitRead,   // until the agent's socket is readable
  kWaitWrite,  // until it is writable
  kStore,      // until the binding is stored; the exchange is out of our hands
  kDone,       // finish
};

Step connect_agent(wmi_auth_task& task) {
  VRLOG(kLogDebug, "transparent_auth_handler(): connect stage");
  task.agent_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (task.agent_fd < 0) {
    VRLOG(kLogInfo, "Error: fail to create socket for wmi daemon (%s)", strerror(errno));
    return Step::kDone;
  }
  VRLOG(kLogDebug, "transparent_auth_handler(): connection to wmi daemon (%d)", task.agent_fd);
  fcntl(task.agent_fd, F_SETFL, fcntl(task.agent_fd, F_GETFL) | O_NONBLOCK);

  sockaddr_in agent{};
  agent.sin_family = AF_INET;
  agent.sin_port = htons(kAgentPort);
  agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  task.stage = WmiStage::kWrite;
  if (connect(task.agent_fd, reinterpret_cast<sockaddr*>(&agent), sizeof(agent)) == 0) return Step::kNext;
  if (errno == EINPROGRESS) return Step::kWaitWrite;
  VRLOG(kLogInfo, "Error: fail to connect wmi daemon (%s)", strerror(errno));
  return Step::kDone;
}

// A connect that failed in the background shows up here.
Step send_question(wmi_auth_task& task) {
  VRLOG(kLogDebug, "transparent_auth_handler(): write stage");
  const std::string question = wmi_question(task.scope, task.ip);
  if (send(task.agent_fd, question.data(), question.size(), 0) < 0) {
    if (errno == EAGAIN) return Step::kWaitWrite;
    VRLOG(kLogInfo, "Error: fail to write wmi request to wmi daemon (%s)", strerror(errno));
    return Step::kDone;
  }
  task.stage = WmiStage::kReceive;
  return Step::kNext;
}

// Binds the address. A client that waits is not answered before that is done: it may ask for the address at
// once.
Step use_account(wmi_auth_task& task, const std::string& account) {
  VRLOG(kLogDebug, "transparent_auth_handler(): account = (%s)", account.c_str());
  BindingChange change{-1, Velder::IP_USER_BIND_REQUEST, task.ip, account};
  const bool client_waits = task.client_fd >= 0;
  if (client_waits) {
    task.stage = WmiStage::kBound;
    strncpy(task.account, account.c_str(), sizeof(task.account) - 1);
    change.fd = task.agent_fd;
    change.exchange = &task;
  }
  change_binding(std::move(change));
  return client_waits ? Step::kStore : Step::kDone;
}

// What a client that waits is told: the result, and the user information in serialised form.
struct Answer {
  int result = -1;
  std::string info;
};

// What the agent knows is answered even when the binding could not be stored.
Step look_up_account(const wmi_auth_task& task, Answer* answer) {
  answer->result =
      encode_user(Velder::IPAuthResponse::kUserInfoFieldNumber, task.account, false, answer->info);
  if (answer->result != 0) answer->info.clear();
  return Step::kDone;
}

// The reply must come in one piece: what one receive gives is all that is looked at.
Step read_answer(wmi_auth_task& task) {
  VRLOG(kLogDebug, "transparent_auth_handler(): receive stage");
  std::array<char, kAgentTextBytes> text{};
  const ssize_t received = recv(task.agent_fd, text.data(), text.size() - 1, 0);
  if (received < 0 && errno == EAGAIN) return Step::kWaitRead;
  if (received < 1) {
    VRLOG(kLogInfo, "Error: fail to receive resopnse from wim daemon (%s)", strerror(errno));  // sic
    return Step::kDone;
  }
  VRLOG(kLogDebug, "transparent_auth_handler(): recv content from wmi [%s]", text.data());
  std::string account;
  switch (parse_wmi_answer(text.data(), &account)) {
    case WmiAnswer::kUser: return use_account(task, account);
    case WmiAnswer::kNobody: break;
    case WmiAnswer::kInvalid: VRLOG(kLogInfo, "Error: received invalid response from wmi daemon"); break;
  }
  return Step::kDone;
}

Step run(wmi_auth_task& task, Answer* answer) {
  for (;;) {
    Step step = Step::kDone;
    switch (task.stage) {
      case WmiStage::kConnect: step = connect_agent(task); break;
      case WmiStage::kWrite: step = send_question(task); break;
      case WmiStage::kReceive: step = read_answer(task); break;
      case WmiStage::kBound: step = look_up_account(task, answer); break;
    }
    if (step != Step::kNext) return step;
  }
}

void answer_client(const wmi_auth_task& task, const Answer& answer) {
  VRLOG(kLogDebug, "messge_type(IP_AUTH_RESPONSE), ip(%s) rc(%d)", task.ip, answer.result);  // sic
  Velder::IPAuthResponse response;
  response.set_result(answer.result);
  std::string frame(kHeaderBytes, '\0');
  response.AppendToString(&frame);
  frame += answer.info;
  write_header(Velder::WMI_AUTH_RESPONSE, frame);
  if (reply_request(task.client_fd, frame) == -1) {
    close_connection(task.client_fd);
  } else {
    wait_for(task.client_fd, EVENT_READ, tcp_read_socket_handler, nullptr);
  }
}

void finish(wmi_auth_task* task, const Answer& answer) {
  if (task->client_fd >= 0) answer_client(*task, answer);
  if (task->agent_fd >= 0) {
    VRLOG(kLogDebug, "close connection to wmi [%d]", task->agent_fd);
    close(task->agent_fd);
  }
  free(task);
}

}  // namespace

std::string wmi_question(int32_t scope, const char* ip) {
  const char* format = "tolva_wmi:%s";
  if (scope == kScopeDomainController) format = "tolva_wmi_dc:%s";
  if (scope == kScopeClient) format = "tolva_wmi_client:%s";
  std::array<char, kAgentTextBytes> question{};
  snprintf(question.data(), question.size(), format, ip);
  return question.data();
}

WmiAnswer parse_wmi_answer(const char* text, std::string* account) {
  if (strncasecmp(text, kFound.data(), kFound.size()) != 0) return WmiAnswer::kNobody;
  const std::string_view rest = text + kFound.size();
  const size_t colon = rest.find(':');
  if (colon == std::string_view::npos) return WmiAnswer::kInvalid;
  std::string_view name = rest.substr(0, colon);
  const std::string_view domain = rest.substr(colon + 1);  // as it is: nothing is trimmed
  if (const size_t backslash = name.find('\\'); backslash != std::string_view::npos) {
    name.remove_prefix(backslash + 1);
    VRLOG(kLogDebug, "transparent_auth_handler(): cut off username to (%.*s)", static_cast<int>(name.size()),
          name.data());
  }
  account->assign(domain).append("\\").append(name);
  return WmiAnswer::kUser;
}

void transparent_auth_handler(int fd, short /*events*/, void* arg) {
  VrLogContext::setCurrentThreadTag(fd);
  auto* task = static_cast<wmi_auth_task*>(arg);
  Answer answer;
  switch (run(*task, &answer)) {
    case Step::kWaitRead: wait_for(task->agent_fd, EVENT_READ, transparent_auth_handler, task); return;
    case Step::kWaitWrite: wait_for(task->agent_fd, EVENT_WRITE, transparent_auth_handler, task); return;
    case Step::kStore: return;
    case Step::kNext:
    case Step::kDone: finish(task, answer); return;
  }
}
