#include "event/Event.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "brellog/VrLog.h"
#include "tests/unit/brellog/LogTestSupport.h"

namespace {

using namespace std::chrono_literals;

constexpr int kThreads = 3;

// The loop never ends: it is started once and serves all tests of the process.
void start_loop_once() {
  static std::once_flag started;
  std::call_once(started, [] {
    event_init();
    for (int i = 0; i < kThreads; ++i) std::thread(event_dispatch).detach();
  });
}

struct Pair {
  Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds.data()), 0); }
  ~Pair() {
    for (int fd : fds) close(fd);
  }
  void poke() const { EXPECT_EQ(write(fds[1], "x", 1), 1); }
  [[nodiscard]] int fd() const { return fds[0]; }

  std::array<int, 2> fds{};
};

// Counts the calls of a callback and remembers the last one.
struct Recorder {
  void called(int fd, short events) {
    const std::lock_guard guard(mutex);
    last_fd = fd;
    last_events = events;
    ++calls;
    changed.notify_all();
  }
  bool wait_for_calls(int expected) {
    std::unique_lock guard(mutex);
    return changed.wait_for(guard, 5s, [&] { return calls >= expected; });
  }
  int count() {
    const std::lock_guard guard(mutex);
    return calls;
  }

  std::mutex mutex;
  std::condition_variable changed;
  int calls = 0;
  int last_fd = -1;
  short last_events = 0;
};

void record_and_drain(int fd, short events, void* arg) {
  char byte = 0;
  EXPECT_LE(read(fd, &byte, 1), 1);
  static_cast<Recorder*>(arg)->called(fd, events);
}

void add(int fd, short events, Recorder& recorder, short persist) {
  event ev;
  event_set(&ev, fd, events, record_and_drain, &recorder);
  event_add(&ev, persist);
}

class EventTest : public testing::Test {
 protected:
  void SetUp() override { start_loop_once(); }
  // A registration added later has been served: whatever was due before it has happened.
  static void settle() {
    const Pair pair;
    Recorder recorder;
    add(pair.fd(), EVENT_READ, recorder, 0);
    pair.poke();
    ASSERT_TRUE(recorder.wait_for_calls(1));
  }
};

TEST_F(EventTest, OneShotRegistrationFiresOnceAndPersistentOneAgainAndAgain) {
  // Outlive the test: the loop keeps the persistent registration, and makes it again after the last call.
  static std::array<Recorder, 2> recorders;
  static auto& pairs = *new std::array<Pair, 2>;
  for (short persist : {short{0}, short{1}}) {
    SCOPED_TRACE(persist);
    const Pair& pair = pairs[static_cast<size_t>(persist)];
    Recorder& recorder = recorders[static_cast<size_t>(persist)];
    add(pair.fd(), EVENT_READ, recorder, persist);
    pair.poke();
    ASSERT_TRUE(recorder.wait_for_calls(1));
    pair.poke();
    if (persist == 1) {
      EXPECT_TRUE(recorder.wait_for_calls(2));
    } else {
      settle();
      EXPECT_EQ(recorder.count(), 1);
    }
  }
}

TEST_F(EventTest, CallbackGetsTheRequestedEventsEvenOnHangUp) {
  Pair pair;
  Recorder recorder;
  shutdown(pair.fds[1], SHUT_RDWR);
  add(pair.fd(), EVENT_WRITE, recorder, 0);
  ASSERT_TRUE(recorder.wait_for_calls(1));
  EXPECT_EQ(recorder.last_fd, pair.fd());
  EXPECT_EQ(recorder.last_events, EVENT_WRITE);
}

TEST_F(EventTest, NewerOfTwoRegistrationsOfADescriptorFires) {
  const Pair pair;
  Recorder older;
  Recorder newer;
  add(pair.fd(), EVENT_READ, older, 0);
  settle();  // applied, so that the next one lies above it
  add(pair.fd(), EVENT_READ, newer, 0);
  settle();
  pair.poke();
  ASSERT_TRUE(newer.wait_for_calls(1));
  pair.poke();
  settle();
  EXPECT_EQ(newer.count(), 1);
  EXPECT_EQ(older.count(), 0);  // kept, but no longer in epoll
}

TEST_F(EventTest, RemovedOrInvalidRegistrationDoesNotFire) {
  const Pair removed;
  const Pair invalid;
  static Recorder recorder;  // outlives the test, as what was removed is kept
  add(removed.fd(), EVENT_READ, recorder, 0);
  event ev;
  event_set(&ev, removed.fd(), EVENT_READ, record_and_drain, &recorder);
  event_del(&ev);
  settle();
  shutdown(invalid.fds[1], SHUT_RDWR);  // a hang-up is reported whatever was asked for
  event_set(&ev, invalid.fd(), 2, record_and_drain, &recorder);
  EXPECT_EQ(event_add(&ev, 0), 1);
  removed.poke();
  settle();
  settle();
  EXPECT_EQ(recorder.count(), 0);
}

