#include "libvelder/LdapSource.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/unit/libvelder/FakeLdapServer.h"

namespace {

using namespace std::chrono_literals;

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

TEST(LdapSourceTest, WhatDoesNotEndIsGivenUpAndTheOldSnapshotStays) {
  std::string workdir = testing::TempDir() + "sync.XXXXXX";
  ASSERT_NE(mkdtemp(workdir.data()), nullptr);
  const auto person = [](int number) {
    return std::pair("cn=u" + std::to_string(number) + ",dc=example,dc=com",
                     std::vector<fake::Attribute>{{"objectClass", {"user"}},
                                                  {"sAMAccountName", {"u" + std::to_string(number)}}});
  };
  const fake::Server good(fake::bringing({person(0)}));
  const fake::Server endless(fake::answering([&](fake::Peer& peer, const fake::Request& request) {
    const auto send = [&](int number) {
      const auto [dn, attributes] = person(number);
      return peer.send(fake::entry(request.id, dn, attributes));
    };
    for (int number = 0; number < 100 && send(number); ++number) std::this_thread::sleep_for(100ms);
    peer.send(fake::result(request.id, fake::kSearchDone, 0));
  }));
  // How a run on this server ends: "" when well.
  const auto synchronise = [&](const fake::Server& server, std::chrono::milliseconds limit) -> std::string {
    velder::Domain domain;
    domain.dns_name = "example.com";
    domain.base_dn = "dc=example,dc=com";
    domain.servers = {server.url()};
    domain.operation_timeout = 1;
    velder::Settings settings;
    settings.domains = {domain};
    const auto begin = std::chrono::steady_clock::now();
    const auto report = velder::sync_from_servers(workdir, settings, {.time_limit = limit, .progress = {}});
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
    return report ? "" : report.error().text;
  };
  EXPECT_EQ(synchronise(good, 0ms), "");
  const std::string given_up = synchronise(endless, 1s);
  EXPECT_NE(given_up.find(endless.url()), std::string::npos) << given_up;
  EXPECT_NE(given_up.find("entries, because SyncTimeLimit is over"), std::string::npos) << given_up;
  {
    const auto builder = velder::SnapshotLock::acquire(workdir);
    ASSERT_TRUE(builder);
    const std::string locked_out = synchronise(good, 300ms);
    EXPECT_NE(locked_out.find("another process"), std::string::npos) << locked_out;
  }
  EXPECT_EQ(velder::present_ldap_snapshot(workdir)->users, 1);
  EXPECT_EQ(synchronise(good, 10s), "");
  std::filesystem::remove_all(workdir);
}

}  // namespace
