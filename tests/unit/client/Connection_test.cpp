#include "client/Connection.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "handler/Velder.pb.h"

namespace velder_client {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using testing::HasSubstr;

const std::string kBindAnswer = "\x02\0\0\0\x0D\0\0\0\x08\0"s;

// A socket bound to a loopback port of the system's choice.
struct BoundSocket {
  UniqueFd fd;
  std::string address;
};

BoundSocket bind_loopback(bool listening = false) {
  BoundSocket bound{UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), {}};
  SocketAddress address;
  auto* in4 = reinterpret_cast<sockaddr_in*>(&address.storage);
  in4->sin_family = AF_INET;
  in4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.length = sizeof(*in4);
  auto* raw = reinterpret_cast<sockaddr*>(&address.storage);
  EXPECT_EQ(bind(bound.fd.get(), raw, address.length), 0);
  if (listening) listen(bound.fd.get(), 10);
  getsockname(bound.fd.get(), raw, &address.length);
  bound.address = address.text();
  return bound;
}

std::string receive_exactly(int fd, size_t bytes) {
  std::string got(bytes, '\0');
  const ssize_t count = recv(fd, got.data(), got.size(), MSG_WAITALL);
  got.resize(count < 0 ? 0 : static_cast<size_t>(count));
  return got;
}

