#include "libtorrin/Recovery.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <csignal>
#include <vector>

#include "daemonbase/UniqueFd.h"
#include "libtorrin/Store.h"
#include "libtorrin/StoreFile.h"
#include "tests/unit/libtorrin/CacheTest.h"

class RecoveryTest : public CacheTest {};

TEST_F(RecoveryTest, ALossOfPowerCostsWhatTheCompactCopyDoesNotHold) {
  struct Row {
    bool copied, durable_before, durable_after;
    const char* first;
    const char* second;  // bound after the compact copy
    const char* told;
  };
  const Row rows[] = {
      {true, false, false, "before", "<1>", "restarted: starting from the compact copy, 1 bindings"},
      {false, false, false, "<1>", "<1>", "restarted and there is no compact copy"},
      {true, true, true, "before", "after", ""},
      {true, true, false, "before", "after", ""},
      {true, false, true, "before", "<1>", "starting from the compact copy"},  // the old file is not durable
  };
  for (const Row& row : rows) {
    std::filesystem::remove_all(file(""));
    write_file(root_ + "/boot_id", "first\n");
    settings(row.durable_before ? "Durable = YES \n" : "");
    const auto live_and_die = [&] {
      return start() == 0 && bind("10.0.0.1", "before") == 0 && (!row.copied || cache_->copy()) &&
             bind("10.0.0.2", "after") == 0;
    };
    ASSERT_EQ(in_child(live_and_die), true);
    write_file(root_ + "/boot_id", "second\n");
    settings(row.durable_after ? "Durable=yes\n" : "");
    forget_log();
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(lookup("10.0.0.1"), row.first) << row.told;
    EXPECT_EQ(lookup("10.0.0.2"), row.second) << row.told;
    EXPECT_EQ(log_lines("INF", row.told), *row.told == '\0' ? 0 : 1) << row.told;
    EXPECT_EQ(log_lines("ERR"), 0) << row.told;
    bind("10.0.0.3", "new");
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(lookup("10.0.0.3"), "new") << "the new boot is known now";
    cache_.reset();
  }
}

TEST_F(RecoveryTest, AStartThatChangesNothingWritesNoState) {
  ASSERT_EQ(start(), 0);
  bind("10.0.0.1", "u");
  cache_.reset();
  // Stands for a disk on which nothing can be written any more.
  std::filesystem::create_directory(file("state.new"));
  EXPECT_EQ(start(), 0);
  EXPECT_EQ(lookup("10.0.0.1"), "u");
  cache_.reset();
  settings("Durable=yes\n");
  EXPECT_NE(start(), 0) << "what must be told to the next start has to be on the disk";
}

TEST_F(RecoveryTest, ADamagedFileIsPutAsideAndTheCopyTakesItsPlace) {
  struct Row {
    const char* name;
    std::function<void(std::string&)> damage;
  };
  const Row rows[] = {
      {"cut within the meta pages", [](std::string& text) { text.resize(5000); }},
      {"cut in the middle", [](std::string& text) { text.resize(text.size() / 2); }},
      {"foreign text", [](std::string& text) { text.assign(100000, 'x'); }},
      {"page size zero", [](std::string& text) { text[41] = text[4096 + 41] = 0; }},
      {"a last page far behind the end", [](std::string& text) { text[139] = text[4096 + 139] = 1; }},
      {"zeros behind the meta pages",
       [](std::string& text) { std::fill(text.begin() + 8192, text.end(), 0); }},
  };
  const std::string user(100, 'u');
  for (const Row& row : rows) {
    std::filesystem::remove_all(file(""));
    ASSERT_EQ(start(), 0) << row.name;
    for (const std::string& ip : addresses(200)) bind(ip, user);
    cache_.reset();
    std::string text = read_file(file("bindings.mdb"));
    row.damage(text);
    write_file(file("bindings.mdb"), text);
    forget_log();
    ASSERT_EQ(start(), 0) << row.name;
    EXPECT_EQ(lookup("10.0.0.199"), user) << row.name;
    EXPECT_EQ(log_lines("ERR"), 1) << row.name;
    EXPECT_EQ(read_file(file("bindings.mdb.damaged")), text) << row.name;

    // Both damaged: empty, but alive.
    cache_.reset();
    write_file(file("bindings.mdb"), text);
    write_file(file("bindings.compact.mdb"), text);
    ASSERT_EQ(start(), 0) << row.name;
    EXPECT_EQ(lookup("10.0.0.199"), "<1>") << row.name;
    EXPECT_EQ(bind("10.0.0.199", "u"), 0) << row.name;
  }
}

