// What the machine's loopback gives: answers every frame with a filler of a fixed size and does nothing else.
// Two threads, each with an epoll set of its own; connections go to them in turns.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/EchoAnswer.h"
#include "client/Frame.h"
#include "client/UniqueFd.h"

namespace {

using velder_client::kHeaderBytes;
using velder_client::UniqueFd;

constexpr int kBacklog = 512;
constexpr size_t kThreads = 2;
constexpr size_t kEventsAtOnce = 64;

struct Client {
  UniqueFd fd;
  std::string gathered;
};

[[noreturn]] void die(const char* what) {
  std::perror(what);
  std::exit(1);
}

// False when the connection is over.
bool answer_if_complete(Client& client, size_t answer_bytes) {
  if (client.gathered.size() < kHeaderBytes) return true;
  const auto header = velder_client::decode_header(std::span(client.gathered).first<kHeaderBytes>());
  if (header.body_length < 0) return false;
  if (client.gathered.size() < kHeaderBytes + static_cast<size_t>(header.body_length)) return true;
  client.gathered.clear();
  const std::string answer = bench::echo_answer(header.type, answer_bytes);
  return send(client.fd.get(), answer.data(), answer.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(answer.size());
}

bool serve(Client& client, size_t answer_bytes) {
  std::array<char, 4096> buffer;
  const ssize_t got = recv(client.fd.get(), buffer.data(), buffer.size(), 0);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  if (got < 1) return false;
  client.gathered.append(buffer.data(), static_cast<size_t>(got));
  return answer_if_complete(client, answer_bytes);
}

[[noreturn]] void serve_all(int epoll_fd, size_t answer_bytes) {
  for (;;) {
    std::array<epoll_event, kEventsAtOnce> events;
    const int count = epoll_wait(epoll_fd, events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count; ++i) {
      auto* client = static_cast<Client*>(events[static_cast<size_t>(i)].data.ptr);
      if (!serve(*client, answer_bytes)) std::unique_ptr<Client>{client};
    }
  }
}

UniqueFd listen_on(uint16_t port) {
  UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  if (bind(fd.get(), raw, length) != 0 || listen(fd.get(), kBacklog) != 0) die("echo_server: listen");
  getsockname(fd.get(), raw, &length);
  std::printf("listening on %u\n", static_cast<unsigned>(ntohs(address.sin_port)));
  std::fflush(stdout);
  return fd;
}

void watch(int epoll_fd, UniqueFd fd) {
  const int on = 1;
  setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  auto client = std::make_unique<Client>();
  epoll_event request{};
  request.events = EPOLLIN;
  request.data.ptr = client.get();
  const int number = fd.get();
  client->fd = std::move(fd);
  if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, number, &request) == 0) client.release();
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Answers every frame with filler, on 127.0.0.1."};
  uint16_t port = 1101;
  size_t answer_bytes = 512;
  app.add_option("--port", port, "0: one that is free; it is printed");
  app.add_option("--answer-bytes", answer_bytes, "of a whole answer");
  CLI11_PARSE(app, argc, argv);

  const UniqueFd listener = listen_on(port);
  std::array<int, kThreads> epoll_fds{};
  for (int& epoll_fd : epoll_fds) {
    epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    std::thread([epoll_fd, answer_bytes] { serve_all(epoll_fd, answer_bytes); }).detach();
  }
  for (size_t turn = 0;; ++turn) {
    UniqueFd fd(accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd.valid() && errno != EINTR && errno != ECONNABORTED) die("echo_server: accept");
    if (fd.valid()) watch(epoll_fds[turn % kThreads], std::move(fd));
  }
}
