#include "libvelder/LdapConnection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <ldap.h>
#include <sys/wait.h>

#include <chrono>
#include <optional>

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

using Clock = std::chrono::steady_clock;

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
std::string search_all(LdapConnection& connection, velder::SearchLimits limits = {}) {
  SearchRequest request;
  request.base = "dc=example,dc=com";
  request.limits = limits;
  size_t entries = 0;
  const auto result = connection.search(request, [&](LdifRecord&) -> Result<void> {
    ++entries;
    return {};
  });
  if (result) return "0 entries " + std::to_string(entries);
  return std::to_string(result.error().code) + " " + result.error().text;
}

// The same on a server that answers as told.
std::string outcome_of(const fake::Server::Serve& serve, velder::SearchLimits limits = {}) {
  const fake::Server server(serve);
  LdapConnection connection = open_to(server);
  return search_all(connection, limits);
}

TEST(LdapConnection, OptionsOfADaemonHoldWhateverTheFilesOfTheMachineSay) {
  LDAP* connection = nullptr;
  // What an administrator's ldap.conf may have left behind.
  const int never = LDAP_OPT_X_TLS_NEVER;
  ASSERT_EQ(ldap_set_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &never), LDAP_OPT_SUCCESS);

  ASSERT_EQ(prldap_install_routines(nullptr, 1), 0);
  EXPECT_EQ(prldap_install_routines(nullptr, 2), -1);
  EXPECT_EQ(prldap_install_routines(&connection, 1), -1);

  ASSERT_EQ(ldap_initialize(&connection, "ldap://127.0.0.1:9"), LDAP_SUCCESS);
  int certificates = -1, referrals = -1;
  ldap_get_option(connection, LDAP_OPT_X_TLS_REQUIRE_CERT, &certificates);
  ldap_get_option(connection, LDAP_OPT_REFERRALS, &referrals);
  EXPECT_EQ(certificates, LDAP_OPT_X_TLS_DEMAND);
  EXPECT_EQ(referrals, 0);
  ldap_unbind_ext_s(connection, nullptr, nullptr);
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
      {49, "..., data 533, v1db1", BindVerdict::kAccount, "disabled"},
      {49, "..., data 773, v1db1", BindVerdict::kAccount, "changed"},
      {49, "..., data 775, v1db1", BindVerdict::kAccount, "locked"},
      {49, "invalid data; ... data 533", BindVerdict::kAccount, "disabled"},
      {49, "..., data 5330, v1db1", BindVerdict::kWrong, "wrong user"},
      {49, "data ", BindVerdict::kWrong, "wrong user"},
      {8, "BindSimple: Transport encryption required", BindVerdict::kCannotTell, "TLS"},
      {53, "data 533", BindVerdict::kCannotTell, "unwilling"},
      {51, "", BindVerdict::kCannotTell, "busy"},
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
  const std::pair<const char*, const char*> good[] = {
      {"userCertificate;binary", "usercertificate"},
      {"Member;Range=0-1499", "member 0-1499"},
      {"member;range=1500-*", "member 1500-*"},
      {"member;lang-de;range=7-7", "member 7-7"},
  };
  for (const auto& [description, expected] : good) {
    const auto name = velder::parse_attribute_name(description);
    std::string read = name.valid ? name.name : "not valid";
    if (name.ranged)
      read += " " + std::to_string(name.low) + "-" + (name.last ? "*" : std::to_string(name.high));
    EXPECT_EQ(read, expected);
  }
  for (const char* bad : {"", ";binary", "m;range=", "m;range=0", "m;range=0-", "m;range=-1", "m;range=5-4",
                          "m;range=x-9", "m;range=0-1;range=2-3", "m;range=*-*", "m;range=0- 9",
                          "m;range=0-18446744073709551615", "m;range=99999999999999999999-*"})
    EXPECT_FALSE(velder::parse_attribute_name(bad).valid) << bad;
}

