#include "libvelder/LdapConnection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <ldap.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <map>

#include "tests/unit/libvelder/FakeLdapServer.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace {

#ifdef __SANITIZE_ADDRESS__
using LibraryLeaks = __lsan::ScopedDisabler;
#else
struct LibraryLeaks {
  LibraryLeaks() {}
};
#endif

using namespace std::chrono_literals;
using fake::Attribute;
using fake::Peer;
using fake::Request;
using velder::BindVerdict;
using velder::Domain;
using velder::LdapConnection;
using velder::LdifRecord;
using velder::Result;
using velder::SearchRequest;

// Where a time-out of one second counts as kept, on a machine that does other things as well.
constexpr auto kSoon = 4s;

class Stopwatch {
 public:
  auto elapsed() const { return std::chrono::steady_clock::now() - start_; }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

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

// What a search of the whole directory brings.
struct Found {
  Result<void> result;
  std::vector<LdifRecord> entries;
};
Found search_all(LdapConnection& connection, velder::SearchLimits limits = {}) {
  SearchRequest request;
  request.base = "dc=example,dc=com";
  request.limits = limits;
  Found found;
  found.result = connection.search(request, [&](LdifRecord& entry) -> Result<void> {
    found.entries.push_back(std::move(entry));
    return {};
  });
  return found;
}

// The error of a search on a server that answers it as told; code 0 and the number of entries when it works.
std::string outcome_of(const fake::Server::Serve& serve, velder::SearchLimits limits = {}) {
  const fake::Server server(serve);
  LdapConnection connection = open_to(server);
  const Found found = search_all(connection, limits);
  if (found.result) return "0 entries " + std::to_string(found.entries.size());
  return std::to_string(found.result.error().code) + " " + found.result.error().text;
}

TEST(LdapConnection, OptionsOfADaemonHoldForLaterConnections) {
  // What an administrator's ldap.conf may have left behind.
  const int never = LDAP_OPT_X_TLS_NEVER;
  ASSERT_EQ(ldap_set_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &never), LDAP_OPT_SUCCESS);

  ASSERT_EQ(prldap_install_routines(nullptr, 1), 0);

  LDAP* connection = nullptr;
  ASSERT_EQ(ldap_initialize(&connection, "ldap://127.0.0.1:9"), LDAP_SUCCESS);
  int version = 0;
  int certificates = -1;
  int referrals = -1;
  EXPECT_EQ(ldap_get_option(connection, LDAP_OPT_PROTOCOL_VERSION, &version), LDAP_OPT_SUCCESS);
  EXPECT_EQ(ldap_get_option(connection, LDAP_OPT_X_TLS_REQUIRE_CERT, &certificates), LDAP_OPT_SUCCESS);
  EXPECT_EQ(ldap_get_option(connection, LDAP_OPT_REFERRALS, &referrals), LDAP_OPT_SUCCESS);
  EXPECT_EQ(version, 3);
  EXPECT_EQ(certificates, LDAP_OPT_X_TLS_DEMAND);
  EXPECT_EQ(referrals, 0);
  ldap_unbind_ext_s(connection, nullptr, nullptr);
}

TEST(LdapConnection, OtherArgumentsAreRefused) {
  int something = 0;
  EXPECT_EQ(prldap_install_routines(&something, 1), -1);
  EXPECT_EQ(prldap_install_routines(nullptr, 0), -1);
  EXPECT_EQ(prldap_install_routines(nullptr, 2), -1);
}

