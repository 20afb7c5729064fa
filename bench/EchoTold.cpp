// The ceiling of the plain design: one thread waits for one event at a time, takes the descriptor out of
// epoll, lets the next thread wait and only then serves it; what is to be watched again is queued, and the
// waiting thread is woken through a socket pair to put it into epoll. Nothing is saved where a step is not
// needed, but nothing is wasted either: registrations are found by descriptor, not searched.
//
// It stays as it is when the daemon's own loop gets faster, so that there is a fixed mark to compare with.
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "bench/Echo.h"

namespace bench {
namespace {

constexpr int kProcesses = 2;  // these two are the daemon's defaults
constexpr int kThreads = 10;
constexpr int kWaitMilliseconds = 30000;

// Registered until it fires; a null client is the listener.
struct Registration {
  int fd = -1;
  std::unique_ptr<EchoClient> client;
};

class ToldLoop {
 public:
  ToldLoop(int listener, const EchoAnswers& answers)
      : listener_(listener), answers_(answers), epoll_fd_(epoll_create1(EPOLL_CLOEXEC)) {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, wake_up_.data()) != 0) {
      die("echo_server: socketpair");
    }
    put_into_epoll(wake_up_[0]);
    add({listener, nullptr});
  }

  [[noreturn]] void dispatch() {
    for (;;) {
      Registration ready = wait_once();
      if (ready.fd == listener_) {
        if (auto client = accept_client(listener_)) add_client(std::move(client));
        add(std::move(ready));
      } else if (ready.fd >= 0 && serve(*ready.client, answers_)) {
        add(std::move(ready));
      }
    }
  }

 private:
  Registration wait_once() {
    const std::lock_guard waiting(epoll_mutex_);
    epoll_event event{};
    const int count = epoll_wait(epoll_fd_, &event, 1, kWaitMilliseconds);
    const std::lock_guard changing(list_mutex_);
    Registration ready;
    if (count == 1 && event.data.fd != wake_up_[0]) {
      epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, event.data.fd, nullptr);
      ready = std::move(*watched_[static_cast<size_t>(event.data.fd)]);
      watched_[static_cast<size_t>(event.data.fd)].reset();
    }
    watch_pending();
    return ready;
  }

  void watch_pending() {
    std::array<char, 128> wake_ups;
    [[maybe_unused]] const ssize_t drained = read(wake_up_[0], wake_ups.data(), wake_ups.size());
    for (; !pending_.empty(); pending_.pop_back()) {
      const int fd = pending_.back()->fd;
      const auto slot = static_cast<size_t>(fd);
      if (slot >= watched_.size()) watched_.resize(slot + 1);
      watched_[slot] = std::move(pending_.back());
      put_into_epoll(fd);
    }
  }

  void put_into_epoll(int fd) const {
    epoll_event request{};
    request.events = EPOLLIN;
    request.data.fd = fd;
    epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &request);
  }

  void add_client(std::unique_ptr<EchoClient> client) {
    const int fd = client->fd.get();
    add({fd, std::move(client)});
  }

  // Last act of a handler: another thread may own the registration before this returns.
  void add(Registration registration) {
    fcntl(registration.fd, F_SETFL, O_NONBLOCK);
    auto record = std::make_unique<Registration>(std::move(registration));
    {
      const std::lock_guard changing(list_mutex_);
      pending_.push_back(std::move(record));
    }
    const std::array<char, 4> wake_up{};
    [[maybe_unused]] const ssize_t sent = send(wake_up_[1], wake_up.data(), wake_up.size(), 0);
  }

  const int listener_;
  const EchoAnswers& answers_;
  const int epoll_fd_;
  std::array<int, 2> wake_up_{};
  std::mutex epoll_mutex_;  // held by the thread that waits; before the other one
  std::mutex list_mutex_;
  std::vector<std::unique_ptr<Registration>> watched_;  // by descriptor
  std::vector<std::unique_ptr<Registration>> pending_;
};

[[noreturn]] void run_worker(int listener, const EchoAnswers& answers) {
  ToldLoop loop(listener, answers);
  for (int i = 1; i < kThreads; ++i) std::thread([&loop] { loop.dispatch(); }).detach();
  loop.dispatch();
}

}  // namespace

void run_told(int listener, const EchoAnswers& answers) {
  const pid_t parent = getpid();
  for (int i = 0; i < kProcesses; ++i) {
    const pid_t child = fork();
    if (child < 0) die("echo_server: fork");
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      run_worker(listener, answers);
    }
  }
  // A worker ends only by a fault; without it the figures would mean nothing.
  while (wait(nullptr) < 0 && errno == EINTR) continue;
  _exit(1);
}

}  // namespace bench
