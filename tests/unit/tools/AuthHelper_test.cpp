#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <thread>

#include "daemonbase/UniqueFd.h"
#include "tools/authhelper_io.h"
#include "tools/authhelper_modes.h"
#include "tools/authhelper_protocol.h"

namespace authhelper {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Fields = std::vector<std::string>;

TEST(AuthHelperLine, IsReadAsTheProxyWritesIt) {
  using enum Mode;
  const struct {
    Mode mode;
    std::string line;
    Fields fields;
    std::string channel = "";  // where there are channels
  } rows[] = {
      {kBasic, "al%20%C3%BC%22%25%5Cice p%20w 127.0.0.1", {"al ü\"%\\ice", "p w"}},
      {kBasic, "alice ", {"alice", ""}},
      // What key_extras adds must not become the password.
      {kBasic, "alice  127.0.0.1", {"alice", ""}},
      {kBasic, " pw", {"", "pw"}},
      {kBasic, "alice pw\r", {"alice", "pw"}},
      {kBasic, "17 alice pw", {"alice", "pw"}, "17"},
      // A client chooses its token freely, so its percent signs are nothing special.
      {kNtlm, "YR %zz 10.0.0.1", {"YR", "%zz", "10.0.0.1"}},
      {kNtlm, "YR", {"YR"}},
      {kNegotiate, "KK abc= - more", {"KK", "abc=", "-"}},
      {kIpUser, "2001:db8::7 -", {"2001:db8::7"}},
      {kGroup, "3 D%5Cu Domain%20Users  B%C3%BCro", {"D\\u", "Domain Users", "Büro"}, "3"},
      {kGroup, "alice -", {"alice"}},
      {kGroup, "alice - staff", {"alice", "-", "staff"}},
  };
  for (const auto& row : rows) {
    const HelperLine got = parse_helper_line(row.line, row.mode, !row.channel.empty());
    EXPECT_EQ(got.fault, LineFault::kNone) << row.line;
    EXPECT_EQ(got.channel, row.channel) << row.line;
    EXPECT_EQ(got.fields, row.fields) << row.line;
  }
  const struct {
    LineFault fault;
    bool channels;
    std::vector<std::string> lines;
    std::string channel = "";
  } faults[] = {
      {LineFault::kMissingField, false, {"alice", ""}},
      {LineFault::kMissingField, true, {"17 alice"}, "17"},
      {LineFault::kBadEscape, false, {"alice %zz", "alice %"}},
      {LineFault::kBadEscape, true, {"17 alice %4"}, "17"},
      {LineFault::kNoChannel, true, {"alice pw", "12345678901 alice pw", "-1 alice pw", "17"}},
      {LineFault::kNul, false, {"alice a%00b", "ali\0ce pw"s}},
  };
  for (const auto& row : faults) {
    for (const std::string& line : row.lines) {
      const HelperLine got = parse_helper_line(line, kBasic, row.channels);
      EXPECT_EQ(got.fault, row.fault) << line;
      EXPECT_EQ(got.channel, row.channel) << line;
    }
  }
}

TEST(AuthHelperReply, IsOneLineWithTheValuesItWasGiven) {
  const std::string_view no = "wrong user name or password";
  const struct {
    Reply reply;
    std::string channel;
    std::string line;
  } rows[] = {
      {{Verdict::kOk, {}, {}, {}}, "", "OK"},
      {{Verdict::kOk, "D\\a b\"%\n=ü user=x", {}, {}}, "", "OK user=D%5Ca%20b%22%25%0A%3D%C3%BC%20user%3Dx"},
      {{Verdict::kOk, "u@R", "YWI=", {}}, "", "OK user=u@R token=YWI="},
      {{Verdict::kOk, "u@R", "", {}}, "", "OK user=u@R token="},
      {{Verdict::kRefused, {}, {}, no}, "12", "12 ERR message=\"wrong user name or password\""},
      {{Verdict::kRefused, {}, "YWI=", no}, "", "ERR message=\"wrong user name or password\" token=YWI="},
      {{Verdict::kChallenge, {}, "TlRM", {}}, "", "TT TlRM"},
      {{Verdict::kBroken, {}, {}, "no answer"}, "0", "0 BH message=\"no answer\""},
      {{Verdict::kOk, std::string(kLongestReply, 'a'), {}, {}},
       "7",
       "7 BH message=\"the answer is too long for the proxy\""},
  };
  for (const auto& row : rows) EXPECT_EQ(format_reply(row.reply, row.channel), row.line);
}

TEST(AuthHelperReply, EscapesEveryByteThatIsNotPlain) {
  for (int byte = 1; byte < 256; ++byte) {  // no field holds a 0
    const std::string text(1, static_cast<char>(byte));
    const std::string escaped = escape_value(text);
    EXPECT_TRUE(text == escaped ? isalnum(byte) || strchr("-._@", byte) : escaped.starts_with('%')) << byte;
    EXPECT_EQ(parse_helper_line(escaped, Mode::kIpUser, false).fields, Fields{text}) << byte;
  }
}

TEST(AuthHelperTokens, AndWhatBelongsToThem) {
  for (const char* text : {"A", "YWI=", "YQ==", "+/+/"}) EXPECT_TRUE(is_base64(text)) << text;
  for (const char* text : {"", "==", "YQ===", "Y=Q", "YW Jj", "%41", "YQ\n"})
    EXPECT_FALSE(is_base64(text)) << text;
  EXPECT_EQ(client_address({"YR", "x", "2001:db8::1"}), "2001:db8::1");
  for (const Fields& fields : {Fields{"YR", "x"}, {"YR", "x", "-"}, {"YR", "x", ""}})
    EXPECT_EQ(client_address(fields), "0.0.0.0");
  EXPECT_EQ(without_realm("al@home@EXAMPLE.ORG"), "al@home");
  EXPECT_EQ(without_realm("alice"), "alice");
  EXPECT_EQ(without_realm("@EXAMPLE.ORG"), "@EXAMPLE.ORG");
}

TEST(AuthHelperReader, TakesLinesOfAnyPieces) {
  const std::string longest(LineReader::kLongestLine, 'x');
  const std::string text =
      "first\n\n" + longest + "\n9 " + longest + "\n" + longest + longest + longest + "\nlast\ncut off";
  for (const size_t piece : {size_t{1000}, size_t{65536}}) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const UniqueFd from(ends[0]);
    const std::jthread writer([&, to = UniqueFd(ends[1])] {
      for (size_t at = 0; at < text.size(); at += piece) {
        const std::string part = text.substr(at, piece);
        ASSERT_EQ(write(to.get(), part.data(), part.size()), static_cast<ssize_t>(part.size()));
      }
    });
    LineReader reader(from.get());
    for (const std::string& line : {"first"s, ""s, longest}) {
      ASSERT_EQ(reader.next(), LineReader::What::kLine);
      EXPECT_EQ(reader.line(), line);
    }
    ASSERT_EQ(reader.next(), LineReader::What::kTooLong);
    EXPECT_TRUE(reader.line().starts_with("9 xxx")) << "the channel number has to be told";
    ASSERT_EQ(reader.next(), LineReader::What::kTooLong);
    ASSERT_EQ(reader.next(), LineReader::What::kLine);
    EXPECT_EQ(reader.line(), "last");
    EXPECT_EQ(reader.next(), LineReader::What::kEnd);
  }
}

