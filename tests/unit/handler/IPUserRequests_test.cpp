// The handlers of the IP-user requests between a fake library and a recorded reply cache.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <map>
#include <string>
#include <vector>

#include "cache/Cache.h"
#include "handler/HandlerInternal.h"
#include "wrapper/CacheWrapper.h"

namespace {

struct Stored {
  int type;
  std::string key;
  std::string bytes;  // of the message; empty for a drop
  int lifetime;

  bool operator==(const Stored&) const = default;
};

// What the libraries know, and what was asked of them.
std::map<std::string, std::string> g_bindings;
std::map<std::string, UserRecord> g_users;
std::vector<std::string> g_directory_questions;
std::vector<Stored> g_stored;

}  // namespace

int CacheWrapper::query_cache_item(const char* ip, std::string& user, long& expire) {
  const auto found = g_bindings.find(ip);
  if (found == g_bindings.end()) return 1;
  user = found->second;
  expire = 4711;
  return 0;
}
int CacheWrapper::update_cache_item(const char* ip, const std::string& user) {
  if (*ip == '\0') return -1;
  g_bindings[ip] = user;
  return 0;
}
int CacheWrapper::delete_cache_item(const char* ip) {
  return g_bindings.erase(ip) == 1 ? 0 : 1;
}
bool CacheWrapper::change_would_wait() {
  return false;
}
bool CacheWrapper::export_cache_item(const std::string& path) {
  return path == "/good";
}
int CacheWrapper::initialize(const char* /*workdir*/) {
  return 0;
}
int CacheWrapper::write_cache_file() {
  return 0;
}

int LdapWrapper::get_user_info(const std::string& user, std::string& domain_dns, std::string& uid,
                               std::string& cn, std::string& dn, std::string& upn) {
  g_directory_questions.push_back(user);
  const auto found = g_users.find(user);
  if (found == g_users.end()) return 32;
  const UserRecord& record = found->second;
  domain_dns = record.domain_dns;
  uid = record.uid;
  cn = record.cn;
  dn = record.dn;
  upn = record.upn;
  return 0;
}
int LdapWrapper::get_user_groups(const std::string& user, std::list<GroupMeta>& groups) {
  const auto found = g_users.find(user);
  if (found == g_users.end()) return 32;
  groups = found->second.groups;
  return 0;
}
int LdapWrapper::initialize(const char* /*workdir*/, bool /*flag*/) {
  return 0;
}
int LdapWrapper::search_users(const std::string& /*name*/, int /*flag*/, std::list<UserMeta>& /*users*/) {
  return 0;
}
int LdapWrapper::search_groups(const std::string& /*name*/, int /*flag*/, std::list<GroupMeta>& /*groups*/) {
  return 0;
}
int LdapWrapper::get_group_groups(const std::string& /*group*/, int /*flag*/,
                                  std::list<GroupMeta>& /*groups*/) {
  return 0;
}
// NOLINTNEXTLINE(performance-unnecessary-value-param): the wrapper passes a list of its own
int LdapWrapper::get_all_users(std::list<std::string> /*groups*/, int /*is_dn*/,
                               std::list<GroupUserMeta>& /*group_users*/) {
  return 0;
}
int LdapWrapper::validate_credential(const char* /*user*/, const char* /*password*/) {
  return -1;
}
int LdapWrapper::validate_negotiate_message(const char* /*token*/, std::string& /*clientinfo*/,
                                            std::string& /*returnmsg*/, bool& /*neednego*/) {
  return -1;
}

using google::protobuf::Message;
extern "C" int __real__ZN6Velder18update_reply_cacheEiPKcPKN6google8protobuf7MessageEi(int, const char*,
                                                                                       const Message*, int);
extern "C" int __wrap__ZN6Velder18update_reply_cacheEiPKcPKN6google8protobuf7MessageEi(int type,
                                                                                       const char* key,
                                                                                       const Message* reply,
                                                                                       int lifetime) {
  g_stored.push_back({type, key, reply == nullptr ? "" : reply->SerializePartialAsString(), lifetime});
  return __real__ZN6Velder18update_reply_cacheEiPKcPKN6google8protobuf7MessageEi(type, key, reply, lifetime);
}

