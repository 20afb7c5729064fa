#include <sys/epoll.h>

#include <array>
#include <thread>

#include "bench/Echo.h"

namespace bench {
namespace {

constexpr size_t kThreads = 2;
constexpr size_t kEventsAtOnce = 64;

[[noreturn]] void serve_all(int epoll_fd, const EchoAnswers& answers) {
  for (;;) {
    std::array<epoll_event, kEventsAtOnce> events;
    const int count = epoll_wait(epoll_fd, events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count; ++i) {
      auto* client = static_cast<EchoClient*>(events[static_cast<size_t>(i)].data.ptr);
      if (!serve(*client, answers)) std::unique_ptr<EchoClient>{client};
    }
  }
}

void watch(int epoll_fd, std::unique_ptr<EchoClient> client) {
  epoll_event request{};
  request.events = EPOLLIN;
  request.data.ptr = client.get();
  const int fd = client->fd.get();
  EchoClient* watched = client.release();  // the other thread's from the next line on
  if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &request) != 0) std::unique_ptr<EchoClient>{watched};
}

}  // namespace

void run_fast(int listener, const EchoAnswers& answers) {
  std::array<int, kThreads> epoll_fds{};
  for (int& epoll_fd : epoll_fds) {
    epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    std::thread([epoll_fd, &answers] { serve_all(epoll_fd, answers); }).detach();
  }
  for (size_t turn = 0;;) {
    if (auto client = accept_client(listener)) watch(epoll_fds[turn++ % kThreads], std::move(client));
  }
}

}  // namespace bench
