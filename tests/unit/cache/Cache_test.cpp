#include "cache/Cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "handler/Velder.pb.h"

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

UserInfoQueryResponse answer(const std::string& text) {
  UserInfoQueryResponse response;
  response.mutable_userinfo()->set_cn(text);  // what its handler sets anew is missing
  return response;
}

class CacheTest : public testing::Test {
 protected:
  void SetUp() override {
    Velder::reply_cache_enabled = true;
    Velder::set_reply_cache_size(g_bound_at_start);
    Velder::reset_reply_cache();
  }
  static int store(const std::string& key, int ttl, int type = kUserInfo, const std::string& text = "text") {
    const UserInfoQueryResponse response = answer(text);
    return Velder::update_reply_cache(type, key.c_str(), &response, ttl);
  }
  static int lookup(const std::string& key, int type = kUserInfo) {
    UserInfoQueryResponse found;
    return Velder::search_reply_cache(type, key.c_str(), &found);
  }
};

TEST_F(CacheTest, ResultsAndCountersOfEveryRefusal) {
  EXPECT_EQ(g_bound_at_start, 33554432U);
  for (int type : {-1, 28}) {
    EXPECT_EQ(lookup("x", type), -2);
    EXPECT_EQ(store("x", 10, type), -2);
  }
  EXPECT_EQ(lookup("x", 27), 1);
  Velder::reply_cache_enabled = false;
  EXPECT_EQ(lookup("x", 28), -3);
  EXPECT_EQ(store("x", 10), -3);
  EXPECT_EQ(Velder::reply_cache_total_query, 1);
  EXPECT_EQ(Velder::reply_cache_total_count, 0);
}

TEST_F(CacheTest, OverlongKeyIsStoredCutAndNeverFound) {
  for (const size_t length : {127U, 128U, 128U}) store(std::string(length, 'k'), 10);
  EXPECT_EQ(lookup(std::string(127, 'k')), 0);
  EXPECT_EQ(lookup(std::string(128, 'k')), 1);
  EXPECT_EQ(Velder::reply_cache_total_count, 3);
}

TEST_F(CacheTest, ABucketIsSweptOfWhatHasExpired) {
  EXPECT_EQ(Velder::bm_sbox_hash("\x01\xff", 2, 0), ((0x5F14C86BU * 3) ^ 0x45EF170AU) * 3);
  const unsigned bucket = Velder::bm_sbox_hash("key", 3, 0) % 5000;
  store("key", 10);
  Velder::recycle_expired_nodes(kUserInfo, bucket, g_now + 10);
  Velder::recycle_expired_nodes(kUserInfo, bucket + 1, g_now + 11);
  EXPECT_EQ(Velder::reply_cache_total_count, 1);
  Velder::recycle_expired_nodes(kUserInfo, bucket, g_now + 11);
  EXPECT_EQ(Velder::reply_cache_total_count, 0);
}

TEST_F(CacheTest, AReplyThatWasBegunBeforeAResetIsNotStored) {
  const auto store_begun_at = [](uint32_t generation) {
    return Velder::update_reply_cache(kUserInfo, "key", "reply", 10, generation);
  };
  const uint32_t before = Velder::reply_cache_generation();
  EXPECT_EQ(store_begun_at(before), 0);
  Velder::reset_reply_cache();
  std::string found;
  EXPECT_EQ(store_begun_at(before), 0);
  EXPECT_EQ(Velder::search_reply_cache(kUserInfo, "key", found), 1);
  EXPECT_EQ(store_begun_at(Velder::reply_cache_generation()), 0);
  EXPECT_EQ(Velder::search_reply_cache(kUserInfo, "key", found), 0);
}

// What the cache must hold and answer after every call, told by a list that is swept from end to end.
struct Model {
  struct Item {
    time_t expire;
    std::string encoded;
  };
  std::map<std::pair<int, std::string>, Item> items;
  size_t bound = 0;

  int update(int type, const std::string& key, const std::string& encoded, int ttl) {
    std::erase_if(items, [](const auto& item) { return item.second.expire < g_now; });
    if (total() >= bound) return -1;  // looked at before: one store may pass it
    const auto place = std::make_pair(type, key);
    if (ttl >= 1) {
      items[place] = {g_now + ttl, encoded};
    } else if (items.contains(place)) {
      items[place].expire = 0;
    }
    return 0;
  }
  // "<none>" also for what has expired and was not swept yet.
  [[nodiscard]] std::string search(int type, const std::string& key) const {
    const auto found = items.find({type, key});
    return found == items.end() || found->second.expire < g_now ? "<none>" : found->second.encoded;
  }
  [[nodiscard]] size_t total() const {
    size_t sum = 0;
    for (const auto& [place, item] : items) sum += item.encoded.size();
    return sum;
  }
};

TEST_F(CacheTest, AnswersAndCountersAreThoseOfAFullSweepAtEveryUpdate) {
  std::mt19937 random(20240917);
  Model model;
  for (int step = 0; step < 20000; ++step) {
    if (step % 1000 == 0) {
      model.bound = random() % 5000;
      Velder::set_reply_cache_size(static_cast<unsigned>(model.bound));
    }
    const int type = static_cast<int>(random() % 28);
    const std::string key = "key" + std::to_string(random() % 300);
    const int ttl = static_cast<int>(random() % 60) - 5;
    const UserInfoQueryResponse response = answer(std::string(random() % 40, 't'));
    const std::string encoded = response.SerializePartialAsString();
    const int result =
        random() % 2 == 0
            ? Velder::update_reply_cache(type, key.c_str(), ttl < -2 ? nullptr : &response, ttl)
            : Velder::update_reply_cache(type, key.c_str(), encoded, ttl, Velder::reply_cache_generation());
    ASSERT_EQ(result, model.update(type, key, encoded, ttl)) << "step " << step;
    ASSERT_EQ(static_cast<size_t>(Velder::reply_cache_total_count), model.items.size()) << "step " << step;
    ASSERT_EQ(Velder::reply_cache_total_size, model.total()) << "step " << step;
    const int other_type = random() % 2 == 0 ? type : static_cast<int>(random() % 28);
    for (const std::string& asked : {key, "key" + std::to_string(random() % 300)}) {
      const std::string expected = model.search(other_type, asked);
      UserInfoQueryResponse found = answer("stale content");
      std::string appended = "<";
      const int hit = Velder::search_reply_cache(other_type, asked.c_str(), &found);
      ASSERT_EQ(Velder::search_reply_cache(other_type, asked.c_str(), appended), hit);
      ASSERT_EQ(hit == 0 ? found.SerializePartialAsString() : "<none>", expected) << "step " << step;
      ASSERT_EQ(hit == 0 ? appended : "<<none>", "<" + expected) << "step " << step;
    }
    if (random() % 20 == 0) g_now += static_cast<int>(random() % 30) - 8;  // clocks are also set back
  }
}

TEST_F(CacheTest, SearchesUpdatesAndResetsRunAtOnce) {
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 0; i < 3000; ++i) {
        const std::string key = "key" + std::to_string((i * 7 + thread) % 50);
        if (thread == 0) store(key, i % 3, kUserInfo, std::string(static_cast<size_t>(i % 30), 'x'));
        lookup(key);
        if (thread == 1 && i % 500 == 0) Velder::reset_reply_cache();
        if (thread == 2 && i % 100 == 0) Velder::report_cache_status();
      }
    });
  }
}

}  // namespace