TEST_F(EventTest, DescriptorBecomesNonBlockingAndWhatIsNoneDoesNoHarm) {
  const Pair pair;
  Recorder recorder;
  add(-1, EVENT_READ, recorder, 0);
  add(pair.fd(), EVENT_READ, recorder, 0);
  EXPECT_EQ(fcntl(pair.fd(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
  pair.poke();
  EXPECT_TRUE(recorder.wait_for_calls(1));
  EXPECT_EQ(recorder.last_fd, pair.fd());
}

TEST_F(EventTest, LogTellsEachStepAndAnUnknownRemoval) {
  const log_test::TempDir folder;
  VrLog::setConfig("event.log", folder.path().c_str());
  VrLog::setLogVerbose(true);
  settle();
  constexpr int kNeverRegistered = 1000;
  event ev;
  event_set(&ev, kNeverRegistered, EVENT_READ, nullptr, nullptr);
  event_del(&ev);
  settle();
  VrLog::setLogVerbose(false);
  VrLog::stopLog();
  std::string log;
  for (const std::string& line : log_test::log_lines(folder, "event.log")) log += line.substr(13) + "\n";
  for (const char* expected : {"<DBG>.*event_add\\(\\) wake up \\.\\.\\. @",
                               "<DBG>.*handle_pending_events\\(\\) wakeup for add events\\.\\.\\. @",
                               "<DBG>.*handle_pending_events\\(\\) wakeup for del events\\.\\.\\. @",
                               "<ERR>.*fail to find register event @"}) {
    EXPECT_THAT(log, testing::ContainsRegex(expected));
  }
}

// Many descriptors, all threads: each callback registers its descriptor again as its last act, or leaves that
// to the loop, which may do it only after the callback has returned.
struct Load {
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> served{0};
  int fd = -1;
  bool quick = false;
  bool persistent = false;
  bool left = false;
};

void serve_one_byte(int fd, short events, void* arg);

void serve_again(Load* load) {
  load->inside.fetch_sub(1);
  event ev;
  event_set(&ev, load->fd, EVENT_READ, serve_one_byte, load);
  if (load->quick) event_set_quick(&ev);
  event_add(&ev, 0);
}

// Every third work hands its descriptors to another thread, one of those keeps the lead no longer.
thread_local std::vector<Load*> t_left;
void serve_left() {
  static std::atomic<int> works{0};
  std::vector<Load*> loads = std::exchange(t_left, {});
  const int work = works.fetch_add(1);
  if (work % 3 != 0) {
    for (Load* load : loads) serve_again(load);
    return;
  }
  if (work % 2 == 0) event_release_lead();
  event_let_go();
  std::thread([loads] {
    for (Load* load : loads) serve_again(load);
  }).detach();
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

TEST_F(EventTest, DescriptorIsNeverServedByTwoThreadsAtOnceAndLosesNothing) {
  constexpr size_t kPairs = 50;
  constexpr int kBytes = 200;
  // Never closed: the loop's threads have them until the process has ended.
  static auto& pairs = *new std::array<Pair, kPairs>;
  static std::array<Load, kPairs> loads;
  for (size_t i = 0; i < kPairs; ++i) {
    loads[i].fd = pairs[i].fd();
    loads[i].quick = i % 2 == 0;
    loads[i].left = i % 4 == 0;
    loads[i].persistent = i + 1 == kPairs;  // as the listener is
    event ev;
    event_set(&ev, pairs[i].fd(), EVENT_READ, serve_one_byte, &loads[i]);
    event_add(&ev, loads[i].persistent ? 1 : 0);
  }
  for (int byte = 0; byte < kBytes; ++byte) {
    for (const Pair& pair : pairs) pair.poke();
  }
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  const auto all_served = [&] {
    for (const Load& load : loads) {
      if (load.served != kBytes) return false;
    }
    return true;
  };
  while (!all_served() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(1ms);
  for (const Load& load : loads) {
    EXPECT_EQ(load.served, kBytes);
    EXPECT_EQ(load.overlaps, 0);
  }
}

// Its callback registers another descriptor and does not end before that one has been served.
struct Dependence {
  Pair first;
  Pair second;
  Recorder recorder;
  Recorder second_recorder;
  bool quick = false;
};

void wait_for_second(int fd, short events, void* arg) {
  auto* dependence = static_cast<Dependence*>(arg);
  if (dependence->quick) event_release_lead();
  add(dependence->second.fd(), EVENT_READ, dependence->second_recorder, 0);
  dependence->second.poke();
  if (dependence->second_recorder.wait_for_calls(1)) dependence->recorder.called(fd, events);
}

TEST_F(EventTest, OthersAreServedWhileACallbackTakesLong) {
  for (bool quick : {false, true}) {
    SCOPED_TRACE(quick);
    Dependence dependence;
    dependence.quick = quick;
    event ev;
    event_set(&ev, dependence.first.fd(), EVENT_READ, wait_for_second, &dependence);
    if (quick) event_set_quick(&ev);
    event_add(&ev, 0);
    dependence.first.poke();
    ASSERT_TRUE(dependence.recorder.wait_for_calls(1));
  }
}

// One thread alone: what it queues inside one callback is made after the next wait, the last first.
struct Script {
  std::array<Pair, 4> pairs;
  std::string served;
};
Script* g_script = nullptr;

void note_served(int fd, short /*events*/, void* arg) {
  if (fd == g_script->pairs[0].fd()) {
    fprintf(stderr, "served: %s\n", g_script->served.c_str());
    _exit(0);
  }
  g_script->served += static_cast<const char*>(arg);
}

void watch(size_t pair, const char* name, bool quick = false) {
  event ev;
  event_set(&ev, g_script->pairs[pair].fd(), EVENT_READ, note_served, const_cast<char*>(name));
  if (quick) event_set_quick(&ev);
  event_add(&ev, 0);
}

void unwatch(size_t pair) {
  event ev;
  event_set(&ev, g_script->pairs[pair].fd(), EVENT_READ, nullptr, nullptr);
  event_del(&ev);
}

// Ends the script once what is ready by then has been served.
void end_script(int fd, short /*events*/, void* /*arg*/) {
  static int rounds = 0;
  event ev;
  event_set(&ev, fd, EVENT_READ, ++rounds < 10 ? end_script : note_served, nullptr);
  event_add(&ev, 0);
}

[[noreturn]] void run_script(event_callback first, bool quick) {
  static Script script;
  g_script = &script;
  alarm(20);  // what is lost would be waited for without end
  event_init();
  for (const Pair& pair : script.pairs) pair.poke();
  event ev;
  event_set(&ev, script.pairs[0].fd(), EVENT_READ, first, nullptr);
  if (quick) event_set_quick(&ev);
  event_add(&ev, 0);
  event_dispatch();
  _exit(1);
}

void add_three(int fd, short events, void* arg) {
  watch(1, "1");
  watch(2, "2");
  watch(3, "3");
  end_script(fd, events, arg);
}

void add_one_twice(int fd, short events, void* arg) {
  watch(1, "first");
  watch(1, "second");
  end_script(fd, events, arg);
}

void add_and_remove(int fd, short events, void* arg) {
  unwatch(1);
  watch(1, "1");
  watch(2, "2");
  end_script(fd, events, arg);
}

// The descriptor of the callback itself, on top of an older registration of it, and a removal behind it.
void add_itself_among_others(int fd, short events, void* arg) {
  end_script(fd, events, arg);
  watch(1, "1");
  unwatch(2);
}

// A quick callback that leaves its descriptor alone, ready as it is, while another registration of it waits.
void leave_alone_what_was_added_again(int fd, short events, void* arg) {
  static bool again = false;
  watch(1, again ? "second" : "first", true);
  if (again) {
    end_script(fd, events, arg);
    return;
  }
  again = true;
  event ev;
  event_set(&ev, fd, EVENT_READ, leave_alone_what_was_added_again, nullptr);
  event_add(&ev, 0);
}

TEST(EventDeathTest, ChangesOfOneCallbackAreMadeInTheirOrder) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  struct {
    event_callback callback;
    const char* expected;
  } const cases[] = {
      {add_three, "served: 321\n"},
      {add_one_twice, "served: first\n"},
      {add_and_remove, "served: 2\n"},
      {add_itself_among_others, "served: 1\n"},
      {leave_alone_what_was_added_again, "served: firstsecond\n"},
  };
  for (const auto& [callback, expected] : cases) {
    for (bool quick : {false, true}) {
      EXPECT_EXIT(run_script(callback, quick), testing::ExitedWithCode(0), expected);
    }
  }
}

// What is left to a work, by a quick callback whose descriptor stays ready all the time.
std::vector<std::pair<int, void*>> g_left;
constexpr size_t kMostBetween = 64;

void note_again(int fd, short /*events*/, void* arg) {
  g_script->served += static_cast<const char*>(arg);
  if (fd != g_script->pairs[3].fd()) return;
  fprintf(stderr, "served: %s\n", g_script->served.c_str());
  _exit(0);
}

void finish_left() {
  g_script->served += "|";
  for (const auto& [fd, name] : std::exchange(g_left, {})) {
    event ev;
    event_set(&ev, fd, EVENT_READ, note_again, name);
    event_add(&ev, 0);
  }
}

void finish_left_without_lead() {
  event_release_lead();
  finish_left();
}

void leave(int fd, void* arg, event_work finish) {
  g_script->served += static_cast<const char*>(arg);
  g_left.emplace_back(fd, arg);
  if (!event_finish_later(finish)) g_script->served += "!";
}

void leave_it(int fd, short /*events*/, void* arg) {
  leave(fd, arg, finish_left);
}

void leave_it_without_lead(int fd, short /*events*/, void* arg) {
  leave(fd, arg, finish_left_without_lead);
}

void release_lead_first(int /*fd*/, short /*events*/, void* arg) {
  g_script->served += static_cast<const char*>(arg);
  event_release_lead();
  g_script->served += ".";
}

void come_again(int fd, short /*events*/, void* arg) {
  static size_t calls = 0;
  if (++calls > kMostBetween) _exit(2);
  event ev;
  event_set(&ev, fd, EVENT_READ, come_again, arg);
  event_set_quick(&ev);
  event_add(&ev, 0);
}

void watch_quick(size_t pair, const char* name, event_callback callback) {
  event ev;
  event_set(&ev, g_script->pairs[pair].fd(), EVENT_READ, callback, const_cast<char*>(name));
  event_set_quick(&ev);
  event_add(&ev, 0);
}

void watch_three(event_callback callback) {
  watch_quick(1, "1", callback);
  watch_quick(2, "2", callback);
  watch_quick(3, "3", callback);
}

void leave_three(int /*fd*/, short /*events*/, void* /*arg*/) {
  watch_three(leave_it);
}

void leave_three_without_lead(int /*fd*/, short /*events*/, void* /*arg*/) {
  watch_three(leave_it_without_lead);
}

void leave_two_before_a_release(int /*fd*/, short /*events*/, void* /*arg*/) {
  watch_quick(1, "1", release_lead_first);
  watch_quick(2, "2", leave_it);
  watch_quick(3, "3", leave_it);
}

void leave_one_beside_a_busy_one(int /*fd*/, short /*events*/, void* /*arg*/) {
  watch_quick(1, "1", come_again);
  watch_quick(3, "3", leave_it);
}

void poke_and_finish_left() {
  g_script->pairs[3].poke();
  finish_left();
}

// What has no registration now is removed; the registration that follows counts.
void leave_and_unwatch(int fd, short /*events*/, void* arg) {
  char byte = 0;
  EXPECT_EQ(read(fd, &byte, 1), 1);
  unwatch(3);
  leave(fd, arg, poke_and_finish_left);
}

void leave_one_that_is_removed(int /*fd*/, short /*events*/, void* /*arg*/) {
  watch_quick(3, "3", leave_and_unwatch);
}

TEST(EventDeathTest, WorkForSeveralDescriptorsIsDoneOnceAndInTime) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  struct {
    event_callback callback;
    const char* expected;
  } const cases[] = {
      // All are ready again at once; none is served before it was registered again.
      {leave_three, "served: 321\\|123\n"},
      {leave_three_without_lead, "served: 321\\|123\n"},
      {leave_two_before_a_release, "served: 321\\|\\.2?3\n"},
      {leave_one_beside_a_busy_one, "served: 3\\|3\n"},
      {leave_one_that_is_removed, "served: 3\\|3\n"},
  };
  for (const auto& [callback, expected] : cases) {
    EXPECT_EXIT(run_script(callback, false), testing::ExitedWithCode(0), expected);
  }
}

// A second descriptor of the same socket keeps it in epoll after the first was closed: it is reported once
// with a registration and once without.
struct Watched {
  Pair pair;
  Pair trigger;
  int descriptor = -1;
};

void close_watched(int /*fd*/, short /*events*/, void* arg) {
  const auto* watched = static_cast<Watched*>(arg);
  close(watched->descriptor);
  watched->pair.poke();
}

[[noreturn]] void close_a_watched_descriptor() {
  event_init();
  Watched watched;
  static Recorder recorder;
  watched.descriptor = dup(watched.pair.fd());
  add(watched.descriptor, EVENT_READ, recorder, 0);
  event ev;
  event_set(&ev, watched.trigger.fd(), EVENT_READ, close_watched, &watched);
  event_add(&ev, 0);
  watched.trigger.poke();
  event_dispatch();
  _exit(0);
}

TEST(EventDeathTest, ReadyDescriptorWithoutRegistrationAborts) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(close_a_watched_descriptor(),
               "Event.cpp:209: int event_dispatch\\(\\): Assertion `c != __null' failed");
}

}  // namespace