TEST(LdapConnection, RefusalsAreToldApart) {
  const struct {
    int code;
    const char* text;
    BindVerdict verdict;
    const char* reason;
  } rows[] = {
      {49, "", BindVerdict::kWrong, "wrong user"},
      {49, "80090308: LdapErr: DSID-0C09, comment: AcceptSecurityContext error, data 52e, v1db1",
       BindVerdict::kWrong, "wrong password"},
      {49, "..., data 525, v1db1", BindVerdict::kWrong, "no such user"},
      {49, "..., data 530, v1db1", BindVerdict::kAccount, "at this time"},
      {49, "..., data 531, v1db1", BindVerdict::kAccount, "from here"},
      {49, "..., data 532, v1db1", BindVerdict::kAccount, "expired"},
      {49, "..., data 533, v1db1", BindVerdict::kAccount, "disabled"},
      {49, "..., data 701, v1db1", BindVerdict::kAccount, "expired"},
      {49, "..., data 773, v1db1", BindVerdict::kAccount, "changed"},
      {49, "..., data 775, v1db1", BindVerdict::kAccount, "locked"},
      {49, "invalid data; ... data 533", BindVerdict::kAccount, "disabled"},
      {49, "..., data 5330, v1db1", BindVerdict::kWrong, "wrong user"},
      {49, "data ", BindVerdict::kWrong, "wrong user"},
      {8, "BindSimple: Transport encryption required", BindVerdict::kCannotTell, "TLS"},
      {53, "data 533", BindVerdict::kCannotTell, "unwilling"},
      {51, "", BindVerdict::kCannotTell, "busy"},
      {52, "", BindVerdict::kCannotTell, "busy"},
      {10, "", BindVerdict::kCannotTell, "another"},
      {1, "", BindVerdict::kCannotTell, "no verdict"},
  };
  for (const auto& row : rows) {
    const auto refusal = velder::classify_refusal(row.code, row.text);
    EXPECT_EQ(refusal.verdict, row.verdict) << row.code << " " << row.text;
    EXPECT_NE(refusal.reason.find(row.reason), std::string_view::npos) << row.text << ": " << refusal.reason;
  }
}

TEST(LdapConnection, AttributeNamesLoseTheirOptionsAndKeepTheirRange) {
  const struct {
    const char* description;
    const char* name;
    bool ranged;
    uint64_t low;
    uint64_t high;
    bool last;
  } good[] = {
      {"memberOf", "memberof", false, 0, 0, false},
      {"userCertificate;binary", "usercertificate", false, 0, 0, false},
      {"Member;Range=0-1499", "member", true, 0, 1499, false},
      {"member;range=1500-*", "member", true, 1500, 0, true},
      {"member;lang-de;range=7-7", "member", true, 7, 7, false},
  };
  for (const auto& row : good) {
    const auto name = velder::parse_attribute_name(row.description);
    EXPECT_TRUE(name.valid) << row.description;
    EXPECT_EQ(name.name, row.name) << row.description;
    EXPECT_EQ(name.ranged, row.ranged) << row.description;
    EXPECT_EQ(name.low, row.low) << row.description;
    EXPECT_EQ(name.last, row.last) << row.description;
    EXPECT_EQ(name.last ? 0 : name.high, row.high) << row.description;
  }
  for (const char* bad : {"", ";binary", "m;range=", "m;range=0", "m;range=0-", "m;range=-1", "m;range=5-4",
                          "m;range=x-9", "m;range=0-1;range=2-3", "m;range=*-*", "m;range=0- 9",
                          "m;range=0-18446744073709551615", "m;range=99999999999999999999-*"})
    EXPECT_FALSE(velder::parse_attribute_name(bad).valid) << bad;
}

TEST(LdapConnection, AServerThatCannotBeReachedIsToldAtWhichStep) {
  const fake::Server gone([](Peer&) {});
  Domain domain = impatient_domain();
  const struct {
    std::string url;
    bool resolved;
    const char* text;
  } rows[] = {
      {"ldap://no-such-host.invalid", false, "host name"},
      {"ldap://127.0.0.1:1", true, "Connection refused"},
      {"http://127.0.0.1", false, "no ldap://"},
  };
  for (const auto& row : rows) {
    velder::OpenStages stages;
    const Stopwatch watch;
    const auto connection = LdapConnection::open(domain, row.url, &stages);
    ASSERT_FALSE(connection) << row.url;
    EXPECT_NE(connection.error().text.find(row.text), std::string::npos) << connection.error().text;
    EXPECT_EQ(stages.resolved, row.resolved) << row.url;
    EXPECT_FALSE(stages.connected) << row.url;
    EXPECT_LT(watch.elapsed(), kSoon) << row.url;
  }
}

