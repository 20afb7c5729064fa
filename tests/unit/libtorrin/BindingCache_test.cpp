#include "libtorrin/BindingCache.h"

#include "tests/unit/libtorrin/CacheTest.h"

class BindingCacheTest : public CacheTest {};

TEST_F(BindingCacheTest, ABindingIsFoundUnderEverySpellingUntilItIsRemoved) {
  ASSERT_EQ(start(), 0);
  EXPECT_EQ(lookup("10.0.0.1"), "<1>");
  EXPECT_EQ(bind("10.0.0.1", "DOM\\ann"), 0);
  EXPECT_EQ(lookup("::ffff:10.0.0.1"), "DOM\\ann");
  EXPECT_EQ(bind("::ffff:a00:1", "DOM\\bob"), 0);
  EXPECT_EQ(lookup("10.0.0.1"), "DOM\\bob");
  EXPECT_EQ(cache_->remove("10.0.0.1"), 0);
  EXPECT_EQ(cache_->remove("10.0.0.1"), 1);
  EXPECT_EQ(lookup("10.0.0.1"), "<1>");
}

TEST_F(BindingCacheTest, UsersAreKeptByteForByteAndBadOnesRefused) {
  ASSERT_EQ(start(), 0);
  std::string all_bytes;
  for (int i = 0; i < 1024; ++i) all_bytes.push_back(static_cast<char>(i));
  for (const std::string& user : {std::string("\0", 1), std::string(" a\r\n"), all_bytes}) {
    EXPECT_EQ(bind("::1", user), 0);
    EXPECT_EQ(lookup("::1"), user);
  }
  EXPECT_EQ(bind("::1", ""), -1);
  EXPECT_EQ(bind("::1", all_bytes + "x"), -1);
  EXPECT_EQ(bind("nowhere", "u"), -1);
  EXPECT_EQ(cache_->update(nullptr, "u"), -1);
  EXPECT_EQ(cache_->remove(nullptr), -1);
  EXPECT_EQ(lookup("nowhere"), "<-1>");
  EXPECT_EQ(lookup("::1"), all_bytes) << "a refused bind stores nothing";
}

TEST_F(BindingCacheTest, ABindingEndsWithItsLifetimeAndABindRenewsIt) {
  settings("Lifetime=2\n");
  ASSERT_EQ(start(), 0);
  bind("10.0.0.1", "u");
  std::string user;
  long expire = 0;
  ASSERT_EQ(cache_->query("10.0.0.1", user, expire), 0);
  EXPECT_EQ(expire, 1'000'120);
  g_test_time = 1'000'119;
  EXPECT_EQ(lookup("10.0.0.1"), "u");
  g_test_time = 1'000'120;
  EXPECT_EQ(lookup("10.0.0.1"), "<1>") << "in the second of its expiry it has ended";
  EXPECT_EQ(cache_->remove("10.0.0.1"), 1) << "what has ended is not there";
  g_test_time = 1'000'000;
  EXPECT_EQ(lookup("10.0.0.1"), "<1>");

  bind("10.0.0.2", "v");
  g_test_time = 1'000'100;
  bind("10.0.0.2", "v");
  g_test_time = 1'000'219;
  EXPECT_EQ(lookup("10.0.0.2"), "v");
  g_test_time = 5;  // the clock is set back
  EXPECT_EQ(lookup("10.0.0.2"), "v");
  EXPECT_EQ(cache_->sweep(), 0);
}

TEST_F(BindingCacheTest, SweepRemovesWhatHasExpiredAndNothingElse) {
  settings("Lifetime=1\n");
  ASSERT_EQ(start(), 0);
  const auto address = [](int i) {
    return "10.1." + std::to_string(i / 256) + "." + std::to_string(i % 256);
  };
  for (int i = 0; i < 3000; ++i) {
    g_test_time = 1'000'000 + (i % 3 == 0 ? 0 : 30);
    ASSERT_EQ(bind(address(i).c_str(), "u"), 0);
  }
  g_test_time = 1'000'060;
  EXPECT_EQ(cache_->sweep(), 1000);
  g_test_time = 1'000'000;  // so that only removed ones are missing
  for (int i = 0; i < 3000; ++i) ASSERT_EQ(lookup(address(i)), i % 3 == 0 ? "<1>" : "u") << i;
}

TEST_F(BindingCacheTest, ARecordRenewedAfterTheScanSurvivesTheRemoval) {
  ASSERT_EQ(start(), 0);
  torrin::Store store;
  const std::string path = root_ + "/own.mdb";
  ASSERT_TRUE(store.open({path, false, size_t{1} << 20}, nullptr));
  const auto old_key = *torrin::parse_address("::1");
  const auto renewed_key = *torrin::parse_address("::2");
  torrin::StoreChange binds[] = {{old_key, 100, "old"}, {renewed_key, 200, "renewed"}};
  store.change(binds, 0);
  const std::vector<torrin::AddressKey> scanned = {old_key, renewed_key, *torrin::parse_address("::3")};
  EXPECT_EQ(store.remove_expired(scanned, 100), 1);
  torrin::RecordBuffer record;
  EXPECT_EQ(store.get(old_key, record), torrin::StoreResult::kMissing);
  EXPECT_EQ(store.get(renewed_key, record), torrin::StoreResult::kDone);
  store.close();
}

TEST_F(BindingCacheTest, FilesBelongToTheAccountAloneWhateverTheUmask) {
  const mode_t before = umask(0);
  ASSERT_EQ(start(), 0);
  bind("::1", "u");
  EXPECT_TRUE(cache_->copy());
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(file("").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(file(""))) {
    ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u) << entry.path();
    ++files;
  }
  EXPECT_GE(files, 4);
}

