#include "libvelder/LdapConnection.h"

#include <gtest/gtest.h>

#include <chrono>

#include "tests/unit/libvelder/FakeLdapServer.h"

namespace velder {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using fake::Attribute;
using fake::Peer;
using fake::Request;

using Clock = std::chrono::steady_clock;
using Serve = fake::Server::Serve;

// Where a time-out of one second counts as kept, on a machine that does other things as well.
constexpr auto kSoon = 4s;

Domain impatient_domain() {
  Domain domain;
  domain.connect_timeout = 1;
  domain.operation_timeout = 1;
  return domain;
}

LdapConnection open_to(const fake::Server& server) {
  auto connection = LdapConnection::open(impatient_domain(), server.url());
  if (!connection) throw std::runtime_error(connection.error().text);
  return std::move(*connection);
}

// What a search of the whole directory ends with: "0 entries <number>", or the error's code and text.
std::string search_all(LdapConnection& connection, const SearchLimits& limits = {},
                       const std::string& filter = "(objectClass=*)") {
  size_t entries = 0;
  const SearchRequest request{"dc=example,dc=com", SearchScope::kSubtree, filter, {}, limits};
  const auto result = connection.search(request, [&](LdifRecord&) -> Result<void> {
    ++entries;
    return {};
  });
  if (result) return "0 entries " + std::to_string(entries);
  return std::to_string(result.error().code) + " " + result.error().text;
}

// The same on a server that answers as told.
std::string outcome_of(const Serve& serve, const SearchLimits& limits = {}) {
  const fake::Server server(serve);
  LdapConnection connection = open_to(server);
  return search_all(connection, limits);
}

// Sends `bytes` one by one, slowly enough for any time-out.
void drip(Peer& peer, const std::string& bytes) {
  for (const char c : bytes) {
    if (!peer.send({&c, 1})) return;
    std::this_thread::sleep_for(50ms);
  }
}

TEST(LdapConnection, RefusalsAreToldApart) {
  const struct {
    int code;
    const char* text;
    BindVerdict verdict;
    const char* reason;
  } rows[] = {
      {49, "80090308: LdapErr: DSID-0C09, comment: AcceptSecurityContext error, data 52e, v1db1",
       BindVerdict::kWrong, "wrong password"},
      {49, "..., data 532, v1db1", BindVerdict::kAccount, "expired"},
      {49, "..., data 775, v1db1", BindVerdict::kAccount, "locked"},
      {49, "invalid data; ... data 533", BindVerdict::kAccount, "disabled"},
      {49, "..., data 5330, v1db1", BindVerdict::kWrong, "wrong user"},
      {8, "BindSimple: Transport encryption required", BindVerdict::kCannotTell, "TLS"},
      {53, "data 533", BindVerdict::kCannotTell, "unwilling"},
      {51, "", BindVerdict::kCannotTell, "busy"},
  };
  for (const auto& row : rows) {
    const auto refusal = classify_refusal(row.code, row.text);
    EXPECT_EQ(refusal.verdict, row.verdict) << row.code << " " << row.text;
    EXPECT_NE(refusal.reason.find(row.reason), std::string_view::npos) << row.text << ": " << refusal.reason;
  }
}

TEST(LdapConnection, ABrokenServerIsAFailedServerInTime) {
  const auto answer_start_tls = [](int code) {
    return [code](Peer& peer) {
      const auto request = peer.receive();
      if (request) peer.send(fake::result(request->id, fake::kExtendedResponse, code));
      peer.do_nothing();
    };
  };
  const auto drip_answer = [](int operation) {
    return [operation](Peer& peer) {
      if (const auto request = peer.receive())
        drip(peer, fake::result(request->id, operation, 0, std::string(500, 'x')));
    };
  };
  const struct {
    const char* name;
    std::string scheme;
    int code;
    Serve serve;
  } rows[] = {
      {"silent", "ldaps", 81, [](Peer& peer) { peer.do_nothing(); }},
      {"a handshake record of 4,000 bytes, byte by byte", "ldaps", 81,
       [](Peer& peer) { drip(peer, "\x16\x03\x03\x0f\xa0" + std::string(4000, 'x')); }},
      {"an answer to StartTLS byte by byte", "StartTLS", 85, drip_answer(fake::kExtendedResponse)},
      {"silent after StartTLS", "StartTLS", 81, answer_start_tls(0)},
      {"without StartTLS", "StartTLS", 81, answer_start_tls(2)},
      {"not even reading", "ldap", 85, [](Peer& peer) { peer.never_read(); }},
      {"an answer byte by byte", "ldap", 85, drip_answer(fake::kBindResponse)},
      {"claims a message of 2 GB", "ldap", 81,
       [](Peer& peer) {
         peer.receive();
         peer.send("\x30\x84\x7f\xff\xff\xff\x02\x01\x01");
         peer.do_nothing();
       }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const fake::Server server(row.serve);
    Domain domain = impatient_domain();
    domain.start_tls = row.scheme == "StartTLS";
    OpenStages stages;
    const auto start = Clock::now();
    auto connection =
        LdapConnection::open(domain, server.url(domain.start_tls ? "ldap" : row.scheme), &stages);
    EXPECT_TRUE(stages.connected && !stages.tls);
    if (row.scheme != "ldap") {
      ASSERT_FALSE(connection);
      EXPECT_EQ(connection.error().code, row.code) << connection.error().text;
    } else {
      const BindResult bound = connection->bind("cn=a", std::string(1 << 22, 'p'));
      EXPECT_EQ(bound.verdict, BindVerdict::kCannotTell);
      EXPECT_EQ(bound.code, row.code) << bound.text;
      // Not another byte to it, least of all on a connection that the client library makes by itself.
      EXPECT_EQ(connection->bind("cn=a", "p").code, row.code);
      EXPECT_EQ(server.connections(), 1);
    }
    EXPECT_LT(Clock::now() - start, kSoon);
  }
}

TEST(LdapConnection, WhatProvesNothingIsNotSentAndARefusalLeavesNoIdentity) {
  std::atomic<int> asked{0};
  // As the password policies of servers put it: proven, but to be changed first.
  const std::string must_change =
      fake::tlv(0x30, fake::text("1.3.6.1.4.1.42.2.27.8.5.1") + fake::text(fake::tlv(0x30, "\x81\x01\x02")));
  const fake::Server server([&](Peer& peer) {
    for (; const auto request = peer.receive(); ++asked)
      peer.send(fake::result(request->id, fake::kBindResponse, request->password == "right" ? 0 : 49,
                             "you said " + request->password + ", data 775, v1",
                             request->dn == "cn=reset" ? must_change : ""));
  });
  LdapConnection connection = open_to(server);
  EXPECT_EQ(connection.bind("cn=alice", "").verdict, BindVerdict::kWrong);
  EXPECT_EQ(connection.bind("", "right").verdict, BindVerdict::kWrong);
  EXPECT_EQ(connection.bind("cn=alice\0,cn=b"s, "right").verdict, BindVerdict::kWrong);
  for (const std::string& filter : {"(uid=a\0b)"s, "(uid="s})
    EXPECT_EQ(search_all(connection, {}, filter).substr(0, 2), "1 ");
  EXPECT_EQ(asked, 0);
  EXPECT_FALSE(connection.bound());

  EXPECT_EQ(connection.bind("cn=alice", "right").verdict, BindVerdict::kProven);
  EXPECT_TRUE(connection.bound());
  const auto refused = connection.bind("cn=alice", "hunter2");
  EXPECT_EQ(refused.verdict, BindVerdict::kAccount);
  EXPECT_NE(refused.text.find("locked"), std::string::npos) << refused.text;
  EXPECT_EQ(refused.text.find("hunter2"), std::string::npos) << "it may come into the log";
  EXPECT_FALSE(connection.bound());
  EXPECT_TRUE(connection.usable());
  EXPECT_EQ(connection.bind("cn=reset", "right").verdict, BindVerdict::kAccount);
  EXPECT_FALSE(connection.bound());
}

TEST(LdapConnection, RangesThatDoNotAddUpAreErrors) {
  // What the server answers to the first request for more, after 0-1.
  const std::pair<const char*, std::vector<Attribute>> rows[] = {
      {"repeats", {{"member;range=0-1", {"a", "b"}}}},
      {"leaves a gap", {{"member;range=3-*", {"d"}}}},
      {"holds fewer than it says", {{"member;range=2-9", {"c"}}}},
      {"holds nothing", {{"member;range=2-*", {}}}},
      {"has no more", {{"cn", {"staff"}}}},
      {"forgets the range", {{"member", {"c", "d"}}}},
      {"ends twice", {{"member;range=2-*", {"c"}}, {"member;range=3-*", {"d"}}}},
      {"is unreadable", {{"member;range=2-x", {"c"}}}},
      {"goes down", {{"member;range=2-1", {"c"}}}},
      {"overflows", {{"member;range=2-18446744073709551615", {"c"}}}},
  };
  for (const auto& [name, more] : rows) {
    const std::string outcome =
        outcome_of(fake::answering([&more = more](Peer& peer, const Request& request) {
          const std::vector<Attribute> first{{"member;range=0-1", {"a", "b"}}};
          peer.send(fake::entry(request.id, "cn=staff", request.attributes.empty() ? first : more));
          peer.send(fake::result(request.id, fake::kSearchDone, 0));
        }));
    EXPECT_EQ(outcome.substr(0, 2), "1 ") << name << ": " << outcome;
  }
}

std::string entry(int id) {
  return fake::entry(id, "cn=a", {{"cn", {"a"}}});
}

TEST(LdapConnection, WhatNeverEndsOrComesInATrickleIsCut) {
  const SearchLimits few{.max_entries = 50, .max_bytes = 1 << 20};
  const SearchLimits small{.max_entries = 1'000'000, .max_bytes = 100'000};
  const auto endless = [](const std::function<std::string(int)>& make) {
    return fake::answering([=](Peer& peer, const Request& request) {
      while (peer.send(make(request.id))) continue;
    });
  };
  const auto pages = [](int id) {
    return fake::result(id, fake::kSearchDone, 0, "", fake::page_control("again"));
  };
  const auto full_page = [&](int id) { return entry(id) + pages(id); };
  const auto one_value = [step = 0](int id) mutable {
    const std::string at = std::to_string(step++);
    return fake::entry(id, "cn=a", {{"m;range=" + at + "-" + at, {""}}}) +
           fake::result(id, fake::kSearchDone, 0);
  };
  // Each piece comes in time, all of them take ten times as long as may be.
  constexpr auto kPause = 100ms;
  const auto slowly = [&](const std::function<std::string(int)>& make) {
    return fake::answering([=](Peer& peer, const Request& request) {
      for (int i = 0; i < 100 && peer.send(make(request.id)); ++i) std::this_thread::sleep_for(kPause);
    });
  };
  const auto at_each_request = [](const std::function<std::string(int)>& make,
                                  std::chrono::milliseconds pause) {
    return fake::answering([=](Peer& peer, const Request& request) {
      std::this_thread::sleep_for(pause);
      peer.send(make(request.id));
    });
  };
  enum class Time { kAny, kOfAnswer, kOfSearch, kOfDomain };  // a second for what
  const struct {
    const char* name;
    Serve serve;
    const char* outcome;
    Time time = Time::kAny;
    SearchLimits limits = {};
  } rows[] = {
      {"empty pages", at_each_request(pages, 0ms), "1 "},
      {"full pages", at_each_request(full_page, 0ms), "4 ", Time::kAny, few},
      {"entries, counted", endless(entry), "4 ", Time::kAny, few},
      {"entries, weighed", endless(entry), "4 ", Time::kAny, small},
      {"references", endless(fake::reference), "1 ", Time::kAny, few},
      {"ranges, counted", at_each_request(one_value, 0ms), "1 "},
      {"ranges, weighed", at_each_request(one_value, 0ms), "4 ", Time::kAny, small},
      {"slow entries", slowly(entry), "85 ", Time::kOfAnswer},
      {"slow references", slowly(fake::reference), "85 ", Time::kOfAnswer},
      {"slow answers to nothing", slowly([](int id) { return entry(id + 1000); }), "85 ", Time::kOfAnswer},
      {"slow entries of a domain", slowly(entry), "1 ", Time::kOfDomain},
      {"slow references of a domain", slowly(fake::reference), "1 ", Time::kOfDomain},
      {"slow pages", at_each_request(pages, kPause), "1 ", Time::kOfSearch},
      {"slow ranges", at_each_request(one_value, kPause), "1 ", Time::kOfSearch},
  };
  for (const auto& row : rows) {
    SearchLimits limits = row.limits;
    limits.by_entry = row.time == Time::kOfDomain;  // as whole domains are read
    const auto begin = Clock::now();
    if (row.time >= Time::kOfSearch) limits.until = begin + 1s;
    const std::string outcome = outcome_of(row.serve, limits);
    EXPECT_TRUE(row.time == Time::kAny || Clock::now() - begin < kSoon) << row.name;
    EXPECT_EQ(outcome.rfind(row.outcome, 0), 0U) << row.name << ": " << outcome;
  }
}

TEST(LdapConnection, ASearchThatIsCutShortTellsASilentServerFromABusyOne) {
  const auto falls_silent = [](Peer& peer, const Request& request) { peer.send(entry(request.id)); };
  for (const auto& [silence, code] : {std::pair(100ms, "85 "), std::pair(10000ms, "1 ")}) {
    const SearchLimits limits{.until = Clock::now() + 300ms, .longest_silence = silence};
    const std::string outcome = outcome_of(fake::answering(falls_silent), limits);
    EXPECT_EQ(outcome.rfind(code, 0), 0U) << outcome;
  }
}

TEST(LdapConnection, AnAnswerIsNotTakenForADeadServer) {
  const std::string referral = outcome_of(fake::bringing("", {}, 10));
  EXPECT_NE(referral.find("held by another server"), std::string::npos) << referral;
  for (const int code : {81, 85})
    EXPECT_EQ(outcome_of(fake::bringing("", {}, code)).substr(0, 2), "1 ") << code;
  const std::string unpaged = outcome_of(fake::answering([](Peer& peer, const Request& request) {
    const bool paged = request.holds("1.2.840.113556.1.4.319");
    if (!paged) peer.send(fake::entry(request.id, "cn=a", {{"cn", {"a"}}}));
    peer.send(fake::result(request.id, fake::kSearchDone, paged ? 12 : 0));
  }));
  EXPECT_EQ(unpaged, "0 entries 1") << "a server that grants no pages is asked for everything at once";
}

TEST(LdapConnection, EntriesThatCannotBeUsedAreErrors) {
  const std::pair<std::string, Attribute> rows[] = {
      {"", {"cn", {"a"}}}, {"cn=\xff", {"cn", {"a"}}}, {"cn=a\0b"s, {"cn", {"a"}}}, {"cn=a", {"", {"a"}}}};
  for (const auto& [dn, attribute] : rows) {
    const std::string outcome = outcome_of(fake::bringing(dn, {attribute}));
    EXPECT_EQ(outcome.substr(0, 2), "1 ") << dn << ": " << outcome;
  }
  const std::string damaged = outcome_of(fake::answering([&](Peer& peer, const Request& request) {
    const std::string list = fake::tlv(0x30, fake::tlv(0x30, "\x04\x7f"));
    peer.send(fake::message(request.id, fake::tlv(0x64, fake::text("cn=a") + list)));
    peer.send(fake::result(request.id, fake::kSearchDone, 0));
  }));
  EXPECT_NE(damaged[0], '0') << damaged;
}

}  // namespace
}  // namespace velder
