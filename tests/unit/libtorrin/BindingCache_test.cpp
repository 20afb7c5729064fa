#include "libtorrin/BindingCache.h"

#include <map>
#include <random>

#include "tests/unit/libtorrin/CacheTest.h"

class BindingCacheTest : public CacheTest {};

// What the cache should do, by a map: binds, unbinds, look-ups, alone and together, while the clock goes
// forth and back, between sweeps and restarts.
TEST_F(BindingCacheTest, AnyRowOfCallsDoesWhatAMapOfBindingsWould) {
  struct Binding {
    std::string user;
    int64_t expiry;
  };
  std::map<int, Binding> model;
  std::mt19937 random(20261121);
  const auto draw = [&random](int below) {
    return static_cast<int>(random() % static_cast<unsigned>(below));
  };
  const auto spelled = [&draw](int number) {
    return (draw(2) == 0 ? "10.0.0." : "::ffff:10.0.0.") + std::to_string(number);
  };
  const auto live = [](const Binding& binding) { return g_test_time < binding.expiry; };
  std::string longest;
  for (int i = 0; i < 1024; ++i) longest.push_back(static_cast<char>(i));
  const std::string users[] = {"CORP\\alice", std::string("\0", 1), " a\r\n", longest, "", longest + "x"};

  settings("Lifetime=2\nDirectory=a/b\nBackend=local\n");
  ASSERT_EQ(start(), 0);
  for (int turn = 0; turn < 3000; ++turn) {
    std::vector<std::string> ips;
    std::vector<IPUserChange> changes;
    std::vector<int> expected;
    for (int count = 1 + draw(4) * draw(2); count > 0; --count) {
      const int number = draw(40);
      const std::string& user = users[draw(6)];
      ips.push_back(draw(20) == 0 ? "nowhere" : spelled(number));
      changes.push_back({nullptr, draw(3) == 0 ? nullptr : &user});
      if (ips.back() == "nowhere" ||
          (changes.back().user != nullptr && (user.empty() || user.size() > 1024))) {
        expected.push_back(kCacheRefused);
      } else if (changes.back().user != nullptr) {
        model[number] = {user, g_test_time + 120};
        expected.push_back(kCacheSuccess);
      } else {
        expected.push_back(model.contains(number) && live(model[number]) ? kCacheSuccess : kCacheNotFound);
        model.erase(number);
      }
    }
    for (size_t i = 0; i < ips.size(); ++i) changes[i].ip = ips[i].c_str();
    cache_->change(changes);
    for (size_t i = 0; i < ips.size(); ++i) ASSERT_EQ(changes[i].result, expected[i]) << turn << " " << i;

    g_test_time += draw(30) - (draw(20) == 0 ? 400 : 0);
    if (draw(100) == 0) {
      const auto ended = std::erase_if(model, [&](const auto& entry) { return !live(entry.second); });
      ASSERT_EQ(cache_->sweep(), static_cast<long>(ended)) << turn;
    }
    if (draw(300) == 0) {
      ASSERT_EQ(start(), 0);
    }
    const int number = draw(40);
    const auto found = model.find(number);
    std::string user;
    long expire = 0;
    if (found == model.end() || !live(found->second)) {
      ASSERT_EQ(lookup(spelled(number)), "<1>") << turn;
    } else {
      ASSERT_EQ(cache_->query(spelled(number).c_str(), user, expire), 0) << turn;
      ASSERT_EQ(user, found->second.user) << turn;
      ASSERT_EQ(expire, found->second.expiry) << turn;
    }
  }
  g_test_time = -120;  // a clock that was never set
  bind("::1", "u");
  g_test_time = 1'000'000;
  EXPECT_EQ(lookup("::1"), "<1>") << "not bound for ever";
  EXPECT_EQ(lookup("nowhere"), "<-1>");
  EXPECT_EQ(cache_->update(nullptr, "u"), -1);
  EXPECT_EQ(log_lines("ERR"), 0);
  EXPECT_TRUE(std::filesystem::exists(workdir_ + "/a/b/bindings.mdb"));
}

