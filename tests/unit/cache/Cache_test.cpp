#include "cache/Cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "brellog/VrLog.h"
#include "handler/Velder.pb.h"
#include "tests/unit/brellog/LogTestSupport.h"

namespace {
std::atomic<time_t> g_now{1000000};
}

extern "C" time_t __wrap_time(time_t* out) {
  if (out != nullptr) *out = g_now;
  return g_now;
}

namespace {

using Velder::UserInfoQueryResponse;

const uint32_t g_bound_at_start = Velder::reply_cache_max_size;
constexpr int kUserInfo = Velder::USER_INFO_QUERY_REQUEST;

UserInfoQueryResponse answer(int result, const std::string& text) {
  UserInfoQueryResponse response;
  response.set_result(result);
  Velder::UserInfo* info = response.mutable_userinfo();
  info->set_user_ln(text);
  info->set_domain_dns(text);
  info->set_uid(text);
  info->set_cn(text);
  info->set_dn(text);
  info->set_upn(text);
  return response;
}

class CacheTest : public testing::Test {
 protected:
  void SetUp() override {
    Velder::reply_cache_enabled = true;
    Velder::set_reply_cache_size(33554432);
    Velder::reset_reply_cache();
  }
  static int store(const std::string& key, int ttl, int type = kUserInfo, const std::string& text = "text") {
    const UserInfoQueryResponse response = answer(0, text);
    return Velder::update_reply_cache(type, key.c_str(), &response, ttl);
  }
  static int invalidate(const std::string& key) {
    return Velder::update_reply_cache(kUserInfo, key.c_str(), nullptr, 0);
  }
  static int lookup(const std::string& key, int type = kUserInfo) {
    UserInfoQueryResponse found;
    return Velder::search_reply_cache(type, key.c_str(), &found);
  }
  static void advance_clock(int seconds) { g_now += seconds; }
};

TEST_F(CacheTest, HashIsTheTableDrivenOneModuloThirtyTwoBits) {
  EXPECT_EQ(Velder::bm_sbox_hash("", 0, 7), 7U);
  const char zero = 0;
  EXPECT_EQ(Velder::bm_sbox_hash(&zero, 1, 0), static_cast<uint32_t>(0xF53E1837ULL * 3));
  const char bytes[] = {1, static_cast<char>(255)};
  EXPECT_EQ(Velder::bm_sbox_hash(bytes, 2, 0),
            static_cast<uint32_t>((static_cast<uint32_t>(0x5F14C86BULL * 3) ^ 0x45EF170AU) * 3ULL));
}

TEST_F(CacheTest, HitGivesACopyThatLaterStoresReplaceAndTimeEnds) {
  store("alice", 10, kUserInfo, "first");
  UserInfoQueryResponse found = answer(5, "stale content");
  ASSERT_EQ(Velder::search_reply_cache(kUserInfo, "alice", &found), 0);
  EXPECT_EQ(found.SerializeAsString(), answer(0, "first").SerializeAsString());
  std::string encoded = "in front";
  ASSERT_EQ(Velder::search_reply_cache(kUserInfo, "alice", encoded), 0);
  EXPECT_EQ(encoded, "in front" + found.SerializeAsString());
  store("alice", 10, kUserInfo, "a longer second text");
  ASSERT_EQ(Velder::search_reply_cache(kUserInfo, "alice", &found), 0);
  EXPECT_EQ(found.userinfo().cn(), "a longer second text");
  EXPECT_EQ(lookup("Alice"), 1);
  advance_clock(10);
  EXPECT_EQ(lookup("alice"), 0);  // valid through its last second
  advance_clock(1);
  EXPECT_EQ(lookup("alice"), 1);
  EXPECT_EQ(Velder::reply_cache_total_count, 1);  // until the next update of any key
}

TEST_F(CacheTest, ResultsAndCountersOfEveryRefusal) {
  for (int type : {-1, 28}) {
    EXPECT_EQ(lookup("x", type), -2);
    EXPECT_EQ(store("x", 10, type), -2);
  }
  EXPECT_EQ(lookup("x", 27), 1);
  Velder::reply_cache_enabled = false;
  EXPECT_EQ(lookup("x"), -3);
  EXPECT_EQ(store("x", 10), -3);
  EXPECT_EQ(lookup("x", 28), -3);
  EXPECT_EQ(Velder::reply_cache_total_query, 1);
  EXPECT_EQ(Velder::reply_cache_total_count, 0);
}

TEST_F(CacheTest, OverlongKeyIsStoredCutAndNeverFound) {
  const std::string longest(127, 'k');
  store(longest, 10);
  EXPECT_EQ(lookup(longest), 0);
  const std::string longer(128, 'z');
  store(longer, 10);
  store(longer, 10);
  EXPECT_EQ(lookup(longer), 1);
  EXPECT_EQ(Velder::reply_cache_total_count, 3);
}

TEST_F(CacheTest, BoundStopsStoresUntilSomethingExpires) {
  EXPECT_EQ(g_bound_at_start, 33554432U);
  const auto size = static_cast<unsigned int>(answer(0, "text").ByteSizeLong());
  Velder::set_reply_cache_size(size + 1);
  EXPECT_EQ(store("one", 5), 0);
  EXPECT_EQ(store("two", 50), 0);  // looked at before storing: this one passes the bound
  EXPECT_EQ(store("three", 50), -1);
  Velder::set_reply_cache_size(2 * size);  // exactly full is full
  EXPECT_EQ(store("three", 50), -1);
  EXPECT_EQ(invalidate("two"), -1);
  EXPECT_EQ(lookup("two"), 0);
  advance_clock(6);
  EXPECT_EQ(store("three", 50), 0);
  EXPECT_EQ(lookup("three"), 0);
  EXPECT_EQ(lookup("one"), 1);
}

TEST_F(CacheTest, StatusLineTellsTheFourFigures) {
  store("alice", 10);
  store("bob", 10);
  for (const char* key : {"alice", "bob", "alice", "nobody"}) lookup(key);
  const log_test::TempDir folder;
  VrLog::setConfig("cache.log", folder.path().c_str());
  VrLog::setLogVerbose(false);
  Velder::report_cache_status();
  VrLog::stopLog();
  const std::string expected = "<INF><0:" + std::to_string(getpid()) + ":" + std::to_string(gettid()) +
                               "> reply cache statistic info: size(" +
                               std::to_string(2 * answer(0, "text").ByteSizeLong()) +
                               "), count(2), query(4), hit(3) @";
  EXPECT_NE(log_test::log_lines(folder, "cache.log").back().find(expected), std::string::npos) << expected;
}

TEST_F(CacheTest, ResetEmptiesAndZeroesEverything) {
  for (int type = 0; type < 28; ++type) store("key", 10, type);
  lookup("key");
  Velder::reset_reply_cache();
  EXPECT_EQ(Velder::reply_cache_total_size, 0U);
  EXPECT_EQ(Velder::reply_cache_total_count + Velder::reply_cache_total_query + Velder::reply_cache_total_hit,
            0);
  EXPECT_EQ(lookup("key"), 1);
  EXPECT_EQ(store("key", 10), 0);
}

// What the cache must hold after every call, told by a list that is swept from end to end.
struct Model {
  struct Item {
    time_t expire;
    uint32_t size;
    std::string text;
  };
  std::map<std::pair<int, std::string>, Item> items;