TEST(LdapConnection, TheTlsHandshakeObeysTheTimeOut) {
  Domain start_tls = impatient_domain();
  start_tls.start_tls = true;
  const auto drip = [](Peer& peer) {
    // A handshake record of 4,000 bytes that comes byte by byte.
    if (!peer.send(std::string("\x16\x03\x03\x0f\xa0", 5))) return;
    while (peer.send("x")) std::this_thread::sleep_for(50ms);
  };
  const struct {
    const char* name;
    const char* scheme;
    fake::Server::Serve serve;
  } rows[] = {
      {"silent", "ldaps", [](Peer& peer) { peer.do_nothing(); }},
      {"not even reading", "ldaps", [](Peer& peer) { peer.never_read(); }},
      {"dripping", "ldaps", drip},
      {"silent to StartTLS", "ldap", [](Peer& peer) { peer.do_nothing(); }},
      {"silent after StartTLS", "ldap",
       [](Peer& peer) {
         if (const auto request = peer.receive())
           peer.send(fake::result(request->id, fake::kExtendedResponse, 0));
         peer.do_nothing();
       }},
  };
  for (const auto& row : rows) {
    const fake::Server server(row.serve);
    velder::OpenStages stages;
    const Stopwatch watch;
    const Domain domain = row.scheme == std::string("ldaps") ? impatient_domain() : start_tls;
    const auto connection = LdapConnection::open(domain, server.url(row.scheme), &stages);
    EXPECT_LT(watch.elapsed(), kSoon) << row.name;
    ASSERT_FALSE(connection) << row.name;
    EXPECT_TRUE(connection.error().code == 81 || connection.error().code == 85) << connection.error().text;
    EXPECT_TRUE(stages.connected) << row.name;
    EXPECT_FALSE(stages.tls) << row.name;
  }
}

TEST(LdapConnection, AServerWithoutStartTlsNeverGetsAPlainSession) {
  const fake::Server server([](Peer& peer) {
    while (const auto request = peer.receive())
      peer.send(fake::result(request->id, fake::kExtendedResponse, 2));
  });
  Domain domain = impatient_domain();
  domain.start_tls = true;
  const auto connection = LdapConnection::open(domain, server.url());
  ASSERT_FALSE(connection);
  EXPECT_EQ(connection.error().code, 81);
}

TEST(LdapConnection, ABrokenServerIsAFailedServer) {
  const struct {
    const char* name;
    int code;
    fake::Server::Serve serve;
  } rows[] = {
      {"silent", 85, [](Peer& peer) { peer.do_nothing(); }},
      {"not even reading", 85, [](Peer& peer) { peer.never_read(); }},
      {"closes at once", 81, [](Peer&) {}},
      {"closes after the request", 81, [](Peer& peer) { peer.receive(); }},
      {"speaks something else", 81,
       [](Peer& peer) {
         peer.receive();
         peer.send("HTTP/1.1 400 Bad Request\r\n\r\n" + std::string(2000, 'x'));
         peer.do_nothing();
       }},
      {"claims a message of 2 GB", 81,
       [](Peer& peer) {
         peer.receive();
         peer.send(std::string("\x30\x84\x7f\xff\xff\xff\x02\x01\x01", 9));
         peer.do_nothing();
       }},
      {"sends half a message", 85,
       [](Peer& peer) {
         if (const auto request = peer.receive())
           peer.send(fake::result(request->id, fake::kBindResponse, 0).substr(0, 9));
         peer.do_nothing();
       }},
      {"sends a byte at a time", 85,
       [](Peer& peer) {
         const auto request = peer.receive();
         if (!request) return;
         for (const char c : fake::result(request->id, fake::kBindResponse, 0, std::string(500, 'x'))) {
           if (!peer.send(std::string_view(&c, 1))) return;
           std::this_thread::sleep_for(50ms);
         }
       }},
  };
  for (const auto& row : rows) {
    const fake::Server server(row.serve);
    LdapConnection connection = open_to(server);
    const Stopwatch watch;
    const auto bound = connection.bind("cn=a", std::string(1 << 22, 'p'));
    EXPECT_LT(watch.elapsed(), kSoon) << row.name;
    EXPECT_EQ(bound.verdict, BindVerdict::kCannotTell) << row.name;
    EXPECT_EQ(bound.code, row.code) << row.name << ": " << bound.text;
    EXPECT_FALSE(connection.usable()) << row.name;
    // Not another byte to it, least of all on a connection that the client library makes by itself.
    EXPECT_EQ(connection.bind("cn=a", "p").code, row.code) << row.name;
    EXPECT_EQ(server.connections(), 1) << row.name;
  }
}

