// Several processes on one store, some of them killed.
#include <csignal>
#include <thread>

#include "tests/unit/libtorrin/CacheTest.h"

class ProcessesTest : public CacheTest {};

TEST_F(ProcessesTest, ANewLeaderReplacesAnOldOrMissingCompactCopyAtOnce) {
  ASSERT_EQ(start(), 0);
  bind("::1", "u");
  const std::string copy = file("bindings.compact.mdb");
  const auto inode = [&copy] {
    struct stat status {};
    return stat(copy.c_str(), &status) == 0 ? status.st_ino : 0;
  };
  // Whether a worker that takes over from a dead leader, whose copy this is, makes its own.
  const auto replaced = [&](int attempts) {
    const auto makes_copy = [&] {
      const ino_t before = inode();
      lookup("::1");
      while (attempts-- > 0 && inode() == before) {
        usleep(10 * 1000);
        if (log_lines("ERR", "no maintenance yet") != 0) rmdir(file("leader.lock").c_str());
      }
      return inode() != before;
    };
    return in_child(makes_copy) == true;
  };
  const auto set_age = [&](int seconds) {
    const auto now = std::filesystem::file_time_type::clock::now();
    std::filesystem::last_write_time(copy, now - std::chrono::seconds(seconds));
  };
  EXPECT_TRUE(replaced(500)) << "there was none";
  EXPECT_FALSE(replaced(20)) << "it is fresh, leaders may change often";
  set_age(60);
  EXPECT_TRUE(replaced(500));
  set_age(-3600);
  EXPECT_TRUE(replaced(500)) << "the clock was set back";

  std::filesystem::remove(copy);
  std::filesystem::remove(file("leader.lock"));
  std::filesystem::create_directory(file("leader.lock"));
  EXPECT_TRUE(replaced(500)) << "the leader's file could not be opened at first";
}

// More threads than there are reader slots, one after the other and in several processes.
TEST_F(ProcessesTest, SlotsOfEndedThreadsAndProcessesAreUsedAgain) {
  ASSERT_EQ(start(), 0);
  bind("::1", "u");
  const auto use_many_slots = [&] {
    static std::atomic<int> good{0};
    for (int group = 0; group < 10; ++group) {
      std::vector<std::jthread> callers;
      for (int i = 0; i < 30; ++i) callers.emplace_back([&] { good += lookup("::1") == "u"; });
    }
    for (int i = 0; i < 250; ++i) {  // these die with their slots
      std::thread([&] {
        good += lookup("::1") == "u";
        pause();
      }).detach();
    }
    for (int wait = 0; wait < 20'000 && good < 550; ++wait) usleep(1000);
    return good == 550 && lookup("::1") == "u";
  };
  for (int round = 0; round < 5; ++round) ASSERT_EQ(in_child(use_many_slots), true) << round;
  EXPECT_EQ(log_lines("ERR"), 0);
}

TEST_F(ProcessesTest, AReaderKilledInsideATransactionDoesNotFillTheMap) {
  map_bytes_ = size_t{1} << 20;
  ASSERT_EQ(start(), 0);
  const auto all = addresses(100);
  for (const std::string& ip : all) bind(ip, std::string(500, 'u'));
  const auto read_and_die = [&] {
    torrin::Store store;
    if (!store.open({file("bindings.mdb"), false, map_bytes_}, nullptr)) return false;
    return store.scan({}, 10, [](const auto&, std::string_view) { raise(SIGKILL); }).has_value();
  };
  EXPECT_EQ(in_child(read_and_die), -SIGKILL);
  for (size_t i = 0; i < 3000; ++i) ASSERT_EQ(bind(all[i % 100], std::string(500, 'v')), 0) << i;
}

TEST_F(ProcessesTest, ASlotThatWasTakenAwayIsNotTakenBackFromItsNewOwner) {
  ASSERT_EQ(start(), 0);
  const auto all = addresses(200);
  for (const std::string& ip : all) bind(ip, std::string(500, 'u'));
  EXPECT_EQ(lookup("::1"), "<1>");
  close(open(file("bindings.mdb-lock").c_str(), O_RDWR));  // now the others take this process for a dead one
  int ready[2];
  int go[2];
  ASSERT_EQ(pipe(ready) + pipe(go), 0);
  const pid_t reader = fork();
  if (reader == 0) {
    int seen = 0;
    torrin::Store store;
    const auto count = [&](const auto&, std::string_view record) {
      char byte = 'r';
      if (seen++ == 0 && write(ready[1], &byte, 1) + read(go[0], &byte, 1) != 2) _exit(1);
      if (record.back() != 'u') _exit(1);
    };
    _exit(store.open({file("bindings.mdb"), false, map_bytes_}, nullptr) && store.scan({}, 1000, count) &&
                  seen == 200
              ? 0
              : 1);
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(lookup("::1"), "<1>");
  for (int i = 0; i < 1000; ++i) bind(all[static_cast<size_t>(i) % 200], std::string(500, 'v'));
  EXPECT_EQ(write(go[1], &byte, 1), 1);
  int status = -1;
  waitpid(reader, &status, 0);
  EXPECT_EQ(status, 0) << "what it reads was reused under it";
  for (const int fd : {ready[0], ready[1], go[0], go[1]}) close(fd);
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
  EXPECT_EQ(lookup("10.0.0.2"), "<1>") << "look-ups take no lock";
  kill(writer, SIGKILL);
  waitpid(writer, nullptr, 0);
  EXPECT_FALSE(cache_->change_would_wait());
  EXPECT_EQ(bind("10.0.0.1", "parent"), 0);
  settings("Durable=yes\n");
  ASSERT_EQ(start(), 0);
  EXPECT_TRUE(cache_->change_would_wait()) << "for the disk";
}