// The socket that the tests of replies take sends away from: here they are looked at.
extern std::vector<std::string> g_given;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class IPUserRequestsTest : public testing::Test {
 protected:
  void SetUp() override {
    g_bindings.clear();
    g_users = {{"CORP\\alice",
                {"corp.example", "alice", "Alice", "CN=Alice,DC=corp,DC=example", "", {{"CN=g", "g"}}}}};
    Velder::reset_reply_cache();
    forget_calls();
  }
  static void forget_calls() {
    g_directory_questions.clear();
    g_stored.clear();
    g_given.clear();
  }

  // The handler's outcome; its answer goes into `response`.
  template <class Response>
  Outcome ask(Outcome (*handle)(Frame&), int type, const Message& request, Response* response) {
    g_given.clear();
    Frame frame{-1, type, std::string(kHeaderBytes, '\0') + request.SerializePartialAsString()};
    const Outcome outcome = handle(frame);
    if (!g_given.empty()) {
      EXPECT_EQ(read_header(g_given.front()).type, type + 1);
      EXPECT_TRUE(response->ParseFromString(g_given.front().substr(kHeaderBytes)));
    }
    return outcome;
  }
  int bind(const std::string& ip, const std::string& user) {
    Velder::IPUserBindRequest request;
    request.set_ip(ip);
    request.set_user_ln(user);
    Velder::IPUserBindResponse response;
    EXPECT_EQ(ask(handle_ip_bind, Velder::IP_USER_BIND_REQUEST, request, &response), Outcome::kKeep);
    return response.result();
  }
  Velder::IPUserQueryResponse query(const std::string& ip) {
    Velder::IPUserQueryRequest request;
    request.set_ip(ip);
    Velder::IPUserQueryResponse response;
    EXPECT_EQ(ask(handle_ip_query, Velder::IP_USER_QUERY_REQUEST, request, &response), Outcome::kKeep);
    return response;
  }
};

TEST_F(IPUserRequestsTest, QueryIsAnsweredFromTheDirectoryOnceAndKeptForADay) {
  bind("10.0.0.1", "CORP\\alice");
  forget_calls();
  const Velder::IPUserQueryResponse first = query("10.0.0.1");
  EXPECT_EQ(first.result(), 0);
  EXPECT_EQ(first.expire_at(), 4711U);
  EXPECT_EQ(first.userinfo().user_ln(), "CORP\\alice");
  EXPECT_EQ(first.userinfo().grouplist(0).cn(), "g");
  Velder::IPUserQueryResponse kept;  // neither result nor time: both belong to the one answer
  *kept.mutable_userinfo() = first.userinfo();
  EXPECT_THAT(g_stored, ElementsAre(Stored{6, "10.0.0.1", kept.SerializePartialAsString(), 86400}));

  EXPECT_EQ(query("10.0.0.1").SerializeAsString(), first.SerializeAsString());
  EXPECT_THAT(g_directory_questions, ElementsAre("CORP\\alice"));
}

TEST_F(IPUserRequestsTest, BindAndUnbindDropTheKeptAnswer) {
  for (int round = 0; round < 2; ++round) {
    bind("10.0.0.1", "CORP\\alice");
    EXPECT_EQ(g_stored.back(), (Stored{6, "10.0.0.1", "", 0}));
    g_directory_questions.clear();
    query("10.0.0.1");
    EXPECT_THAT(g_directory_questions,
                ElementsAre("CORP\\alice"));  // also when the user is the one of before
  }
  Velder::IPUserUnBindRequest request;
  request.set_ip("10.0.0.1");
  Velder::IPUserUnBindResponse response;
  ask(handle_ip_unbind, Velder::IP_USER_UNBIND_REQUEST, request, &response);
  EXPECT_EQ(response.result(), 0);
  EXPECT_EQ(g_stored.back(), (Stored{6, "10.0.0.1", "", 0}));
  EXPECT_EQ(query("10.0.0.1").result(), 1);
  EXPECT_FALSE(query("10.0.0.1").has_userinfo());
}