TEST(LdapConnection, AServerThatSaysGoodbyeIsAFailedServer) {
  const fake::Server server([](Peer& peer) {
    peer.receive();
    peer.send(fake::message(0, fake::tlv(0x78, fake::number(52, 0x0a) + fake::text("") + fake::text("") +
                                                   fake::text("1.3.6.1.4.1.1466.20036", 0x8a))));
    peer.do_nothing();
  });
  LdapConnection connection = open_to(server);
  const LibraryLeaks allowed;  // the client library loses the notice itself
  const auto bound = connection.bind("cn=a", "p");
  EXPECT_EQ(bound.verdict, BindVerdict::kCannotTell);
  EXPECT_EQ(bound.code, 81) << bound.text;
  EXPECT_FALSE(connection.usable());
}

TEST(LdapConnection, WhatProvesNothingIsNotSent) {
  std::atomic<int> asked{0};
  const fake::Server server([&](Peer& peer) {
    while (const auto request = peer.receive()) {
      if (request->operation == 0x60) ++asked;
      peer.send(fake::result(request->id, fake::kBindResponse, 0));
    }
  });
  LdapConnection connection = open_to(server);
  EXPECT_EQ(connection.bind("cn=alice", "").verdict, BindVerdict::kWrong);
  EXPECT_EQ(connection.bind("", "secret").verdict, BindVerdict::kWrong);
  EXPECT_EQ(connection.bind(std::string("cn=alice\0,cn=b", 14), "secret").verdict, BindVerdict::kWrong);
  SearchRequest request;
  request.filter = std::string("(uid=a\0b)", 9);
  EXPECT_EQ(connection.search(request, [](LdifRecord&) { return Result<void>(); }).error().code, 1);
  request.filter = "(uid=";
  EXPECT_EQ(connection.search(request, [](LdifRecord&) { return Result<void>(); }).error().code, 1);
  EXPECT_EQ(asked, 0);
  EXPECT_FALSE(connection.bound());
  EXPECT_TRUE(connection.usable());
  EXPECT_EQ(connection.bind("cn=alice", "secret").verdict, BindVerdict::kProven);
  EXPECT_TRUE(connection.bound());
  EXPECT_EQ(asked, 1);
}

TEST(LdapConnection, ARefusedBindLeavesNoIdentityAndNoPasswordInTheLog) {
  const fake::Server server([](Peer& peer) {
    while (const auto request = peer.receive()) {
      const bool good = request->password == "right";
      peer.send(fake::result(request->id, fake::kBindResponse, good ? 0 : 49,
                             "you said " + request->password + ", data 775, v1"));
    }
  });
  LdapConnection connection = open_to(server);
  EXPECT_EQ(connection.bind("cn=alice", "right").verdict, BindVerdict::kProven);
  const auto refused = connection.bind("cn=alice", "hunter2");
  EXPECT_EQ(refused.verdict, BindVerdict::kAccount);
  EXPECT_EQ(refused.code, 49);
  EXPECT_NE(refused.text.find("locked"), std::string::npos) << refused.text;
  EXPECT_EQ(refused.text.find("hunter2"), std::string::npos) << refused.text;
  EXPECT_FALSE(connection.bound());
  EXPECT_TRUE(connection.usable());
  EXPECT_EQ(connection.bind_count(), 2U);
}