TEST_F(BindingCacheTest, ASweepOfManyLeavesTheOthersAndWhatIsRenewedMeanwhile) {
  settings("Lifetime=1\n");
  ASSERT_EQ(start(), 0);
  const auto all = addresses(3000);
  for (size_t i = 0; i < all.size(); ++i) {
    g_test_time = 1'000'000 + (i % 3 == 0 ? 0 : 30);
    ASSERT_EQ(bind(all[i], "u"), 0);
  }
  g_test_time = 1'000'060;
  EXPECT_EQ(cache_->sweep(), 1000);
  g_test_time = 1'000'000;  // so that only removed ones are missing
  for (size_t i = 0; i < all.size(); ++i) ASSERT_EQ(lookup(all[i]), i % 3 == 0 ? "<1>" : "u") << i;

  torrin::Store store;
  ASSERT_TRUE(store.open({root_ + "/own.mdb", false, size_t{1} << 20}, nullptr));
  const torrin::AddressKey scanned[] = {*torrin::parse_address("::1"), *torrin::parse_address("::2")};
  torrin::StoreChange binds[] = {{scanned[0], 100, "old"}, {scanned[1], 200, "renewed"}};
  store.change(binds, 0);
  EXPECT_EQ(store.remove_expired(scanned, 100), 1);
  torrin::RecordBuffer record;
  EXPECT_EQ(store.get(scanned[0], record), torrin::StoreResult::kMissing);
  EXPECT_EQ(store.get(scanned[1], record), torrin::StoreResult::kDone);
  store.close();
}

TEST_F(BindingCacheTest, TheLockFileHasNoHole) {
  ASSERT_EQ(start(), 0);
  struct stat status {};
  ASSERT_EQ(stat(file("bindings.mdb-lock").c_str(), &status), 0);
  EXPECT_GE(status.st_blocks * 512, status.st_size) << "it ends a process that uses it on a full disk";
}

TEST_F(BindingCacheTest, AFullMapFailsTheBindsThatFindNoRoomUntilOthersHaveExpired) {
  map_bytes_ = size_t{256} << 10;
  settings("Lifetime=1\n");
  ASSERT_EQ(start(), 0);
  const std::string user = "CORP\\somebody";
  auto all = addresses(5000);
  std::shuffle(all.begin(), all.end(), std::mt19937(20261121));
  std::vector<IPUserChange> changes;
  for (const std::string& ip : all) changes.push_back({ip.c_str(), &user});
  cache_->change(changes);
  int stored = 0;
  for (size_t i = 0; i < all.size(); ++i) {
    if (changes[i].result == 0) ++stored;
    ASSERT_EQ(changes[i].result, lookup(all[i]) == user ? kCacheSuccess : kCacheStoreFailed) << i;
  }
  EXPECT_GT(stored, 500);
  EXPECT_LT(stored, 5000);
  EXPECT_EQ(log_lines("ERR"), 1) << "one line for thousands of failures";
  g_test_time += 60;
  EXPECT_EQ(cache_->sweep(), stored);
  EXPECT_EQ(bind("::1", user), 0);
}

TEST_F(BindingCacheTest, TheModuleMayEndInAChildWithoutTouchingTheStore) {
  auto module = std::make_unique<IPUserCacheModule>();
  EXPECT_EQ(module->write_cache_file(), -2) << "a signal may come before the start is done";
  ASSERT_EQ(module->initialize(workdir_.c_str()), 0);
  ASSERT_EQ(module->update_cache_item("::1", "u"), 0);
  const auto end_in_child = [&] {
    if (module->write_cache_file() != 0) return false;
    module.reset();
    return !std::filesystem::exists(file("bindings.compact.mdb"));
  };
  EXPECT_EQ(in_child(end_in_child), true);
  std::string user;
  long expire = 0;
  EXPECT_EQ(module->query_cache_item("::1", user, expire), 0);
  module.reset();
  EXPECT_TRUE(std::filesystem::exists(file("bindings.compact.mdb")));
}
