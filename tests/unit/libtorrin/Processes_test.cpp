// Several processes on one store, some of them killed.
#include <csignal>
#include <set>
#include <thread>

#include "tests/unit/libtorrin/CacheTest.h"

#if defined(__SANITIZE_THREAD__)
// Children of a process with threads start threads here all the time; that is what is tested.
extern "C" const char* __tsan_default_options() {
  return "die_after_fork=0";
}
#endif

class ProcessesTest : public CacheTest {
 protected:
  // The sanitizers have threads of their own, so only differences count.
  static std::set<std::string> threads() {
    std::set<std::string> names;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      names.insert(task.path().filename());
    }
    return names;
  }
  // The thread sanitizer starts its own with the first thread that a child starts.
  static std::set<std::string> threads_of_child() {
    std::thread([] {}).join();
    return threads();
  }
  // Threads that are there now and were not before; a joined one may still be seen for a moment.
  static std::vector<std::string> new_threads(const std::set<std::string>& before) {
    std::vector<std::string> names;
    for (int attempt = 0; attempt < 100 && names.size() != 1; ++attempt) {
      if (attempt > 0) usleep(10 * 1000);
      names.clear();
      const auto now = threads();
      std::set_difference(now.begin(), now.end(), before.begin(), before.end(), std::back_inserter(names));
    }
    return names;
  }
};

