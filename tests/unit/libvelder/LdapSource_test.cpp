#include "libvelder/LdapSource.h"

#include "tests/unit/libvelder/FakeLdapServer.h"
#include "tests/unit/libvelder/SampleDirectory.h"

namespace {

using namespace std::chrono_literals;

using velder::SnapshotMeta;

TEST(ShrinkGuardTest, GuardRefusesTheEmptyAndTheMuchSmaller) {
  const struct {
    uint32_t guard;
    std::optional<std::pair<int64_t, int64_t>> before;  // users, groups; none: the first snapshot
    size_t users, groups;
    const char* objection;  // part of it; null: none
  } rows[] = {
      {20, {}, 0, 5, "no users at all"},
      {20, {{100, 10}}, 80, 8, nullptr},
      {20, {{100, 10}}, 79, 10, "79 users where there were 100"},
      {20, {{100, 10}}, 100, 7, "7 groups where there were 10"},
      {0, {{1000, 10}}, 999, 10, "ShrinkGuard = 0 percent"},
      {100, {{1000, 10}}, 0, 0, "no users at all"},
      {50, {{100'000'000, 1}}, 49'000'000, 1, "users where"},  // times 100 that is more than 32 bits hold
  };
  for (const auto& row : rows) {
    std::optional<SnapshotMeta> before;
    if (row.before) before.emplace();
    if (row.before) std::tie(before->users, before->groups) = *row.before;
    const std::string objection =
        velder::guard_objection(row.guard, before, row.users, row.groups).value_or("none");
    EXPECT_NE(objection.find(row.objection == nullptr ? "none" : row.objection), std::string::npos)
        << objection;
  }
}

class LdapSourceTest : public SampleDirectory {
 protected:
  // How a run on this server ends: "" when well.
  std::string synchronise(const std::string& url, std::chrono::milliseconds limit) const {
    velder::Domain domain;
    domain.dns_name = "example.com";
    domain.base_dn = "dc=example,dc=com";
    domain.servers = {url};
    domain.operation_timeout = 1;
    velder::Settings settings;
    settings.domains = {domain};
    const auto begin = std::chrono::steady_clock::now();
    const auto report = velder::sync_from_servers(workdir_, settings, {.time_limit = limit, .progress = {}});
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
    return report ? "" : report.error().text;
  }
};

TEST_F(LdapSourceTest, WhatDoesNotEndIsGivenUpAndTheOldSnapshotStays) {
  const fake::Directory good({{"cn=a,dc=example,dc=com", {{"objectClass", {"user"}}, {"cn", {"a"}}}}});
  const fake::Server endless(fake::answering([&](fake::Peer& peer, const fake::Request& request) {
    for (int number = 0; number < 100; ++number) {
      const std::string cn = "u" + std::to_string(number);
      if (!peer.send(fake::entry(request.id, "cn=" + cn + ",dc=example,dc=com",
                                 {{"objectClass", {"user"}}, {"cn", {cn}}})))
        return;
      std::this_thread::sleep_for(100ms);
    }
    peer.send(fake::result(request.id, fake::kSearchDone, 0));
  }));
  EXPECT_EQ(synchronise(good.url(), 0ms), "");
  const std::string given_up = synchronise(endless.url(), 1s);
  EXPECT_NE(given_up.find(endless.url()), std::string::npos) << given_up;
  EXPECT_NE(given_up.find("entries, because SyncTimeLimit is over"), std::string::npos) << given_up;
  {
    const auto builder = velder::SnapshotLock::acquire(workdir_);
    ASSERT_TRUE(builder);
    const std::string locked_out = synchronise(good.url(), 300ms);
    EXPECT_NE(locked_out.find("another process"), std::string::npos) << locked_out;
  }
  EXPECT_EQ(velder::present_ldap_snapshot(workdir_)->users, 1);
  EXPECT_EQ(synchronise(good.url(), 10s), "");
}

}  // namespace
