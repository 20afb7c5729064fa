#include "libvelder/KnownUsers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

namespace velder {
namespace {

std::shared_ptr<const KeptUser> make_user(int64_t id) {
  auto user = std::make_shared<KeptUser>();
  user->id = id;
  user->texts.assign(1000, 'x');
  return user;
}

std::string name_of(int64_t id) {
  return "user" + std::to_string(id);
}

TEST(KnownUsersTest, WhoIsAskedForStaysAndTheOthersAreForgottenWithinTheBound) {
  KnownUsers table(size_t{1} << 20);
  std::vector<std::weak_ptr<const KeptUser>> all;
  for (int64_t id = 0; id < 20000; ++id) {
    auto user = make_user(id);
    all.emplace_back(user);
    table.keep(name_of(id), std::move(user));
    const auto favourite = table.find(name_of(7));
    ASSERT_EQ(favourite != nullptr, id >= 7) << "after " << id;
    const auto newest = table.find(name_of(id));
    ASSERT_TRUE(newest && newest->id == id);
  }
  size_t alive = 0;
  for (const auto& user : all)
    if (!user.expired()) ++alive;
  EXPECT_LE(alive, (size_t{1} << 20) / 1000);
  EXPECT_GT(alive, (size_t{1} << 20) / 4000);
  EXPECT_EQ(table.find("user8"), nullptr);

  table.keep(name_of(7), make_user(-7));
  EXPECT_EQ(table.find(name_of(7))->id, -7) << "what is kept later counts";
  EXPECT_TRUE(all[7].expired());

  table.forget();
  EXPECT_TRUE(std::all_of(all.begin(), all.end(), [](const auto& user) { return user.expired(); }));
}

TEST(KnownUsersTest, AUserLargerThanItsShareIsNotKeptAndNothingIsLostForIt) {
  KnownUsers table(size_t{1} << 16);
  table.keep("small", make_user(1));
  auto big = std::make_shared<KeptUser>();
  big->texts.assign(size_t{1} << 16, 'x');
  for (int round = 0; round < 100; ++round) table.keep("big" + std::to_string(round), big);
  EXPECT_EQ(table.find("big0"), nullptr);
  EXPECT_NE(table.find("small"), nullptr);
}

TEST(KnownUsersTest, ThreadsGetTheUserTheyAskFor) {
  KnownUsers table(size_t{1} << 17);  // small: much is forgotten meanwhile
  std::vector<std::thread> threads;
  for (int64_t thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&table, thread] {
      for (int64_t i = 0; i < 20000; ++i) {
        const int64_t id = (i * 7 + thread) % 300;
        if (const auto user = table.find(name_of(id))) {
          EXPECT_EQ(user->id, id);
        } else {
          table.keep(name_of(id), make_user(id));
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace velder
