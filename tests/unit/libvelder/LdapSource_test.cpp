#include "libvelder/LdapSource.h"

#include <gtest/gtest.h>

namespace {

using velder::guard_objection;
using velder::SnapshotMeta;

std::optional<SnapshotMeta> before(int64_t users, int64_t groups) {
  SnapshotMeta meta;
  meta.users = users;
  meta.groups = groups;
  return meta;
}

TEST(LdapSourceTest, GuardRefusesTheEmptyAndTheMuchSmaller) {
  const struct {
    const char* what;
    uint32_t guard;
    std::optional<SnapshotMeta> before;
    size_t users;
    size_t groups;
    const char* objection;  // part of it; null: none
  } rows[] = {
      {"first snapshot", 20, std::nullopt, 1, 0, nullptr},
      {"first snapshot without users", 20, std::nullopt, 0, 5, "no users at all"},
      {"the guard's own percentage is allowed", 20, before(100, 10), 80, 8, nullptr},
      {"one user beyond it", 20, before(100, 10), 79, 10, "79 users where there were 100"},
      {"one group beyond it", 20, before(100, 10), 100, 7, "7 groups where there were 10"},
      {"no loss allowed", 0, before(1000, 10), 999, 10, "ShrinkGuard = 0 percent"},
      {"guard off does not publish nothing", 100, before(1000, 10), 0, 0, "no users at all"},
      {"from nothing", 20, before(0, 0), 1, 0, nullptr},
      {"more users than 32 bits times 100 hold", 50, before(100'000'000, 1), 49'000'000, 1, "users where"},
  };
  for (const auto& row : rows) {
    const auto objection = guard_objection(row.guard, row.before, row.users, row.groups);
    EXPECT_EQ(objection.has_value(), row.objection != nullptr) << row.what;
    if (objection && row.objection != nullptr) {
      EXPECT_NE(objection->find(row.objection), std::string::npos) << row.what << ": " << *objection;
    }
  }
}

}  // namespace