  void update(int type, const std::string& key, const UserInfoQueryResponse& response, int ttl) {
    std::erase_if(items, [](const auto& item) { return item.second.expire < g_now; });
    const auto place = std::make_pair(type, key);
    if (ttl >= 1) {
      const auto size = static_cast<uint32_t>(response.ByteSizeLong());
      items[place] = {g_now + ttl, size, response.userinfo().cn()};
    } else if (items.contains(place)) {
      items[place].expire = 0;
    }
  }
  // The text behind a key; "<none>" also for what has expired and was not swept yet.
  [[nodiscard]] std::string text(int type, const std::string& key) const {
    const auto found = items.find({type, key});
    return found == items.end() || found->second.expire < g_now ? "<none>" : found->second.text;
  }
  [[nodiscard]] uint32_t total() const {
    uint32_t sum = 0;
    for (const auto& [place, item] : items) sum += item.size;
    return sum;
  }
};

TEST_F(CacheTest, AnswersAndCountersAreThoseOfAFullSweepAtEveryUpdate) {
  std::mt19937 random(20240917);
  Model model;
  for (int step = 0; step < 20000; ++step) {
    const int type = static_cast<int>(random() % 28);
    const std::string key = "key" + std::to_string(random() % 300);
    const int ttl = static_cast<int>(random() % 60) - 5;
    const UserInfoQueryResponse response = answer(0, std::string(random() % 40, 't'));
    ASSERT_EQ(Velder::update_reply_cache(type, key.c_str(), &response, ttl), 0);
    model.update(type, key, response, ttl);
    ASSERT_EQ(static_cast<size_t>(Velder::reply_cache_total_count), model.items.size()) << "step " << step;
    ASSERT_EQ(Velder::reply_cache_total_size, model.total()) << "step " << step;
    const int other_type = random() % 2 == 0 ? type : static_cast<int>(random() % 28);
    const std::string other_key = "key" + std::to_string(random() % 300);
    for (const std::string& asked : {key, other_key}) {
      UserInfoQueryResponse found;
      const bool hit = Velder::search_reply_cache(other_type, asked.c_str(), &found) == 0;
      ASSERT_EQ(hit ? found.userinfo().cn() : "<none>", model.text(other_type, asked)) << "step " << step;
    }
    if (random() % 20 == 0) advance_clock(static_cast<int>(random() % 30) - 8);  // clocks are also set back
  }
}

TEST_F(CacheTest, SearchesUpdatesAndResetsRunAtOnce) {
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 0; i < 3000; ++i) {
        const std::string key = "key" + std::to_string((i * 7 + thread) % 50);
        if (thread == 0) store(key, i % 3, kUserInfo, std::string(static_cast<size_t>(i % 30), 'x'));
        UserInfoQueryResponse found;
        if (Velder::search_reply_cache(kUserInfo, key.c_str(), &found) == 0) {
          EXPECT_TRUE(found.IsInitialized());
        }
        if (thread == 1 && i % 500 == 0) Velder::reset_reply_cache();
        if (thread == 2 && i % 100 == 0) Velder::report_cache_status();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
