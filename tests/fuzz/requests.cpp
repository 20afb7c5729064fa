// The whole way of a request: bytes on a connection, the frame reader, the dispatcher, the handlers, both
// libraries with the example directory, the agent's answer, the reply. Only the event loop is ours: it keeps
// the registrations and runs what is ready.
#include <fcntl.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/stubs/logging.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>

#include "Fuzz.h"
#include "event/Event.h"
#include "handler/EventHandler.h"
#include "handler/Frame.h"
#include "handler/Velder.pb.h"
#include "wrapper/CacheWrapper.h"
#include "wrapper/LdapWrapper.h"

using fuzz::Input;
using fuzz::require;

namespace {

std::map<int, event> g_registered;
std::string_view g_agent_answer;
bool g_agent_there = false;

// Two ends, the first with a number apart from what the libraries open.
std::array<int, 2> make_pair() {
  std::array<int, 2> ends{};
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) == 0,
          "there are sockets");
  const int apart = fcntl(ends[0], F_DUPFD_CLOEXEC, 100);
  close(ends[0]);
  return {apart, ends[1]};
}

}  // namespace

// The loop's door: a second registration of one connection would let two threads serve it.
extern "C" int __wrap__Z9event_addP5events(event* ev, short /*persist*/) {
  require(fcntl(ev->fd, F_GETFD) >= 0, "what is registered is open");
  require(g_registered.emplace(ev->fd, *ev).second, "a connection is registered once");
  return 0;
}

// The daemon's only connects are those to its agent.
extern "C" int __wrap_connect(int fd, const sockaddr* /*address*/, socklen_t /*length*/) {
  if (!g_agent_there) {
    errno = ECONNREFUSED;
    return -1;
  }
  const auto [here, agent] = make_pair();
  require(dup3(here, fd, O_CLOEXEC) == fd, "and descriptors");
  close(here);
  require(send(agent, g_agent_answer.data(), g_agent_answer.size(), MSG_NOSIGNAL) >= 0 || errno == EAGAIN,
          "the agent answers");
  shutdown(agent, SHUT_WR);
  // Left open behind the daemon's back until the connection is done with: the question has to go somewhere.
  static int before = -1;
  if (before >= 0) close(before);
  before = agent;
  return 0;
}