void send_all(int fd, const std::string& bytes) {
  EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

// Accepts one connection and plays `script` on it; the socket is closed when the script returns.
class FakeServer {
 public:
  explicit FakeServer(std::function<void(int)> script)
      : bound_(bind_loopback(true)), thread_([this, script = std::move(script)] {
          pollfd item{bound_.fd.get(), POLLIN, 0};
          if (poll(&item, 1, 10000) != 1) return;
          const UniqueFd peer(accept4(bound_.fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
          script(peer.get());
        }) {}
  ~FakeServer() { thread_.join(); }
  const std::string& address() const { return bound_.address; }

 private:
  BoundSocket bound_;
  std::jthread thread_;
};

Velder::IPUserBindRequest bind_request() {
  Velder::IPUserBindRequest request;
  request.set_ip("10.0.0.1");
  request.set_user_ln("CORP\\alice");
  return request;
}
const size_t kBindRequestBytes = kHeaderBytes + bind_request().ByteSizeLong();

Options quick() {
  Options options;
  options.connect_timeout = 5s;
  options.call_timeout = 5s;
  return options;
}

// An invalid request between them is not sent and leaves the connection usable.
TEST(Connection, CallsFollowEachOtherOnOneConnection) {
  FakeServer server([](int fd) {
    for (char result : {'\0', '\1'}) {
      const std::string request = receive_exactly(fd, kBindRequestBytes);
      EXPECT_EQ(request.substr(4, 4), "\x0C\0\0\0"s);
      std::string answer = kBindAnswer;
      answer.back() = result;
      for (char byte : answer) send_all(fd, {byte});
    }
  });
  auto connection = Connection::open(server.address(), quick());
  ASSERT_TRUE(connection) << connection.error().text;
  for (int result : {0, 1}) {
    Velder::IPUserBindResponse answer;
    const auto called = connection->call(Velder::IP_USER_BIND_REQUEST, bind_request(), answer);
    ASSERT_TRUE(called) << called.error().text;
    EXPECT_EQ(answer.result(), result);
    const auto invalid = connection->call(Velder::IP_USER_BIND_REQUEST, Velder::IPUserBindRequest(), answer);
    ASSERT_FALSE(invalid);
    EXPECT_EQ(invalid.error().kind, ErrorKind::kInvalidRequest);
  }
}

// What a caller sees for each way in which an answer can go wrong; the connection is closed afterwards.
TEST(Connection, EveryBadAnswerHasItsKind) {
  using enum ErrorKind;
  enum class End { kClose, kReset, kHold };
  const struct {
    std::string answer;
    End end;
    ErrorKind kind;
    const char* text;
  } rows[] = {
      {"", End::kClose, kClosedWithoutAnswer, "without an answer"},
      {"", End::kReset, kClosedWithoutAnswer, "reset"},
      {kBindAnswer.substr(0, 5), End::kClose, kClosedMidAnswer, "after 5 bytes"},
      {kBindAnswer.substr(0, 9), End::kClose, kClosedMidAnswer, "after 9 bytes"},
      {"", End::kHold, kAnswerTimeout, "did not answer"},
      {kBindAnswer.substr(0, 9), End::kHold, kAnswerTimeout, "not complete"},
      {"\x02\0\0\0\x0B\0\0\0\x08\0"s, End::kClose, kMalformedAnswer, "type 11 where 13"},
      {"\xFE\xFF\xFF\xFF\x0D\0\0\0\x08\0"s, End::kClose, kMalformedAnswer, "-2 bytes"},
      {"\xFF\xFF\xFF\x7F\x0D\0\0\0\x08\0"s, End::kClose, kMalformedAnswer, "2147483647 bytes"},
      {"\x02\0\0\0\x0D\0\0\0\xFF\xFF"s, End::kClose, kMalformedAnswer, "does not parse"},
      {"\0\0\0\0\x0D\0\0\0"s, End::kClose, kMalformedAnswer, "result"},
      {kBindAnswer + kBindAnswer, End::kClose, kMalformedAnswer, "10 bytes follow"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    FakeServer server([&](int fd) {
      receive_exactly(fd, kBindRequestBytes);
      send_all(fd, row.answer);
      const linger hard{1, 0};
      if (row.end == End::kReset) setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
      if (row.end == End::kHold) receive_exactly(fd, 1);  // until the client has closed
    });
    Options options = quick();
    if (row.kind == ErrorKind::kAnswerTimeout) options.call_timeout = 150ms;
    auto connection = Connection::open(server.address(), options);
    ASSERT_TRUE(connection) << connection.error().text;
    Velder::IPUserBindResponse answer;
    const auto called = connection->call(Velder::IP_USER_BIND_REQUEST, bind_request(), answer);
    ASSERT_FALSE(called);
    EXPECT_EQ(called.error().kind, row.kind) << called.error().text;
    EXPECT_THAT(called.error().text, HasSubstr(row.text));
    EXPECT_FALSE(connection->is_open());
    const auto again = connection->call(Velder::IP_USER_BIND_REQUEST, bind_request(), answer);
    ASSERT_FALSE(again);
    EXPECT_EQ(again.error().kind, ErrorKind::kNotOpen);
  }
}

// Each byte makes the socket ready once more, which must not push the deadline along.
TEST(Connection, ATricklingAnswerIsLateToo) {
  std::atomic<bool> stop = false;
  FakeServer server([&](int fd) {
    receive_exactly(fd, kBindRequestBytes);
    send_all(fd, "\0\0\0\x01\x0D\0\0\0"s);  // 16 MiB announced
    const std::string byte(1, 'x');
    while (!stop && send(fd, byte.data(), 1, MSG_NOSIGNAL) == 1) std::this_thread::sleep_for(1ms);
  });
  Options options = quick();
  options.call_timeout = 200ms;
  auto connection = Connection::open(server.address(), options);
  ASSERT_TRUE(connection) << connection.error().text;
  Velder::IPUserBindResponse answer;
  const auto start = std::chrono::steady_clock::now();
  const auto called = connection->call(Velder::IP_USER_BIND_REQUEST, bind_request(), answer);
  const auto took = std::chrono::steady_clock::now() - start;
  stop = true;
  ASSERT_FALSE(called);
  EXPECT_EQ(called.error().kind, ErrorKind::kAnswerTimeout);
  EXPECT_LT(took, 3s);
}

TEST(Connection, ARequestThatNobodyReadsIsLate) {
  std::promise<void> done;
  FakeServer server([&](int) { done.get_future().wait(); });
  Options options = quick();
  options.call_timeout = 200ms;
  auto connection = Connection::open(server.address(), options);
  if (!connection) done.set_value();
  ASSERT_TRUE(connection) << connection.error().text;
  const std::string bytes(size_t{64} << 20, 'x');
  const auto sent = connection->send_bytes(bytes, connection->call_deadline());
  done.set_value();
  ASSERT_FALSE(sent);
  EXPECT_EQ(sent.error().kind, ErrorKind::kAnswerTimeout);
}

TEST(Connection, RefusedFailsAtOnceUnlessTheListenerIsAwaited) {
  BoundSocket bound = bind_loopback();  // bound and not listening: nobody else can take the port meanwhile
  const auto start = std::chrono::steady_clock::now();
  const auto refused = Connection::open(bound.address, quick());
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().kind, ErrorKind::kRefused) << refused.error().text;
  EXPECT_THAT(refused.error().text, HasSubstr(bound.address));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);

  Options options = quick();
  options.wait_for_listener = true;
  options.connect_timeout = 1s;
  const auto given_up = Connection::open(bound.address, options);
  ASSERT_FALSE(given_up);
  EXPECT_EQ(given_up.error().kind, ErrorKind::kRefused);

  options.connect_timeout = 30s;
  std::jthread later([&] {
    std::this_thread::sleep_for(50ms);
    listen(bound.fd.get(), 10);
  });
  EXPECT_TRUE(Connection::open(bound.address, options));
}

TEST(Connection, AllAddressesAreTriedInTurn) {
  const BoundSocket dead = bind_loopback();
  FakeServer server([](int fd) {
    receive_exactly(fd, kBindRequestBytes);
    send_all(fd, kBindAnswer);
  });
  std::vector<SocketAddress> addresses = resolve(*parse_server(dead.address)).value();
  addresses.push_back(resolve(*parse_server(server.address())).value().front());
  auto connection = Connection::open(addresses, quick());
  ASSERT_TRUE(connection) << connection.error().text;
  Velder::IPUserBindResponse answer;
  EXPECT_TRUE(connection->call(Velder::IP_USER_BIND_REQUEST, bind_request(), answer));
}

// The queue of a listener that does not accept is full after a few connections; the next ones wait in vain.
TEST(Connection, AFullQueueIsAConnectTimeoutAndABurstGetsThrough) {
  BoundSocket bound = bind_loopback();
  ASSERT_EQ(listen(bound.fd.get(), 2), 0);
  Options options = quick();
  options.connect_timeout = 300ms;
  std::vector<Connection> held;
  Result<Connection> last = Connection::open(bound.address, options);
  while (last && held.size() < 50) {
    held.push_back(std::move(*last));
    last = Connection::open(bound.address, options);
  }
  ASSERT_FALSE(last);
  EXPECT_EQ(last.error().kind, ErrorKind::kConnectTimeout) << last.error().text;

  options.connect_timeout = 10s;
  constexpr int kClients = 40;
  std::atomic<int> through = 0;
  {
    std::vector<std::jthread> clients;
    for (int i = 0; i < kClients; ++i) {
      clients.emplace_back([&] { through += Connection::open(bound.address, options).has_value() ? 1 : 0; });
    }
    std::vector<UniqueFd> accepted;
    pollfd item{bound.fd.get(), POLLIN, 0};
    while (through < kClients && poll(&item, 1, 5000) == 1) {
      accepted.emplace_back(accept4(bound.fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
  }
  EXPECT_EQ(through, kClients);
}

TEST(Address, ServerTextsAreReadOrRefused) {
  const std::pair<const char*, Server> rows[] = {{"127.0.0.1:1100", {"127.0.0.1", 1100}},
                                                 {"gateway.example", {"gateway.example", 1100}},
                                                 {"gateway.example:65535", {"gateway.example", 65535}},
                                                 {"[::1]:1200", {"::1", 1200}},
                                                 {"[fe80::1%lo]", {"fe80::1%lo", 1100}},
                                                 {"::1", {"::1", 1100}}};
  for (const auto& [text, expected] : rows) {
    const auto server = parse_server(text);
    ASSERT_TRUE(server) << text;
    EXPECT_EQ(*server, expected) << text;
  }
  for (const std::string& text : {""s, ":1100"s, "[]:1100"s, "[::1"s, "[::1]1100"s, "host:"s, "host:0"s,
                                  "host:65536"s, "host:-1"s, "host: 80"s, "host:80x"s, "a\0b"s}) {
    const auto server = parse_server(text);
    ASSERT_FALSE(server) << text;
    EXPECT_EQ(server.error().kind, ErrorKind::kInvalidAddress) << text;
  }
  const auto connection = Connection::open("no-such-host.invalid:1100", quick());
  ASSERT_FALSE(connection);
  EXPECT_EQ(connection.error().kind, ErrorKind::kCannotResolve) << connection.error().text;
}

}  // namespace
}  // namespace velder_client