TEST(AuthHelperComplaints, OfOneKindComeOnceInAWhile) {
  Complaints complaints("");
  const Complaints::Clock::time_point start{};
  EXPECT_EQ(complaints.due(Topic::kDaemonAway, "away", start), "away");
  EXPECT_EQ(complaints.due(Topic::kDaemonAway, "away", start + 1s), "");
  EXPECT_EQ(complaints.due(Topic::kBadLine, "bad", start + 1s), "bad") << "another kind";
  complaints.settle(Topic::kDaemonAway, "back");
  EXPECT_EQ(complaints.due(Topic::kDaemonAway, "away", start + 29s), "") << "in turns with its end";
  EXPECT_EQ(complaints.due(Topic::kDaemonAway, "away", start + Complaints::kQuiet),
            "away (and 2 times before)");
}

TEST(AuthHelperBackoff, GrowsToItsLimitAndEndsWithSuccess) {
  Backoff backoff;
  Backoff::Clock::time_point now{};
  EXPECT_TRUE(backoff.may_try(now));
  for (const auto wait : {100ms, 200ms, 400ms, 800ms, 1600ms, 2000ms, 2000ms}) {
    backoff.failed(now);
    EXPECT_FALSE(backoff.may_try(now + wait - 1ms));
    EXPECT_TRUE(backoff.may_try(now + wait));
    now += wait;
  }
  backoff.succeeded();
  EXPECT_TRUE(backoff.may_try(now));
}

TEST(AuthHelperLostUsers, AreKeptForAMoment) {
  LostUsers lost;
  const LostUsers::Clock::time_point start{};
  lost.add("alice", start);
  lost.add("bob", start + 1s);
  EXPECT_TRUE(lost.contains("alice", start + LostUsers::kKept - 1ms));
  EXPECT_FALSE(lost.contains("carol", start));
  EXPECT_FALSE(lost.contains("alice", start + LostUsers::kKept));
  EXPECT_TRUE(lost.contains("bob", start + LostUsers::kKept));
}

TEST(AuthHelperGroups, AreComparedAsTheDirectoryDoes) {
  google::protobuf::RepeatedPtrField<Velder::GroupInfo> groups;
  const std::pair<const char*, const char*> rows[] = {
      {"Büro Zürich", "CN=Büro Zürich,OU=Groups,DC=corp,DC=test"},
      {"Finance, Controlling", "CN=Finance\\, Controlling,DC=corp"}};
  for (const auto& [cn, dn] : rows) {
    Velder::GroupInfo* group = groups.Add();
    group->set_cn(cn);
    group->set_dn(dn);
  }
  for (const char* name :
       {"BÜRO zürich", "finance, controlling", "cn=büro zürich, ou=groups, dc=CORP,dc=test",
        "cn=\"finance, controlling\",dc=corp"}) {
    EXPECT_TRUE(names_one_of({"u", "other", name}, groups)) << name;
  }
  for (const char* name : {"Büro", "", "CN=Büro Zürich,DC=corp,DC=test", "dc=corp"}) {
    EXPECT_FALSE(names_one_of({"Büro Zürich", name}, groups)) << name;
  }
}

}  // namespace
}  // namespace authhelper