// Answers a request for ranges as Active Directory does: two values at a time, unasked.
void answer_in_ranges(Peer& peer, const Request& request, const std::vector<std::string>& members) {
  const auto asked =
      velder::parse_attribute_name(request.attributes.empty() ? "member" : request.attributes.front());
  const size_t begin = asked.ranged ? asked.low : 0;
  const size_t end = std::min(begin + 2, members.size());
  const std::string high = end == members.size() ? "*" : std::to_string(end - 1);
  peer.send(fake::entry(request.id, "cn=staff,dc=example,dc=com",
                        {{"member", {}},
                         {"cn", {"staff"}},
                         {"member;range=" + std::to_string(begin) + "-" + high,
                          {members.begin() + static_cast<std::ptrdiff_t>(begin),
                           members.begin() + static_cast<std::ptrdiff_t>(end)}}}));
  peer.send(fake::result(request.id, fake::kSearchDone, 0));
}

TEST(LdapConnection, RangesThatNobodyAskedForAreReadToTheirEnd) {
  std::vector<std::string> members;
  for (int i = 0; i < 7; ++i) members.push_back("cn=user" + std::to_string(i));
  const fake::Server server(fake::answering([&](Peer& peer, const Request& request) {
    // A plain entry after the one with ranges.
    if (request.attributes.empty()) peer.send(fake::entry(request.id, "cn=plain", {{"cn", {"plain"}}}));
    answer_in_ranges(peer, request, members);
  }));
  LdapConnection connection = open_to(server);
  const Found found = search_all(connection);
  ASSERT_TRUE(found.result) << found.result.error().text;
  ASSERT_EQ(found.entries.size(), 2U);
  std::vector<std::string> read;
  for (const auto& one : found.entries[1].attributes)
    if (one.name == "member") read.push_back(one.value);
  EXPECT_EQ(read, members);
}

TEST(LdapConnection, RangesThatDoNotAddUpAreErrors) {
  // What the server answers to the first request for more, after 0-1.
  const struct {
    const char* name;
    std::vector<Attribute> attributes;
  } rows[] = {
      {"repeats", {{"member;range=0-1", {"a", "b"}}}},
      {"goes backwards", {{"member;range=1-*", {"b"}}}},
      {"leaves a gap", {{"member;range=3-*", {"d"}}}},
      {"holds fewer than it says", {{"member;range=2-9", {"c"}}}},
      {"holds nothing", {{"member;range=2-*", {}}}},
      {"has no more", {{"cn", {"staff"}}}},
      {"forgets the range", {{"member", {"c", "d"}}}},
      {"ends twice", {{"member;range=2-*", {"c"}}, {"member;range=3-*", {"d"}}}},
      {"is unreadable", {{"member;range=2-x", {"c"}}}},
  };
  for (const auto& row : rows) {
    const std::string outcome = outcome_of(fake::answering([&](Peer& peer, const Request& request) {
      const std::vector<Attribute> first{{"member;range=0-1", {"a", "b"}}};
      peer.send(fake::entry(request.id, "cn=staff", request.attributes.empty() ? first : row.attributes));
      peer.send(fake::result(request.id, fake::kSearchDone, 0));
    }));
    EXPECT_EQ(outcome.substr(0, 2), "1 ") << row.name << ": " << outcome;
  }
}