TEST(LdapConnection, WithoutTlsInTimeThereIsNoSession) {
  Domain start_tls = impatient_domain();
  start_tls.start_tls = true;
  const struct {
    const char* name;
    const char* scheme;
    fake::Server::Serve serve;
  } rows[] = {
      {"silent", "ldaps", [](Peer& peer) { peer.do_nothing(); }},
      {"not even reading", "ldaps", [](Peer& peer) { peer.never_read(); }},
      {"dripping", "ldaps",
       [](Peer& peer) {
         // A handshake record of 4,000 bytes that comes byte by byte.
         if (!peer.send(std::string("\x16\x03\x03\x0f\xa0", 5))) return;
         while (peer.send("x")) std::this_thread::sleep_for(50ms);
       }},
      {"silent to StartTLS", "ldap", [](Peer& peer) { peer.do_nothing(); }},
      {"dripping the answer to StartTLS", "ldap",
       [](Peer& peer) {
         const auto request = peer.receive();
         if (!request) return;
         for (const char c : fake::result(request->id, fake::kExtendedResponse, 0, std::string(500, 'x'))) {
           if (!peer.send(std::string_view(&c, 1))) return;
           std::this_thread::sleep_for(50ms);
         }
       }},
      {"silent after StartTLS", "ldap",
       [](Peer& peer) {
         if (const auto request = peer.receive())
           peer.send(fake::result(request->id, fake::kExtendedResponse, 0));
         peer.do_nothing();
       }},
      {"without StartTLS", "ldap",
       [](Peer& peer) {
         while (const auto request = peer.receive())
           peer.send(fake::result(request->id, fake::kExtendedResponse, 2));
       }},
  };
  for (const auto& row : rows) {
    const fake::Server server(row.serve);
    velder::OpenStages stages;
    const auto start = Clock::now();
    const Domain domain = row.scheme == std::string("ldaps") ? impatient_domain() : start_tls;
    const auto connection = LdapConnection::open(domain, server.url(row.scheme), &stages);
    EXPECT_LT(Clock::now() - start, kSoon) << row.name;
    ASSERT_FALSE(connection) << row.name;
    EXPECT_TRUE(connection.error().code == 81 || connection.error().code == 85) << connection.error().text;
    EXPECT_TRUE(stages.connected) << row.name;
    EXPECT_FALSE(stages.tls) << row.name;
  }
}

TEST(LdapConnection, ABrokenServerIsAFailedServer) {
  const struct {
    const char* name;
    int code;
    fake::Server::Serve serve;
  } rows[] = {
      {"silent", 85, [](Peer& peer) { peer.do_nothing(); }},
      {"not even reading", 85, [](Peer& peer) { peer.never_read(); }},
      {"closes after the request", 81, [](Peer& peer) { peer.receive(); }},
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
      {"says goodbye", 81,
       [](Peer& peer) {
         peer.receive();
         const std::string notice = fake::number(52, 0x0a) + fake::text("") + fake::text("") +
                                    fake::text("1.3.6.1.4.1.1466.20036", 0x8a);
         peer.send(fake::message(0, fake::tlv(0x78, notice)));
         peer.do_nothing();
       }},
  };
  for (const auto& row : rows) {
    const fake::Server server(row.serve);
    LdapConnection connection = open_to(server);
    std::optional<LibraryLeaks> allowed;
    if (row.name == std::string("says goodbye")) allowed.emplace();  // the client library loses the notice
    const auto start = Clock::now();
    const auto bound = connection.bind("cn=a", std::string(1 << 22, 'p'));
    EXPECT_LT(Clock::now() - start, kSoon) << row.name;
    EXPECT_EQ(bound.verdict, BindVerdict::kCannotTell) << row.name;
    EXPECT_EQ(bound.code, row.code) << row.name << ": " << bound.text;
    EXPECT_FALSE(connection.usable()) << row.name;
    // Not another byte to it, least of all on a connection that the client library makes by itself.
    EXPECT_EQ(connection.bind("cn=a", "p").code, row.code) << row.name;
    EXPECT_EQ(server.connections(), 1) << row.name;
  }
}

