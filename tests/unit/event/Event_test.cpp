#include "event/Event.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include "brellog/VrLog.h"
#include "tests/unit/Support.h"

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr int kThreads = 3;
constexpr size_t kMostBetween = 64;

struct Pair {
  Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds.data()), 0); }
  void poke() const { EXPECT_EQ(write(fds[1], "x", 1), 1); }
  [[nodiscard]] int fd() const { return fds[0]; }

  std::array<int, 2> fds{};  // closed with the process
};

void watch(int fd, event_callback callback, void* arg, bool quick = false, short persist = 0) {
  event ev;
  event_set(&ev, fd, EVENT_READ, callback, arg);
  if (quick) event_set_quick(&ev);
  event_add(&ev, persist);
}

// A loop never ends and begins once in a process. So each gets a process of its own, which `body` ends; what
// it prints is returned.
std::string run(const std::function<void()>& body) {
  std::array<int, 2> ends{};
  EXPECT_EQ(pipe(ends.data()), 0);
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);  // what is lost would be waited for without end
    for (int fd : {STDOUT_FILENO, STDERR_FILENO}) dup2(ends[1], fd);
    event_init();
    body();
    event_dispatch();
  }
  close(ends[1]);
  const std::string printed = support::read_file("/dev/fd/" + std::to_string(ends[0]));
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return printed;
}

[[noreturn]] void end_with(const std::string& text) {
  printf("%s\n", text.c_str());
  fflush(stdout);
  _exit(0);
}

// What a loop with one thread does: each call of the callback of pair 0 takes a step of the script. What the
// callbacks of the other pairs add is the result. Ten empty steps follow the last.
using Act = std::function<void()>;
struct Script {
  std::array<Pair, 5> pairs;  // all but the last are ready all the time
  std::vector<std::vector<Act>> steps;
  size_t step = 0;
  std::string served;
  std::vector<std::pair<int, void*>> left;
};
Script* g_script = nullptr;

void take_step(int fd, short /*events*/, void* /*arg*/) {
  Script& script = *g_script;
  const size_t step = script.step++;
  if (step < script.steps.size()) {
    for (const Act& act : script.steps[step]) act();
  } else if (step < script.steps.size() + 10) {
    watch(fd, take_step, nullptr);
  } else {
    end_with(script.served);
  }
}

void note(int /*fd*/, short events, void* name) {
  g_script->served += static_cast<const char*>(name);
  if (events != EVENT_READ) g_script->served += std::to_string(events);
}

// Quick callbacks.

void do_no_more(int fd, short events, void* name) {
  note(fd, events, name);
}

void release(int fd, short events, void* name) {
  note(fd, events, name);
  event_release_lead();
  g_script->served += ".";
}

void write_next(int fd, short /*events*/, void* name) {
  char byte = 0;
  EXPECT_EQ(read(fd, &byte, 1), 1);
  event ev;
  event_set(&ev, fd, EVENT_WRITE, note, name);
  event_add(&ev, 0);
}

void come_again(int fd, short events, void* name) {
  static size_t calls = 0;
  if (++calls == kMostBetween) note(fd, events, name);
  watch(fd, come_again, name, true);
}

void close_and_reuse(int fd, short /*events*/, void* name) {
  event_closing(fd);
  dup2(g_script->pairs[3].fd(), fd);
  watch(fd, note, name);
}

void finish_left() {
  g_script->served += "|";
  for (const auto& [fd, name] : std::exchange(g_script->left, {})) {
    for (const Pair& pair : g_script->pairs) {
      if (pair.fd() == fd) pair.poke();
    }
    watch(fd, note, name);
  }
  watch(g_script->pairs[0].fd(), take_step, nullptr);
}

void finish_left_without_lead() {
  event_release_lead();
  finish_left();
}

template <event_work finish>
void leave_to(int fd, short events, void* name) {
  note(fd, events, name);
  g_script->left.emplace_back(fd, name);
  if (!event_finish_later(finish)) g_script->served += "!";
}
constexpr event_callback leave = leave_to<finish_left>;
constexpr event_callback leave_without_lead = leave_to<finish_left_without_lead>;

void remove(int fd) {
  event ev;
  event_set(&ev, fd, EVENT_READ, nullptr, nullptr);
  event_del(&ev);
}

