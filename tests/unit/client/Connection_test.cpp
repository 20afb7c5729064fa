#include "client/Connection.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "handler/Velder.pb.h"

namespace velder_client {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using testing::HasSubstr;

const std::string kBindAnswer = "\x02\0\0\0\x0D\0\0\0\x08\0"s;

// A socket bound to a loopback port of the system's choice. Until it listens, the port refuses, and nobody
// else can take it.
struct BoundSocket {
  explicit BoundSocket(int queue = -1) : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    SocketAddress at;
    auto* in4 = reinterpret_cast<sockaddr_in*>(&at.storage);
    *in4 = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    at.length = sizeof(*in4);
    auto* raw = reinterpret_cast<sockaddr*>(&at.storage);
    EXPECT_EQ(bind(fd.get(), raw, at.length), 0);
    if (queue >= 0) listen(fd.get(), queue);
    getsockname(fd.get(), raw, &at.length);
    address = at.text();
  }
  // A connection that comes within ten seconds.
  [[nodiscard]] UniqueFd accept_one() const {
    pollfd item{fd.get(), POLLIN, 0};
    return UniqueFd(poll(&item, 1, 10000) == 1 ? accept4(fd.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
  }

  UniqueFd fd;
  std::string address;
};

// Accepts one connection and plays `script` on it; the socket is closed when the script returns.
struct FakeServer : BoundSocket {
  explicit FakeServer(std::function<void(int)> script)
      : BoundSocket(10), thread([this, script = std::move(script)] { script(accept_one().get()); }) {}

  std::jthread thread;
};

std::string receive_exactly(int fd, size_t bytes) {
  std::string got(bytes, '\0');
  const ssize_t count = recv(fd, got.data(), got.size(), MSG_WAITALL);
  got.resize(count < 0 ? 0 : static_cast<size_t>(count));
  return got;
}

bool send_all(int fd, const std::string& bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

Velder::IPUserBindRequest bind_request() {
  Velder::IPUserBindRequest request;
  request.set_ip("10.0.0.1");
  request.set_user_ln("CORP\\alice");
  return request;
}
const size_t kBindRequestBytes = kHeaderBytes + bind_request().ByteSizeLong();

Options options(std::chrono::milliseconds connect_timeout = 5s, std::chrono::milliseconds call_timeout = 5s) {
  Options given;
  given.connect_timeout = connect_timeout;
  given.call_timeout = call_timeout;
  return given;
}

// An invalid request between them is not sent and leaves the connection usable.
TEST(Connection, CallsFollowEachOtherOnTheFirstAddressThatTakesThem) {
  const BoundSocket dead;
  FakeServer server([](int fd) {
    for (char result : {'\0', '\1'}) {
      EXPECT_EQ(receive_exactly(fd, kBindRequestBytes).find("\x0C\0\0\0"s), 4U);
      std::string answer = kBindAnswer;
      answer.back() = result;
      for (char byte : answer) send_all(fd, {byte});
    }
  });
  std::vector<SocketAddress> addresses = resolve(*parse_server(dead.address)).value();
  addresses.push_back(resolve(*parse_server(server.address)).value().front());
  auto connection = Connection::open(addresses, options());
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
  enum class End { kClose, kReset, kHold, kTrickle };
  const struct {
    std::string answer;
    End end;
    ErrorKind kind;
    const char* text;
  } rows[] = {
      {"", End::kClose, kClosedWithoutAnswer, "without an answer"},
      {"", End::kReset, kClosedWithoutAnswer, "reset"},
      {kBindAnswer.substr(0, 5), End::kClose, kClosedMidAnswer, "after 5 bytes"},
      {"", End::kHold, kAnswerTimeout, "did not answer"},
      // Each byte makes the socket ready once more, which must not push the deadline along.
      {"\0\0\0\x01\x0D\0\0\0"s, End::kTrickle, kAnswerTimeout, "not complete"},
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
      while (row.end == End::kTrickle && send_all(fd, "x")) std::this_thread::sleep_for(1ms);
    });
    auto connection =
        Connection::open(server.address, options(5s, row.kind == kAnswerTimeout ? 150ms : 5000ms));
    ASSERT_TRUE(connection) << connection.error().text;
    Velder::IPUserBindResponse answer;
    const auto start = std::chrono::steady_clock::now();
    const auto called = connection->call(Velder::IP_USER_BIND_REQUEST, bind_request(), answer);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
    ASSERT_FALSE(called);
    EXPECT_EQ(called.error().kind, row.kind) << called.error().text;
    EXPECT_THAT(called.error().text, HasSubstr(row.text));
    const auto again = connection->call(Velder::IP_USER_BIND_REQUEST, bind_request(), answer);
    ASSERT_FALSE(again);
    EXPECT_EQ(again.error().kind, ErrorKind::kNotOpen);
  }
}

TEST(Connection, ARequestThatNobodyReadsIsLate) {
  std::promise<void> done;
  FakeServer server([&](int) { done.get_future().wait(); });
  auto connection = Connection::open(server.address, options(5s, 200ms));
  const auto sent = connection
                        ? connection->send_bytes(std::string(64 << 20, 'x'), connection->call_deadline())
                        : tl::make_unexpected(connection.error());
  done.set_value();
  ASSERT_FALSE(sent);
  EXPECT_EQ(sent.error().kind, ErrorKind::kAnswerTimeout) << sent.error().text;
}

TEST(Connection, RefusedFailsAtOnceUnlessTheListenerIsAwaited) {
  BoundSocket bound;
  const auto start = std::chrono::steady_clock::now();
  Options given = options(10s);
  for (const bool wait : {false, true}) {
    given.wait_for_listener = wait;
    const auto refused = Connection::open(bound.address, given);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().kind, ErrorKind::kRefused) << refused.error().text;
    EXPECT_THAT(refused.error().text, HasSubstr(bound.address));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 8s);
    given.connect_timeout = 300ms;
  }
  given.connect_timeout = 30s;
  std::jthread later([&] {
    std::this_thread::sleep_for(50ms);
    listen(bound.fd.get(), 10);
  });
  EXPECT_TRUE(Connection::open(bound.address, given));
}