namespace {

class Client {
 public:
  Client() {
    event ev;
    event_set(&ev, served_, EVENT_READ, tcp_read_socket_handler, nullptr);
    g_registered.emplace(served_, ev);
  }
  ~Client() {
    close(own_);
    run();
    require(g_registered.empty(), "nothing waits for a client that is gone");
    require(fcntl(served_, F_GETFD) < 0, "its connection is closed");
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void send(std::string_view bytes) {
    [[maybe_unused]] const ssize_t sent = ::send(own_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    run();
  }

 private:
  void run() {
    std::array<char, 65536> buffer;
    for (bool worked = true; worked;) {
      worked = false;
      while (recv(own_, buffer.data(), buffer.size(), 0) > 0) {
      }
      for (const auto& [fd, ev] : std::map(g_registered)) {
        pollfd ready{fd, ev.events, 0};
        if (poll(&ready, 1, 0) != 1) continue;
        g_registered.erase(fd);
        ev.callback(fd, ev.events, ev.arg);
        worked = true;
      }
    }
  }
  const std::array<int, 2> ends_ = make_pair();
  const int served_ = ends_[0];
  const int own_ = ends_[1];
};

// Both libraries on a working directory of their own, in which alone exports may land.
void start_libraries(bool verbose) {
  fuzz::log_into_nothing(verbose);
  static const bool started = [] {
    google::protobuf::SetLogHandler(nullptr);  // as the daemon does
    const std::filesystem::path workdir = fuzz::scratch_folder() + "/work";
    std::filesystem::create_directories(workdir / "exports");
    std::filesystem::copy_file(AUTHD_EXAMPLE_LDIF, workdir / "directory.ldif");
    fuzz::write_scratch("work/IPUserCache.ini",
                        "[IPUserCache]\nExportDirectory=" + (workdir / "exports").string() + "\n");
    fuzz::write_scratch("work/LdapSetting.ini", "[NTLM]\nUserFile=ntlm_users\n[Negotiate]\nKeytab=keytab\n");
    for (const char* secret : {"work/ntlm_users", "work/keytab"}) {
      std::filesystem::permissions(fuzz::write_scratch(secret, "CORP:jmueller:secret\n"),
                                   std::filesystem::perms(0600));
    }
    require(LdapWrapper::initialize(workdir.c_str(), true) == 0, "the example directory opens");
    require(CacheWrapper::initialize(workdir.c_str()) == 0, "the cache opens");
    return true;
  }();
  static_cast<void>(started);
}

void take_agent(Input& input) {
  const uint8_t kind = input.byte();
  g_agent_there = kind % 2 == 1;
  g_agent_answer = g_agent_there ? input.piece() : std::string_view();
}

// Names that lead somewhere, and whatever the input holds.
std::string some_text(Input& input) {
  static constexpr const char* kKnown[] = {"",
                                           "^",
                                           "a",
                                           "CORP\\jmueller",
                                           "jmueller@corp.example.com",
                                           "10.1.2.3",
                                           "::1",
                                           "Proxy_guest_user",
                                           "TlRMTVNTUAABAAAAB4IIogAAAAAAAAAAAAAAAAAAAAA=",
                                           "DC=corp,DC=example,DC=com",
                                           "/x.csv",
                                           "jmueller"};
  const uint8_t kind = input.byte();
  if (kind < std::size(kKnown)) return kKnown[kind];
  return std::string(input.take(kind - std::size(kKnown)));
}

void fill(google::protobuf::Message& message, Input& input) {
  const auto* fields = message.GetDescriptor();
  const auto* write = message.GetReflection();
  const uint8_t left_out = input.byte();
  for (int i = 0; i < fields->field_count(); ++i) {
    const auto* field = fields->field(i);
    if ((left_out >> i & 1) != 0 && left_out >= 128) continue;
    if (field->is_repeated()) {
      for (int count = input.byte() % 8; count > 0; --count)
        write->AddString(&message, field, some_text(input));
    } else if (field->cpp_type() == google::protobuf::FieldDescriptor::CPPTYPE_INT32) {
      write->SetInt32(&message, field, static_cast<int8_t>(input.byte()));
    } else {
      write->SetString(&message, field, some_text(input));
    }
  }
}

std::string frame_of(int type, std::string_view body) {
  const FrameHeader header{static_cast<int32_t>(body.size()), type};
  return std::string(reinterpret_cast<const char*>(&header), sizeof header).append(body);
}

// By type: the kinds of request have the even ones.
std::string body_of(int type, Input& input) {
  static const std::array<const google::protobuf::Message*, 14> kKinds = {
      &Velder::UserSearchRequest::default_instance(),
      &Velder::GroupSearchRequest::default_instance(),
      &Velder::UserGroupQueryRequest::default_instance(),
      &Velder::IPUserQueryRequest::default_instance(),
      &Velder::UserValidateRequest::default_instance(),
      &Velder::UserInfoQueryRequest::default_instance(),
      &Velder::IPUserBindRequest::default_instance(),
      &Velder::IPAuthRequest::default_instance(),
      &Velder::NTLMAuthRequest::default_instance(),
      &Velder::IPUserUnBindRequest::default_instance(),
      &Velder::IPUserCacheExportRequest::default_instance(),
      &Velder::GroupSearchRequest::default_instance(),
      &Velder::AllUserQueryRequest::default_instance(),
      &Velder::NEGOAuthRequest::default_instance()};
  const std::unique_ptr<google::protobuf::Message> request(kKinds.at(static_cast<size_t>(type / 2))->New());
  fill(*request, input);
  return request->SerializePartialAsString();
}

}  // namespace

// Bytes as they are, cut into segments.
FUZZ_TARGET(frames) {
  start_libraries(false);
  Input input(bytes);
  take_agent(input);
  Client client;
  while (!input.empty()) client.send(input.piece());
}

// Sound frames with hostile bodies: the first byte of each is the kind of request and whether its fields are
// filled or its bytes taken as they are.
FUZZ_TARGET(requests) {
  start_libraries(true);
  Input input(bytes);
  take_agent(input);
  Client client;
  while (!input.empty()) {
    const uint8_t kind = input.byte();
    const int type = kind % 14 * 2;
    client.send(frame_of(type, kind < 196 ? body_of(type, input) : std::string(input.piece())));
  }
}
