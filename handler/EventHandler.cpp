#include "handler/EventHandler.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "brellog/VrLog.h"
#include "handler/HandlerInternal.h"

namespace {

constexpr size_t kReceiveBytes = 40960;  // one less is asked for
// Out of descriptors or memory the connection stays in the queue and the listener stays ready: without a
// pause the accepting thread would spin, and without a limit its complaint would fill the log.
constexpr int kAcceptPauseMilliseconds = 100;
constexpr time_t kAcceptComplaintSeconds = 10;

// Whether a handler keeps the lead of the event loop while it runs, or waits for disks, servers or large
// answers. When one that keeps it has to wait after all, what makes it wait gives the lead away before.
enum class Pace { kQuick, kSlow };

// Longer ones hold no address, name or password that exists; reading and comparing what they hold takes time.
constexpr size_t kQuickFrame = 8192;

struct Route {
  int type;
  Pace pace;
  Outcome (*handle)(Frame&);
};

constexpr std::array<Route, 14> kRoutes{{
    {Velder::USER_SEARCH_REQUEST, Pace::kSlow, handle_user_search},
    {Velder::GROUP_SEARCH_REQUEST, Pace::kSlow, handle_group_search},
    {Velder::USER_GROUP_QUERY_REQUEST, Pace::kQuick, handle_user_groups},
    {Velder::IP_USER_QUERY_REQUEST, Pace::kQuick, handle_ip_query},
    {Velder::USER_VALIDATE_REQUEST, Pace::kQuick, handle_user_validate},
    {Velder::USER_INFO_QUERY_REQUEST, Pace::kQuick, handle_user_info},
    {Velder::IP_USER_BIND_REQUEST, Pace::kQuick, handle_ip_bind},
    {Velder::WMI_AUTH_REQUEST, Pace::kSlow, handle_ip_auth},
    {Velder::NTLM_AUTH_REQUEST, Pace::kSlow, start_ntlm_exchange},
    {Velder::IP_USER_UNBIND_REQUEST, Pace::kQuick, handle_ip_unbind},
    {Velder::IP_USER_CACHE_EXPORT_REQUEST, Pace::kSlow, handle_ip_export},
    {Velder::GROUP_GROUP_QUERY_REQUEST, Pace::kSlow, handle_group_groups},
    {Velder::All_USERS_QUERY_REQUEST, Pace::kSlow, handle_all_users},
    {Velder::NEGO_AUTH_REQUEST, Pace::kSlow, handle_negotiate},
}};

bool out_of_resources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// A descriptor kept in hand: out of descriptors the log could not open its file to say so.
class SpareDescriptor {
 public:
  SpareDescriptor() { take_back(); }
  void take_back() { fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC); }
  void give_up() const {
    if (fd_ >= 0) close(fd_);
  }

 private:
  int fd_ = -1;
};

// Made with the first connection. Only the thread that serves the listening socket touches it.
SpareDescriptor& spare_descriptor() {
  static SpareDescriptor the_descriptor;
  return the_descriptor;
}

// True when the complaint is due: the first one, and then one in a while, also when the wall clock was set
// back.
bool complaint_due() {
  static std::atomic<time_t> next_complaint{0};
  timespec since_start{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &since_start);
  const time_t now = since_start.tv_sec;
  time_t due = next_complaint.load();
  return now >= due && next_complaint.compare_exchange_strong(due, now + kAcceptComplaintSeconds);
}

void report_failed_accept(int error) {
  if (error == EAGAIN) {
    VRLOG(kLogDebug, "fail to accept tcp connect becasue of EAGAIN/EWOULDBLOCK");  // sic
    return;
  }
  if (!out_of_resources(error)) {
    VRLOG(kLogError, "fail to accept tcp connetion (%s)", strerror(error));  // sic
    return;
  }
  event_release_lead();
  if (complaint_due()) {
    spare_descriptor().give_up();
    VRLOG(kLogError, "fail to accept tcp connetion (%s)", strerror(error));  // sic
    spare_descriptor().take_back();
  }
  poll(nullptr, 0, kAcceptPauseMilliseconds);
}