// The queue of a listener that does not accept is full after a few connections; the next ones wait in vain.
TEST(Connection, AFullQueueIsAConnectTimeoutAndABurstGetsThrough) {
  const BoundSocket bound(2);
  std::vector<Connection> held;
  Result<Connection> last = Connection::open(bound.address, options(300ms));
  while (last && held.size() < 50) {
    held.push_back(std::move(*last));
    last = Connection::open(bound.address, options(300ms));
  }
  ASSERT_FALSE(last);
  EXPECT_EQ(last.error().kind, ErrorKind::kConnectTimeout) << last.error().text;

  constexpr int kClients = 40;
  std::atomic<int> through = 0;
  std::vector<std::jthread> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back(
        [&] { through += Connection::open(bound.address, options(10s)).has_value() ? 1 : 0; });
  }
  pollfd item{bound.fd.get(), POLLIN, 0};
  while (through < kClients && poll(&item, 1, 5000) == 1) held.emplace_back(bound.accept_one(), options());
  clients.clear();
  EXPECT_EQ(through, kClients);
}

TEST(Address, ServerTextsAreReadOrRefused) {
  const std::pair<const char*, Server> rows[] = {{"gateway.example", {"gateway.example", 1100}},
                                                 {"gateway.example:65535", {"gateway.example", 65535}},
                                                 {"[::1]:1200", {"::1", 1200}},
                                                 {"[fe80::1%lo]", {"fe80::1%lo", 1100}},
                                                 {"::1", {"::1", 1100}}};
  for (const auto& [text, expected] : rows) EXPECT_EQ(parse_server(text), expected) << text;
  for (const std::string& text : {""s, ":1100"s, "[]:1100"s, "[::1"s, "[::1]1100"s, "host:"s, "host:0"s,
                                  "host:65536"s, "host:-1"s, "host: 80"s, "host:80x"s, "a\0b"s}) {
    const auto server = parse_server(text);
    ASSERT_FALSE(server) << text;
    EXPECT_EQ(server.error().kind, ErrorKind::kInvalidAddress) << text;
  }
  const auto connection = Connection::open("no-such-host.invalid:1100", options());
  ASSERT_FALSE(connection);
  EXPECT_EQ(connection.error().kind, ErrorKind::kCannotResolve) << connection.error().text;
}

}  // namespace
}  // namespace velder_client