// Not ready any more, and without the registration that it removes.
void leave_removed(int fd, short events, void* name) {
  char byte = 0;
  EXPECT_EQ(read(fd, &byte, 1), 1);
  remove(fd);
  leave(fd, events, name);
}

// The acts of a script.

Act add(size_t pair, const char* name, event_callback callback = note) {
  return [=] {
    const int fd = pair < g_script->pairs.size() ? g_script->pairs[pair].fd() : -1;
    watch(fd, callback, const_cast<char*>(name), callback != note);
  };
}
Act del(size_t pair) {
  return [=] { remove(g_script->pairs[pair].fd()); };
}
Act poke(size_t pair) {
  return [=] { g_script->pairs[pair].poke(); };
}
const Act again = [] { watch(g_script->pairs[0].fd(), take_step, nullptr); };

std::string served(const std::vector<std::vector<Act>>& steps, bool quick = false) {
  return run([&] {
    static Script script;
    g_script = &script;
    script.steps = steps;
    for (size_t i = 0; i + 1 < script.pairs.size(); ++i) script.pairs[i].poke();
    watch(script.pairs[0].fd(), take_step, nullptr, quick);
  });
}

TEST(EventTest, ChangesOfOneCallbackAreMadeInTheirOrderTheLastOneFirst) {
  for (bool quick : {false, true}) {
    SCOPED_TRACE(quick);
    EXPECT_EQ(served({{add(1, "a"), add(2, "b"), add(3, "c"), again}}, quick), "cba\n");
    EXPECT_EQ(served({{add(1, "a"), add(1, "b"), again}}, quick), "a\n");
    EXPECT_EQ(served({{del(1), add(1, "a"), add(2, "b"), again}}, quick), "b\n");  // removals come last
    EXPECT_EQ(served({{again, add(1, "a"), del(2)}}, quick), "a\n");
    EXPECT_EQ(served({{add(9, "x"), add(1, "a"), again}}, quick), "a\n");  // no descriptor, no harm
    // Left alone, ready as it is, while another registration waits.
    EXPECT_EQ(served({{add(1, "a", do_no_more), again}, {add(1, "b", do_no_more), again}}, quick), "ab\n");
    EXPECT_EQ(served({{add(1, "a", close_and_reuse), again}}, quick), "a\n");
    EXPECT_EQ(served({{add(1, "a", write_next), again}}, quick), "a4\n");
    // A registration lies on top of an older one, which stays, but no longer in epoll.
    EXPECT_EQ(served({{add(4, "a"), again}, {add(4, "b"), poke(4), again}}, quick), "b\n");
    EXPECT_EQ(served({{add(4, "a"), again}, {del(4), poke(4), again}}, quick), "\n");
    EXPECT_EQ(served({{add(4, "a"), again}, {poke(4), del(4), again}}, quick), "a\n");
  }
}

TEST(EventTest, RefusalsAreLogged) {
  const Act add_nothing = [] {
    VrLog::bDupLogToConsole = true;
    event ev;
    event_set(&ev, g_script->pairs[1].fd(), 2, note, nullptr);
    event_add(&ev, 0);
  };
  EXPECT_THAT(served({{add_nothing, del(4), again}}),
              testing::AllOf(HasSubstr("> Fail to add invalid events into monitor @<event_add> "),
                             HasSubstr("> fail to find register event @")));
}

TEST(EventTest, WorkForSeveralDescriptorsIsDoneOnceAndInTime) {
  // All are ready again at once; none is served before it was registered again.
  EXPECT_EQ(served({{add(1, "a", leave), add(2, "b", leave), add(3, "c", leave)}}), "cba|abc\n");
  EXPECT_EQ(served({{add(1, "a", leave_without_lead), add(2, "b", leave_without_lead)}}), "ba|ab\n");
  EXPECT_THAT(served({{add(1, "a", release), add(2, "b", leave), add(3, "c", leave)}}),
              testing::AnyOf("cba|.bc\n", "cba|.cb\n"));
  // No more than 64 events of the busy one come first.
  EXPECT_EQ(served({{add(1, "+", come_again), add(3, "c", leave)}}), "c|+c\n");
  EXPECT_EQ(served({{add(3, "c", leave_removed)}}), "c|c\n");
}

// Many descriptors, all threads: each callback registers its descriptor again as its last act, or leaves that
// to the loop, which may do it only after the callback has returned.
struct Load {
  Pair pair;
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> served{0};
  bool quick = false;
  bool persistent = false;
  bool left = false;
};