TEST(LdapConnection, WhatNeverEndsIsCut) {
  const velder::SearchLimits few{.max_entries = 50, .max_bytes = 1 << 20, .seconds = 0};
  const velder::SearchLimits small{.max_entries = 1'000'000, .max_bytes = 100'000, .seconds = 0};
  const velder::SearchLimits brief{.max_entries = 1'000'000, .max_bytes = 1 << 30, .seconds = 1};
  const auto endless_ranges = fake::answering([](Peer& peer, const Request& request) {
    const auto asked =
        velder::parse_attribute_name(request.attributes.empty() ? "m;range=0-*" : request.attributes[0]);
    const std::string at = std::to_string(asked.low);
    peer.send(fake::entry(request.id, "cn=staff", {{"member;range=" + at + "-" + at, {""}}}));
    peer.send(fake::result(request.id, fake::kSearchDone, 0));
  });
  const auto endless_entries = fake::answering([](Peer& peer, const Request& request) {
    while (peer.send(fake::entry(request.id, "cn=a", {{"cn", {"a"}}}))) {
    }
  });
  const auto endless_references = fake::answering([](Peer& peer, const Request& request) {
    while (peer.send(fake::reference(request.id))) {
    }
  });
  const auto slow_entries = fake::answering([](Peer& peer, const Request& request) {
    while (peer.send(fake::entry(request.id, "cn=a", {{"cn", {"a"}}}))) std::this_thread::sleep_for(100ms);
  });
  const auto pages = [](bool with_entry) {
    return fake::answering([with_entry](Peer& peer, const Request& request) {
      if (with_entry) peer.send(fake::entry(request.id, "cn=a", {{"cn", {"a"}}}));
      peer.send(fake::result(request.id, fake::kSearchDone, 0, "", fake::page_control("again")));
    });
  };
  const struct {
    const char* name;
    fake::Server::Serve serve;
    velder::SearchLimits limits;
    const char* outcome;
  } rows[] = {
      {"empty pages", pages(false), {}, "1 "},          {"full pages", pages(true), few, "4 "},
      {"entries, counted", endless_entries, few, "4 "}, {"entries, weighed", endless_entries, small, "4 "},
      {"entries, timed", slow_entries, brief, "85 "},   {"references", endless_references, few, "1 "},
      {"ranges, counted", endless_ranges, {}, "1 "},    {"ranges, weighed", endless_ranges, small, "4 "},
  };
  for (const auto& row : rows) {
    const std::string outcome = outcome_of(row.serve, row.limits);
    EXPECT_EQ(outcome.rfind(row.outcome, 0), 0U) << row.name << ": " << outcome;
  }
}

TEST(LdapConnection, SearchesEndAsTheServerSays) {
  const auto done = [](int code) {
    return fake::answering([code](Peer& peer, const Request& request) {
      peer.send(fake::entry(request.id, "cn=a", {{"cn", {"a"}}}));
      peer.send(fake::reference(request.id));
      peer.send(fake::entry(request.id, "cn=b", {{"cn", {"b"}}}));
      peer.send(fake::result(request.id, fake::kSearchDone, code, "words"));
    });
  };
  EXPECT_EQ(outcome_of(done(0)), "0 entries 2");
  for (const int code : {4, 10, 32, 50, 52}) {
    const std::string outcome = outcome_of(done(code));
    EXPECT_EQ(outcome.rfind(std::to_string(code) + " ", 0), 0U) << outcome;
    EXPECT_NE(outcome.find("words"), std::string::npos) << outcome;
  }
  // Codes with which the pool would take the server for a dead one.
  for (const int code : {81, 85}) EXPECT_EQ(outcome_of(done(code)).substr(0, 2), "1 ") << code;
}

TEST(LdapConnection, EntriesThatCannotBeUsedAreErrors) {
  const struct {
    const char* name;
    std::string dn;
    std::vector<Attribute> attributes;
  } rows[] = {
      {"no name", "", {{"cn", {"a"}}}},
      {"a name that is no text", "cn=\xff", {{"cn", {"a"}}}},
      {"a name with NUL", std::string("cn=a\0b", 6), {{"cn", {"a"}}}},
      {"an attribute without a name", "cn=a", {{"", {"a"}}}},
  };
  for (const auto& row : rows) {
    const std::string outcome = outcome_of(fake::answering([&](Peer& peer, const Request& request) {
      peer.send(fake::entry(request.id, row.dn, row.attributes));
      peer.send(fake::result(request.id, fake::kSearchDone, 0));
    }));
    EXPECT_EQ(outcome.substr(0, 2), "1 ") << row.name << ": " << outcome;
  }
  const std::string damaged = outcome_of(fake::answering([&](Peer& peer, const Request& request) {
    peer.send(fake::message(
        request.id, fake::tlv(0x64, fake::text("cn=a") + fake::tlv(0x30, fake::tlv(0x30, "\x04\x7f")))));
    peer.send(fake::result(request.id, fake::kSearchDone, 0));
  }));
  EXPECT_NE(damaged[0], '0') << damaged;
}

TEST(LdapConnection, ValuesAreBytes) {
  const std::string bytes("\x01\x00\xff\r\n", 5);
  const fake::Server server(fake::answering([&](Peer& peer, const Request& request) {
    peer.send(fake::entry(request.id, "cn=a", {{"objectSid;binary", {bytes, ""}}, {"empty", {}}}));
    peer.send(fake::result(request.id, fake::kSearchDone, 0));
  }));
  LdapConnection connection = open_to(server);
  const Found found = search_all(connection);
  ASSERT_EQ(found.entries.size(), 1U);
  ASSERT_EQ(found.entries[0].attributes.size(), 2U);
  EXPECT_EQ(found.entries[0].attributes[0].name, "objectsid");
  EXPECT_EQ(found.entries[0].attributes[0].value, bytes);
  EXPECT_EQ(found.entries[0].attributes[1].value, "");
}

TEST(LdapConnection, ASinkThatHasEnoughLeavesAUsableSession) {
  const fake::Server server(fake::answering([](Peer& peer, const Request& request) {
    for (int i = 0; i < 100; ++i) peer.send(fake::entry(request.id, "cn=a", {{"cn", {"a"}}}));
    peer.send(fake::result(request.id, fake::kSearchDone, 0));
  }));
  LdapConnection connection = open_to(server);
  int seen = 0;
  const auto stopped = connection.search({}, [&](LdifRecord&) -> Result<void> {
    if (++seen < 3) return {};
    return tl::unexpected(velder::Error{77, "enough"});
  });
  EXPECT_EQ(stopped.error().code, 77);
  EXPECT_EQ(seen, 3);
  EXPECT_EQ(search_all(connection).entries.size(), 100U);
}

TEST(LdapConnection, AnIdleSessionThatTheServerClosedIsNoticed) {
  std::atomic<bool> close{false};
  const fake::Server server([&](Peer& peer) {
    if (const auto request = peer.receive()) peer.send(fake::result(request->id, fake::kBindResponse, 0));
    while (!close) std::this_thread::sleep_for(1ms);
  });
  LdapConnection connection = open_to(server);
  ASSERT_TRUE(connection.bind_anonymously());
  EXPECT_TRUE(connection.still_open());
  close = true;
  const Stopwatch watch;
  while (connection.still_open() && watch.elapsed() < kSoon) std::this_thread::sleep_for(1ms);
  EXPECT_FALSE(connection.still_open());
}

TEST(LdapConnection, AChildDoesNotSpeakOnTheSessionOfItsParent) {
  const fake::Server server(fake::answering(
      [](Peer& peer, const Request& request) { peer.send(fake::result(request.id, fake::kSearchDone, 0)); }));
  auto connection = std::make_unique<LdapConnection>(open_to(server));
  ASSERT_TRUE(search_all(*connection).result);
  const pid_t child = fork();
  if (child == 0) {
    connection.reset();
    _exit(0);
  }
  ASSERT_GT(child, 0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_TRUE(connection->still_open());
  EXPECT_TRUE(search_all(*connection).result);
}

TEST(LdapConnection, ItsSocketIsNotInheritedByPrograms) {
  const auto open_sockets = [] {
    std::vector<int> fds;
    for (int fd = 3; fd < 256; ++fd) {
      sockaddr_in peer{};
      socklen_t size = sizeof peer;
      if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0) fds.push_back(fd);
    }
    return fds;
  };
  const fake::Server server([](Peer& peer) { peer.do_nothing(); });
  const LdapConnection connection = open_to(server);
  const auto fds = open_sockets();
  EXPECT_GE(fds.size(), 1U);
  for (const int fd : fds) EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << fd;
}

}  // namespace