TEST_F(ProcessesTest, TheParentStaysSingleThreadedAndAChildStartsMaintenanceWithoutSignals) {
  const auto before = threads();
  ASSERT_EQ(start(), 0);
  bind("::1", "parent");
  EXPECT_EQ(threads(), before) << "a fork after initialize must find one thread";
  const int status = in_child([&] {
    const auto at_first = threads_of_child();
    if (lookup("::1") != "parent" || bind("::2", "child") != 0 || lookup("::2") != "child") return false;
    const auto added = new_threads(at_first);
    if (added.size() != 1) return false;
    const std::string text = read_text("/proc/self/task/" + added.front() + "/status");
    // Everything but SIGKILL, SIGSTOP and the two that the C library keeps.
    constexpr unsigned long long kAll = 0xfffffffe7ffbfeff;
    const auto blocked = std::stoull(text.substr(text.find("SigBlk:") + 7), nullptr, 16);
    return (blocked & kAll) == kAll;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(lookup("::2"), "child");
}

TEST_F(ProcessesTest, ANewLeaderReplacesAnOldOrMissingCompactCopyAtOnce) {
  ASSERT_EQ(start(), 0);
  bind("::1", "u");
  const std::string copy = file("bindings.compact.mdb");
  // Whether a worker that takes over from a dead leader, whose copy this is, makes its own.
  const auto replaced = [&](int attempts) {
    return in_child([&] {
             struct stat before {};
             stat(copy.c_str(), &before);
             lookup("::1");
             for (int i = 0; i < attempts; ++i) {
               struct stat now {};
               if (stat(copy.c_str(), &now) == 0 && now.st_ino != before.st_ino) return true;
               usleep(10 * 1000);
             }
             return false;
           }) == 0;
  };
  const auto set_age = [&](int seconds) {
    timespec times[2]{};
    clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= seconds;
    times[1] = times[0];
    ASSERT_EQ(utimensat(AT_FDCWD, copy.c_str(), times, 0), 0);
  };
  EXPECT_TRUE(replaced(500)) << "there was none";
  EXPECT_FALSE(replaced(20)) << "it is fresh, leaders may change often";
  set_age(60);
  EXPECT_TRUE(replaced(500));
  set_age(-3600);
  EXPECT_TRUE(replaced(500)) << "the clock was set back";
}

TEST_F(ProcessesTest, EveryGenerationOfForksSeesAndChangesTheSameBindings) {
  ASSERT_EQ(start(), 0);
  bind("::1", "0");
  for (int round = 1; round <= 20; ++round) {
    ASSERT_EQ(lookup("::1"), std::to_string(round - 1)) << "its read transaction is there at the fork";
    const int status = in_child([&] {
      if (lookup("::1") != std::to_string(round - 1)) return false;
      return in_child([&] { return bind("::1", std::to_string(round)) == 0; }) == 0 &&
             lookup("::1") == std::to_string(round);
    });
    ASSERT_EQ(status, 0) << round;
  }
  EXPECT_EQ(lookup("::1"), "20");
}

TEST_F(ProcessesTest, AForkWhileThreadsAreInsideCallsIsSafe) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "this sanitizer's allocator stays locked in a child when another thread was inside it";
#endif
  ASSERT_EQ(start(), 0);
  std::atomic<bool> stop{false};
  std::vector<std::thread> callers;
  for (int id = 0; id < 3; ++id) {
    callers.emplace_back([&, id] {
      const std::string ip = "10.0.0." + std::to_string(id);
      while (!stop) {
        EXPECT_EQ(bind(ip.c_str(), ip), 0);
        EXPECT_EQ(lookup(ip), ip);
        std::thread([&] { EXPECT_EQ(lookup(ip), ip); }).join();  // threads come and go with their slots
      }
    });
  }
  for (int i = 0; i < 40; ++i) {
    const std::string ip = "10.0.1." + std::to_string(i);
    EXPECT_EQ(in_child([&] {
                alarm(20);
                return bind(ip.c_str(), "c") == 0 && lookup(ip) == "c";
              }),
              0)
        << i;
    EXPECT_EQ(lookup(ip), "c");
  }
  stop = true;
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(new_lines("ERR"), 0);
}

TEST_F(ProcessesTest, ThreadsOfOneChildOpenTheStoreOnce) {
  ASSERT_EQ(start(), 0);
  bind("::1", "u");
  const int status = in_child([&] {
    const auto at_first = threads_of_child();
    std::atomic<int> good{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 30; ++i) {
      callers.emplace_back([&, i] {
        const std::string ip = "10.0.0." + std::to_string(i);
        if (lookup("::1") == "u" && bind(ip.c_str(), ip) == 0 && lookup(ip) == ip) ++good;
      });
    }
    for (std::thread& caller : callers) caller.join();
    return good == 30 && new_threads(at_first).size() == 1;
  });
  EXPECT_EQ(status, 0);
}

// More threads than there are reader slots, one after the other and in two processes.
TEST_F(ProcessesTest, SlotsOfEndedThreadsAndProcessesAreUsedAgain) {
  ASSERT_EQ(start(), 0);
  bind("::1", "u");
  for (int round = 0; round < 5; ++round) {
    const int status = in_child([&] {
      static std::atomic<bool> good{true};
      static std::atomic<int> reading{0};
      for (int group = 0; group < 10; ++group) {
        std::vector<std::thread> callers;
        for (int i = 0; i < 30; ++i) {
          callers.emplace_back([&] {
            if (lookup("::1") != "u") good = false;
          });
        }
        for (std::thread& caller : callers) caller.join();
      }
      std::vector<std::thread> last;  // these die with their slots
      for (int i = 0; i < 250; ++i) {
        last.emplace_back([&] {
          if (lookup("::1") != "u") good = false;
          ++reading;
          pause();
        });
        last.back().detach();
      }
      while (reading < 250) usleep(1000);
      return good.load() && lookup("::1") == "u";
    });
    ASSERT_EQ(status, 0) << round;
  }
  EXPECT_EQ(new_lines("ERR"), 0);
}

TEST_F(ProcessesTest, AReaderKilledInsideATransactionDoesNotFillTheMap) {
  map_bytes_ = size_t{1} << 20;
  ASSERT_EQ(start(), 0);
  for (int i = 0; i < 100; ++i) bind(("10.0.0." + std::to_string(i)).c_str(), std::string(500, 'u'));
  torrin::Store store;
  int inside[2];
  ASSERT_EQ(pipe(inside), 0);
  const pid_t reader = fork();
  if (reader == 0) {
    if (!store.open({file("bindings.mdb"), false, map_bytes_}, nullptr)) _exit(1);
    (void)store.scan({}, 10, [&](const torrin::AddressKey&, std::string_view) {
      (void)!write(inside[1], "r", 1);
      pause();
    });
    _exit(1);
  }
  char byte = 0;
  ASSERT_EQ(read(inside[0], &byte, 1), 1);
  kill(reader, SIGKILL);
  waitpid(reader, nullptr, 0);
  close(inside[0]);
  close(inside[1]);
  for (int i = 0; i < 3000; ++i) {
    ASSERT_EQ(bind(("10.0.0." + std::to_string(i % 100)).c_str(), std::string(500, 'v')), 0) << i;
  }
}

TEST_F(ProcessesTest, AWriterThatStandsStillIsSeenUntilItIsGone) {
  ASSERT_EQ(start(), 0);
  EXPECT_FALSE(cache_->change_would_wait());
  const pid_t writer = fork();
  if (writer == 0) {
    alarm(60);
    for (;;) bind("10.0.0.1", "child");
  }
  bool seen = false;
  for (int i = 0; i < 2000 && !seen; ++i) {
    usleep(1000);
    kill(writer, SIGSTOP);
    waitpid(writer, nullptr, WUNTRACED);
    seen = cache_->change_would_wait();
    if (!seen) kill(writer, SIGCONT);
  }
  EXPECT_TRUE(seen);
  EXPECT_EQ(lookup("10.0.0.2"), "<1>");
  EXPECT_TRUE(cache_->change_would_wait());
  kill(writer, SIGKILL);
  waitpid(writer, nullptr, 0);
  EXPECT_FALSE(cache_->change_would_wait());
  EXPECT_EQ(bind("10.0.0.1", "parent"), 0);
  EXPECT_EQ(new_lines("INF", "cannot be seen"), 0);
  settings("Durable=yes\n");
  ASSERT_EQ(start(), 0);
  EXPECT_TRUE(cache_->change_would_wait()) << "for the disk";
}

TEST_F(ProcessesTest, TheModuleItselfMayEndInAChildWithoutTouchingTheStore) {
  auto module = std::make_unique<IPUserCacheModule>();
  ASSERT_EQ(module->initialize(workdir_.c_str()), 0);
  ASSERT_EQ(module->update_cache_item("::1", "u"), 0);
  EXPECT_EQ(in_child([&] {
              module.reset();
              return !std::filesystem::exists(file("bindings.compact.mdb"));
            }),
            0);
  std::string user;
  long expire = 0;
  EXPECT_EQ(module->query_cache_item("::1", user, expire), 0);
  EXPECT_EQ(module->delete_cache_item("::1"), 0);
  EXPECT_EQ(module->write_cache_file(), 0);
  EXPECT_TRUE(module->export_cache_item(root_ + "/e.csv"));
  module.reset();
  EXPECT_TRUE(std::filesystem::exists(file("bindings.compact.mdb")));
}
