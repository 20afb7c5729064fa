#include "libvelder/KnownUsers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace velder {
namespace {

std::shared_ptr<const KeptUser> make_user(int64_t id, size_t bytes = 1000) {
  auto user = std::make_shared<KeptUser>();
  user->id = id;
  user->texts.assign(bytes, 'x');
  return user;
}

std::string name_of(int64_t id) {
  return "user" + std::to_string(id);
}

TEST(KnownUsersTest, WhoIsAskedForStaysAndTheOthersAreForgottenWithinTheBound) {
  constexpr size_t kBound = size_t{1} << 20;
  KnownUsers table(kBound);
  std::vector<std::weak_ptr<const KeptUser>> all;
  for (int64_t id = 0; id < 20000; ++id) {
    auto user = make_user(id);
    all.emplace_back(user);
    table.keep(name_of(id), std::move(user));
    ASSERT_EQ(table.find(name_of(7)) != nullptr, id >= 7) << "after " << id;
    const auto newest = table.find(name_of(id));
    ASSERT_TRUE(newest && newest->id == id);
  }
  const auto alive = std::count_if(all.begin(), all.end(), [](const auto& user) { return !user.expired(); });
  EXPECT_LE(alive, kBound / 1000);
  EXPECT_GT(alive, kBound / 4000);

  table.keep(name_of(7), make_user(-7));
  EXPECT_EQ(table.find(name_of(7))->id, -7) << "what is kept later counts";
  EXPECT_TRUE(all[7].expired());

  for (int round = 0; round < 100; ++round) table.keep("big" + std::to_string(round), make_user(1, kBound));
  EXPECT_EQ(table.find("big0"), nullptr);
  EXPECT_NE(table.find(name_of(7)), nullptr) << "nobody goes for one who is not kept";

  table.forget();
  EXPECT_TRUE(std::all_of(all.begin(), all.end(), [](const auto& user) { return user.expired(); }));
}

}  // namespace
}  // namespace velder