void serve_one_byte(int fd, short events, void* arg);

void serve_again(Load* load) {
  load->inside.fetch_sub(1);
  watch(load->pair.fd(), serve_one_byte, load, load->quick);
}

// Every third work hands its descriptors to another thread, one of those keeps the lead no longer.
thread_local std::vector<Load*> t_left;
void serve_left() {
  static std::atomic<int> works{0};
  const std::vector<Load*> loads = std::exchange(t_left, {});
  const auto serve_all = [loads] {
    for (Load* load : loads) serve_again(load);
  };
  const int work = works.fetch_add(1);
  if (work % 3 != 0) return serve_all();
  if (work % 2 == 0) event_release_lead();
  event_let_go();
  std::thread(serve_all).detach();
}

void serve_one_byte(int fd, short /*events*/, void* arg) {
  auto* load = static_cast<Load*>(arg);
  if (load->inside.fetch_add(1) != 0) load->overlaps.fetch_add(1);
  char byte = 0;
  if (read(fd, &byte, 1) == 1) load->served.fetch_add(1);
  if (load->served % 3 == 0) event_release_lead();  // of a quick one
  if (load->persistent) std::this_thread::sleep_for(1ms);
  std::this_thread::yield();
  if (load->left) {
    t_left.push_back(load);
    if (!event_finish_later(serve_left)) serve_left();
  } else if (load->persistent) {
    load->inside.fetch_sub(1);
  } else {
    serve_again(load);
  }
}

TEST(EventTest, DescriptorIsNeverServedByTwoThreadsAtOnceAndLosesNothing) {
  constexpr size_t kLoads = 50;
  constexpr int kBytes = 200;
  const std::string result = run([] {
    static std::array<Load, kLoads> loads;
    for (size_t i = 0; i < kLoads; ++i) {
      loads[i].quick = i % 2 == 0;
      loads[i].left = i % 4 == 0;
      loads[i].persistent = i + 1 == kLoads;  // as the listener is
      watch(loads[i].pair.fd(), serve_one_byte, &loads[i], loads[i].quick, loads[i].persistent ? 1 : 0);
      EXPECT_TRUE((fcntl(loads[i].pair.fd(), F_GETFL) & O_NONBLOCK) != 0);
    }
    for (int i = 0; i < kThreads; ++i) std::thread(event_dispatch).detach();
    for (int byte = 0; byte < kBytes; ++byte) {
      for (const Load& load : loads) load.pair.poke();
    }
    int overlaps = 0;
    for (const Load& load : loads) {
      while (load.served < kBytes) std::this_thread::sleep_for(1ms);
      overlaps += load.overlaps;
    }
    end_with(std::to_string(overlaps) + " overlaps");
  });
  EXPECT_EQ(result, "0 overlaps\n");
}

TEST(EventTest, OthersAreServedWhileACallbackTakesLong) {
  for (bool quick : {false, true}) {
    const std::string result = run([quick] {
      static Pair first;
      static Pair second;
      static std::promise<void> served;
      const auto wait_for_second = [](int, short, void* is_quick) {
        if (is_quick != nullptr) event_release_lead();
        watch(
            second.fd(), [](int, short, void*) { served.set_value(); }, nullptr);
        second.poke();
        served.get_future().wait();
        end_with("served");
      };
      watch(first.fd(), wait_for_second, quick ? &first : nullptr, quick);
      first.poke();
      std::thread(event_dispatch).detach();
    });
    EXPECT_EQ(result, "served\n") << quick;
  }
}

// A second descriptor of the same socket keeps it in epoll after the first was closed: it is reported once
// with a registration and once without.
TEST(EventTest, ReadyDescriptorWithoutRegistrationAborts) {
  const std::string result = run([] {
    static Pair pair;
    static int descriptor = dup(pair.fd());
    watch(
        descriptor, [](int, short, void*) {}, nullptr);
    static Pair trigger;
    watch(
        trigger.fd(),
        [](int, short, void*) {
          pair.poke();
          close(descriptor);
        },
        nullptr);
    trigger.poke();
  });
  EXPECT_THAT(result, HasSubstr("Event.cpp:209: int event_dispatch(): Assertion `c != __null' failed"));
}

}  // namespace