TEST_F(IPUserRequestsTest, KeptAnswerAboutAnotherUserIsRebuilt) {
  bind("10.0.0.1", "CORP\\alice");
  query("10.0.0.1");
  g_bindings["10.0.0.1"] = "CORP\\unknown";  // by another worker
  const Velder::IPUserQueryResponse answer = query("10.0.0.1");
  EXPECT_EQ(answer.result(), 0);
  EXPECT_EQ(answer.userinfo().user_ln(), "CORP\\unknown");
  EXPECT_EQ(answer.userinfo().cn() + answer.userinfo().dn(), "");
  EXPECT_EQ(answer.userinfo().grouplist_size(), 0);
  g_stored.clear();
  query("10.0.0.1");
  EXPECT_THAT(g_stored, IsEmpty());  // what the directory does not know is not kept
  for (const char* similar : {"CORP\\alic", "CORP\\alice2", "CORP\\Alice"}) {
    g_bindings["10.0.0.1"] = similar;
    EXPECT_EQ(query("10.0.0.1").userinfo().user_ln(), similar);
  }
}

TEST_F(IPUserRequestsTest, GuestIsAnsweredWithoutTheDirectory) {
  bind("10.0.0.1", "proxy_GUEST_user");
  const Velder::UserInfo guest = query("10.0.0.1").userinfo();
  for (const std::string& name : {guest.user_ln(), guest.cn(), guest.upn(), guest.uid()}) {
    EXPECT_EQ(name, "Proxy_guest_user");
  }
  EXPECT_EQ(guest.dn() + guest.domain_dns(), "");
  EXPECT_THAT(g_directory_questions, IsEmpty());
  bind("10.0.0.1", std::string("Proxy_guest_user\0x", 18));
  query("10.0.0.1");
  EXPECT_EQ(g_directory_questions.size(), 1U);  // somebody else
}

TEST_F(IPUserRequestsTest, TextWithANulNamesNoAddress) {
  EXPECT_EQ(bind(std::string("10.0.0.1\0x", 10), "CORP\\alice"), -1);
  bind("10.0.0.1", "CORP\\alice");
  EXPECT_EQ(query(std::string("10.0.0.1\0x", 10)).result(), 1);
}

TEST_F(IPUserRequestsTest, ExportTellsOnlyWhetherItWorked) {
  for (const auto& [path, result] : {std::pair<const char*, int>{"/good", 0}, {"relative", -1}}) {
    Velder::IPUserCacheExportRequest request;
    request.set_file_path(path);
    Velder::IPUserCacheExportResponse response;
    ask(handle_ip_export, Velder::IP_USER_CACHE_EXPORT_REQUEST, request, &response);
    EXPECT_EQ(response.result(), result) << path;
  }
}

TEST_F(IPUserRequestsTest, AuthenticationKeepsAPlaceholderForTwoMinutes) {
  Velder::IPAuthRequest request;
  request.set_ip("10.0.0.7");
  Velder::IPAuthResponse placeholder;
  placeholder.set_result(0);
  Velder::IPAuthResponse response;
  // No agent listens here or it does not answer: the client has its answer already.
  EXPECT_EQ(ask(handle_ip_auth, Velder::WMI_AUTH_REQUEST, request, &response), Outcome::kHandedOver);
  EXPECT_EQ(response.result(), 0);
  EXPECT_THAT(g_stored, ElementsAre(Stored{14, "10.0.0.7", placeholder.SerializeAsString(), 120}));
  EXPECT_EQ(ask(handle_ip_auth, Velder::WMI_AUTH_REQUEST, request, &response), Outcome::kKeep);
  EXPECT_EQ(g_stored.size(), 1U);
}

TEST_F(IPUserRequestsTest, BodiesWithoutTheirFieldsCloseTheConnection) {
  Velder::IPUserBindResponse response;
  for (auto handle : {handle_ip_bind, handle_ip_unbind, handle_ip_query, handle_ip_export, handle_ip_auth}) {
    EXPECT_EQ(ask(handle, Velder::IP_USER_BIND_REQUEST, Velder::IPUserQueryResponse(), &response),
              Outcome::kClose);
  }
  EXPECT_THAT(g_stored, IsEmpty());
}

}  // namespace