TEST_F(RecoveryTest, TheDumperReadsWhatIsLeftOfAStoreAndRefusesAPipe) {
  const auto dumper = std::filesystem::canonical("/proc/self/exe").parent_path() / "ipcache_dump";
  if (!std::filesystem::exists(dumper)) GTEST_SKIP() << "the tools were not built";
  const std::string out = root_ + "/out";
  const auto dump = [&](const std::string& path) {
    return WEXITSTATUS(system(("timeout 10 " + dumper.string() + " " + path + " >" + out + " 2>&1").c_str()));
  };
  ASSERT_EQ(start(), 0);
  bind("10.0.0.1", "a\nb");
  EXPECT_EQ(dump(file("bindings.mdb")), 0);
  EXPECT_THAT(read_file(out), testing::HasSubstr("10.0.0.1" + std::string(33, ' ') +
                                                 "1970-01-12T21:46:40Z  (expired)  a\\x0ab\n"));
  write_file(root_ + "/cut", read_file(file("bindings.mdb")).substr(0, 5000));
  EXPECT_EQ(dump(root_ + "/cut"), 1);
  ASSERT_EQ(mkfifo((root_ + "/pipe").c_str(), 0600), 0);
  EXPECT_EQ(dump(root_ + "/pipe"), 1);
}

TEST_F(RecoveryTest, AListOfFreePagesThatFillsPagesOfItsOwnIsReadButNotBelieved) {
  ASSERT_EQ(start(), 0);
  std::vector<torrin::AddressKey> keys;
  for (const std::string& ip : addresses(2000)) {
    ASSERT_EQ(bind(ip, std::string(1000, 'u')), 0);
    keys.push_back(*torrin::parse_address(ip.c_str()));
  }
  cache_.reset();
  torrin::Store store;
  ASSERT_TRUE(store.open({file("bindings.mdb"), false, map_bytes_}, [] {}));
  ASSERT_EQ(store.remove_expired(keys, INT64_MAX), 2000);
  store.close();
  const auto check = [this] {
    const UniqueFd fd(open(file("bindings.mdb").c_str(), O_RDONLY));
    const auto header = torrin::check_store_file(fd.get());
    return header ? std::to_string(header->free_pages.overflow_pages > 0) : header.error();
  };
  EXPECT_EQ(check(), "1");

  // A run of nearly 4 GB from the last page number there is: neither may be added up or allocated first.
  std::string text = read_file(file("bindings.mdb"));
  const std::string flags_and_key_size("\1\0\10\0", 4);
  size_t changed = 0;
  for (size_t at = text.find(flags_and_key_size); at != std::string::npos;
       at = text.find(flags_and_key_size, at + 1)) {
    if (at % 2 != 0 || at < 4) continue;
    text.replace(at - 4, 4, "\xf8\xff\xff\xff");
    text.replace(at + 12, 8, 8, '\xff');
    ++changed;
  }
  ASSERT_GT(changed, 0U);
  write_file(file("bindings.mdb"), text);
  EXPECT_THAT(check(), testing::HasSubstr("begins a run that leaves the file"));
}

TEST_F(RecoveryTest, ASecondDaemonIsTurnedAwayAndADeadOneBlocksNobody) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t daemon = fork();
  if (daemon == 0) {
    if (start() != 0 || bind("10.0.0.1", "first") != 0) _exit(1);
    if (fork() == 0) {  // its worker, which outlives it
      bind("10.0.0.2", "worker");
      (void)!write(ready[1], "w", 1);
      for (int i = 0; i < 200 && lookup("10.0.0.3") != "second"; ++i) usleep(50 * 1000);
      bind("10.0.0.4", "orphan");
      (void)!write(ready[1], "d", 1);
      _exit(0);
    }
    pause();
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  forget_log();
  EXPECT_NE(start(), 0);
  EXPECT_EQ(log_lines("ERR", "is used by another daemon (process " + std::to_string(daemon) + ")"), 1);

  kill(daemon, SIGKILL);
  waitpid(daemon, nullptr, 0);
  // The worker lives on: even what looks like a restart of the machine must not take its file away.
  write_file(root_ + "/boot_id", "changed\n");
  ASSERT_EQ(start(), 0);
  EXPECT_EQ(lookup("10.0.0.1"), "first");
  EXPECT_EQ(lookup("10.0.0.2"), "worker");
  EXPECT_EQ(bind("10.0.0.3", "second"), 0);
  ASSERT_EQ(read(ready[0], &byte, 1), 1) << "the worker sees the binding of the new daemon";
  EXPECT_EQ(lookup("10.0.0.4"), "orphan");
  close(ready[0]);
  close(ready[1]);
}