Outcome dispatch(Frame& frame) {
  for (const Route& route : kRoutes) {
    if (route.type != frame.type) continue;
    if (route.pace == Pace::kSlow || frame.bytes.size() > kQuickFrame) event_release_lead();
    return route.handle(frame);
  }
  VRLOG(kLogError, "Error: unknown message type (%d)", frame.type);
  return Outcome::kClose;
}

void serve(int fd, std::string gathered) {
  if (message_integrity_check(gathered.data(), static_cast<int>(gathered.size())) == 0) {
    close_connection(fd);
    return;
  }
  const int type = read_header(gathered).type;
  Frame frame{fd, type, std::move(gathered)};
  const Outcome outcome = dispatch(frame);
  wipe(frame.bytes);  // of any type: what a client sent too early, such as a password, came with it
  switch (outcome) {
    case Outcome::kKeep: wait_for(fd, EVENT_READ, tcp_read_socket_handler, nullptr); return;
    case Outcome::kClose: close_connection(fd); return;
    case Outcome::kHandedOver: return;
  }
}

}  // namespace

bool parse_request(const Frame& frame, google::protobuf::Message* request) {
  const std::string_view body = frame.body();
  if (request->ParseFromArray(body.data(), static_cast<int>(body.size()))) return true;
  VRLOG(kLogError, "Error: fail to parse (%d) message", frame.type);
  return false;
}

Outcome reply(const Frame& frame, const google::protobuf::Message& response) {
  return reply_request(frame.fd, frame.type + 1, &response) == -1 ? Outcome::kClose : Outcome::kKeep;
}

Outcome reply_encoded(const Frame& frame, std::string& answer) {
  write_header(frame.type + 1, answer);
  return reply_request(frame.fd, answer) == -1 ? Outcome::kClose : Outcome::kKeep;
}

// Runs when connections wait on the listening socket, which other workers watch too. Takes one; the rest
// come with the following events of the persistent registration.
void tcp_listen_socket_handler(int listen_fd, short /*events*/, void* /*arg*/) {
  VrLogContext::setCurrentThreadTag(listen_fd);
  spare_descriptor();
  sockaddr_in peer{};
  socklen_t peer_length = sizeof(peer);
  const int fd =
      accept4(listen_fd, reinterpret_cast<sockaddr*>(&peer), &peer_length, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    report_failed_accept(errno);
    return;
  }
  VRLOG(kLogDebug, "tcp_listen_socket_handler(): accept connetion [%d]", fd);  // sic
  wait_for(fd, EVENT_READ, tcp_read_socket_handler, nullptr);
}

// Runs when a client socket has bytes or was closed. `arg` is what came earlier of an incomplete frame, or
// null. Leaves a read wait, a pending reply, an exchange that owns the connection, or a closed socket.
void tcp_read_socket_handler(int fd, short /*events*/, void* arg) {
  VrLogContext::setCurrentThreadTag(fd);
  std::unique_ptr<client_request> request(static_cast<client_request*>(arg));
  std::string gathered;
  if (request != nullptr) {
    VRLOG(kLogDebug, "Info: recv more data, continue handle message...");
    gathered = std::move(request->data);
  }
  char buffer[kReceiveBytes];
  switch (gather_frame(fd, buffer, TypeCheck::kRefuseInvalid, gathered)) {
    case GatherResult::kComplete:
      request.reset();
      serve(fd, std::move(gathered));
      return;
    case GatherResult::kWait:
      if (request == nullptr) request = std::make_unique<client_request>();
      request->data = std::move(gathered);
      wait_for(fd, EVENT_READ, tcp_read_socket_handler, request.release());
      return;
    case GatherResult::kClose:
      wipe(gathered);
      close_connection(fd);
      return;
  }
}