TEST_F(BindingCacheTest, AWorkingDirectoryMayBeLongAndOdd) {
  for (const char* part : {"/with blank %s%n", "/new\nline", "/quote'\"$(x);"}) workdir_ += part;
  while (workdir_.size() < 400) workdir_ += "/" + std::string(60, 'd');
  workdir_ += "/" + std::string(510 - workdir_.size(), 'e');
  ASSERT_EQ(workdir_.size(), 511u);
  std::filesystem::create_directories(workdir_);
  ASSERT_EQ(start(), 0);
  EXPECT_EQ(bind("::1", "u"), 0);
  EXPECT_TRUE(cache_->copy());
  ASSERT_EQ(start(), 0);
  EXPECT_EQ(lookup("::1"), "u");
}

TEST_F(BindingCacheTest, ABadWorkingDirectoryIsToldInOneLine) {
  write_text(root_ + "/file", "x");
  for (const std::string& bad : {std::string(), root_ + "/missing", root_ + "/file"}) {
    forget_log();
    cache_ = make_cache();
    EXPECT_NE(cache_->initialize(bad.c_str()), 0) << bad;
    EXPECT_EQ(new_lines("ERR"), 1) << bad;
  }
  EXPECT_NE(make_cache()->initialize(nullptr), 0);
}

TEST_F(BindingCacheTest, AFullMapFailsBindsOnceInTheLogAndLookUpsGoOn) {
  map_bytes_ = size_t{256} << 10;
  ASSERT_EQ(start(), 0);
  forget_log();
  int stored = 0;
  int failures = 0;
  for (int i = 0; i < 2000; ++i) {
    const std::string ip = "10.2." + std::to_string(i / 256) + "." + std::to_string(i % 256);
    const int result = bind(ip.c_str(), std::string(500, 'u'));
    ASSERT_TRUE(result == 0 || result == -2) << result;
    if (result == 0 && failures == 0) ++stored;
    if (result == -2) ++failures;
  }
  EXPECT_GT(stored, 50);
  EXPECT_GT(failures, 1000);
  EXPECT_EQ(new_lines("ERR"), 1);
  for (int i = 0; i < stored; ++i) {
    const std::string ip = "10.2." + std::to_string(i / 256) + "." + std::to_string(i % 256);
    ASSERT_EQ(lookup(ip), std::string(500, 'u'));
  }
}

TEST_F(BindingCacheTest, ChangesMadeTogetherHaveAResultEachInTheirOrder) {
  ASSERT_EQ(start(), 0);
  bind("::1", "before");
  const std::string user = "together";
  const std::string none;
  struct {
    IPUserChange change;
    int result;
  } const rows[] = {
      {{"::9", nullptr}, 1}, {{"::1", nullptr}, 0}, {{"::1", nullptr}, 1}, {{"nowhere", &user}, -1},
      {{"::2", &user}, 0},   {{"::2", nullptr}, 0}, {{"::3", &none}, -1},  {{"::1", &user}, 0},
      {{"::4", &user}, 0},   {{"::9", nullptr}, 1}, {{"::2", nullptr}, 1},
  };
  std::vector<IPUserChange> changes;
  for (const auto& row : rows) changes.push_back(row.change);
  cache_->change(changes);
  for (size_t i = 0; i < changes.size(); ++i) EXPECT_EQ(changes[i].result, rows[i].result) << i;
  EXPECT_EQ(lookup("::1") + lookup("::2") + lookup("::3") + lookup("::4"), user + "<1><1>" + user);
}

TEST_F(BindingCacheTest, AChangeThatFindsNoRoomDoesNotTakeOthersAlong) {
  map_bytes_ = size_t{256} << 10;
  ASSERT_EQ(start(), 0);
  forget_log();
  const std::string user(500, 'u');
  std::vector<std::string> addresses;
  for (int i = 0; i < 600; ++i)
    addresses.push_back("10.2." + std::to_string(i / 256) + "." + std::to_string(i % 256));
  std::vector<IPUserChange> changes;
  for (const std::string& address : addresses) changes.push_back({address.c_str(), &user});
  cache_->change(changes);
  size_t stored = 0;
  for (size_t i = 0; i < changes.size(); ++i) {
    ASSERT_EQ(lookup(addresses[i]), changes[i].result == 0 ? user : "<1>") << changes[i].result;
    if (changes[i].result == 0) ++stored;
  }
  EXPECT_GT(stored, 50u);
  EXPECT_LT(stored, 600u);
  EXPECT_EQ(new_lines("ERR"), 1);
}

TEST_F(BindingCacheTest, CallsBeforeInitializeFailWithoutHarm) {
  cache_ = make_cache();
  EXPECT_EQ(lookup("::1"), "<-2>");
  EXPECT_EQ(bind("::1", "u"), -2);
  EXPECT_EQ(cache_->remove("::1"), -2);
  EXPECT_EQ(cache_->flush(), -2);
  EXPECT_FALSE(cache_->export_to(root_ + "/out.csv"));
}

TEST_F(BindingCacheTest, FlushWorksInEveryProcessAndLeavesErrnoAlone) {
  ASSERT_EQ(start(), 0);
  errno = 77;
  EXPECT_EQ(cache_->flush(), 0);
  EXPECT_EQ(errno, 77);
  EXPECT_EQ(in_child([&] { return cache_->flush() == 0; }), 0);
}