TEST(LdapConnection, WhatProvesNothingIsNotSentAndARefusalLeavesNoIdentity) {
  std::atomic<int> asked{0};
  const fake::Server server([&](Peer& peer) {
    while (const auto request = peer.receive()) {
      ++asked;
      peer.send(fake::result(request->id, fake::kBindResponse, request->password == "right" ? 0 : 49,
                             "you said " + request->password + ", data 775, v1"));
    }
  });
  LdapConnection connection = open_to(server);
  EXPECT_EQ(connection.bind("cn=alice", "").verdict, BindVerdict::kWrong);
  EXPECT_EQ(connection.bind("", "right").verdict, BindVerdict::kWrong);
  EXPECT_EQ(connection.bind(std::string("cn=alice\0,cn=b", 14), "right").verdict, BindVerdict::kWrong);
  for (const std::string& filter : {std::string("(uid=a\0b)", 9), std::string("(uid=")}) {
    SearchRequest request;
    request.filter = filter;
    EXPECT_EQ(connection.search(request, [](LdifRecord&) { return Result<void>(); }).error().code, 1);
  }
  EXPECT_EQ(asked, 0);
  EXPECT_FALSE(connection.bound());

  EXPECT_EQ(connection.bind("cn=alice", "right").verdict, BindVerdict::kProven);
  EXPECT_TRUE(connection.bound());
  const auto refused = connection.bind("cn=alice", "hunter2");
  EXPECT_EQ(refused.verdict, BindVerdict::kAccount);
  EXPECT_EQ(refused.code, 49);
  EXPECT_NE(refused.text.find("locked"), std::string::npos) << refused.text;
  EXPECT_EQ(refused.text.find("hunter2"), std::string::npos) << "it may come into the log";
  EXPECT_FALSE(connection.bound());
  EXPECT_TRUE(connection.usable());
  EXPECT_EQ(connection.bind_count(), 2U);
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
  const velder::SearchLimits few{.max_entries = 50, .max_bytes = 1 << 20};
  const velder::SearchLimits small{.max_entries = 1'000'000, .max_bytes = 100'000};
  const auto endless_ranges = fake::answering([](Peer& peer, const Request& request) {
    const auto asked =
        velder::parse_attribute_name(request.attributes.empty() ? "m;range=0-*" : request.attributes[0]);
    const std::string at = std::to_string(asked.low);
    peer.send(fake::entry(request.id, "cn=staff", {{"member;range=" + at + "-" + at, {""}}}));
    peer.send(fake::result(request.id, fake::kSearchDone, 0));
  });
  const auto endless = [](const std::function<std::string(int)>& make) {
    return fake::answering([=](Peer& peer, const Request& request) {
      while (peer.send(make(request.id))) continue;
    });
  };
  const auto entry = [](int id) { return fake::entry(id, "cn=a", {{"cn", {"a"}}}); };
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
      {"empty pages", pages(false), {}, "1 "},
      {"full pages", pages(true), few, "4 "},
      {"entries, counted", endless(entry), few, "4 "},
      {"entries, weighed", endless(entry), small, "4 "},
      {"references", endless(fake::reference), few, "1 "},
      {"ranges, counted", endless_ranges, {}, "1 "},
      {"ranges, weighed", endless_ranges, small, "4 "},
  };
  for (const auto& row : rows) {
    const std::string outcome = outcome_of(row.serve, row.limits);
    EXPECT_EQ(outcome.rfind(row.outcome, 0), 0U) << row.name << ": " << outcome;
  }
}

TEST(LdapConnection, ATrickleDoesNotStretchTheTimeOfAnOperation) {
  // Each piece comes in time, all of them take ten times as long as may be.
  constexpr int kPieces = 100;
  constexpr auto kPause = 100ms;
  const auto in_one_answer = [&](const std::function<std::string(int)>& make) {
    return fake::answering([=](Peer& peer, const Request& request) {
      for (int i = 0; i < kPieces && peer.send(make(request.id)); ++i) std::this_thread::sleep_for(kPause);
      peer.send(fake::result(request.id, fake::kSearchDone, 0));
    });
  };
  const auto in_many_answers = [&](const std::function<std::string(const Request&, int)>& make) {
    return fake::answering([=, step = 0](Peer& peer, const Request& request) mutable {
      std::this_thread::sleep_for(kPause);
      peer.send(make(request, step++));
    });
  };
  const auto entry = [](int id) { return fake::entry(id, "cn=a", {{"cn", {"a"}}}); };
  const auto pages = [&](const Request& request, int step) {
    return fake::result(request.id, fake::kSearchDone, 0, "",
                        fake::page_control(step < kPieces ? "more" : ""));
  };
  const auto ranges = [&](const Request& request, int step) {
    const std::string at = std::to_string(step);
    return fake::entry(request.id, "cn=a", {{"m;range=" + at + "-" + (step < kPieces ? at : "*"), {"x"}}}) +
           fake::result(request.id, fake::kSearchDone, 0);
  };
  const struct {
    const char* name;
    fake::Server::Serve serve;
    bool limited;   // to a second for the whole search
    bool by_entry;  // as whole domains are read
    const char* outcome;
  } rows[] = {
      {"entries", in_one_answer(entry), false, false, "85 "},
      {"references", in_one_answer(fake::reference), false, false, "85 "},
      {"answers to nothing", in_one_answer([&](int id) { return entry(id + 1000); }), false, false, "85 "},
      {"entries of a domain", in_one_answer(entry), true, true, "1 "},
      {"references of a domain", in_one_answer(fake::reference), true, true, "1 "},
      {"pages", in_many_answers(pages), true, false, "1 "},
      {"ranges", in_many_answers(ranges), true, false, "1 "},
  };
  for (const auto& row : rows) {
    const fake::Server server(row.serve);
    LdapConnection connection = open_to(server);
    velder::SearchLimits limits;
    limits.by_entry = row.by_entry;
    const auto begin = Clock::now();
    if (row.limited) limits.until = begin + 1s;
    const std::string outcome = search_all(connection, limits);
    EXPECT_LT(Clock::now() - begin, kSoon) << row.name;
    EXPECT_EQ(outcome.rfind(row.outcome, 0), 0U) << row.name << ": " << outcome;
  }
}

TEST(LdapConnection, AnAnswerIsNotTakenForADeadServer) {
  const std::string referral = outcome_of(fake::bringing({}, 10));
  EXPECT_NE(referral.find("held by another server"), std::string::npos) << referral;
  for (const int code : {81, 85}) EXPECT_EQ(outcome_of(fake::bringing({}, code)).substr(0, 2), "1 ") << code;
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
    const std::string outcome = outcome_of(fake::bringing({{row.dn, row.attributes}}));
    EXPECT_EQ(outcome.substr(0, 2), "1 ") << row.name << ": " << outcome;
  }
  const std::string damaged = outcome_of(fake::answering([&](Peer& peer, const Request& request) {
    peer.send(fake::message(
        request.id, fake::tlv(0x64, fake::text("cn=a") + fake::tlv(0x30, fake::tlv(0x30, "\x04\x7f")))));
    peer.send(fake::result(request.id, fake::kSearchDone, 0));
  }));
  EXPECT_NE(damaged[0], '0') << damaged;
}

TEST(LdapConnection, ASessionIsItsProcesssOwn) {
  const fake::Server server(fake::bringing({}));
  auto connection = std::make_unique<LdapConnection>(open_to(server));
  ASSERT_EQ(search_all(*connection), "0 entries 0");
  int sockets = 0;
  for (int fd = 3; fd < 256; ++fd) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0) continue;
    ++sockets;
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "for no program that is started";
  }
  EXPECT_GE(sockets, 1);
  const pid_t child = fork();
  if (child == 0) {
    connection.reset();
    _exit(0);
  }
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_TRUE(connection->still_open()) << "the child has said nothing on it";
  EXPECT_EQ(search_all(*connection), "0 entries 0");
}

}  // namespace
