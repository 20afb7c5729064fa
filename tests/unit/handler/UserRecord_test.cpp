#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "handler/HandlerInternal.h"
#include "handler/WmiExchange.h"
#include "tests/unit/libvelder/SampleDirectory.h"

namespace {

// Against the messages' own code, with texts whose lengths take one, two and three bytes.
TEST(UserRecordTest, InformationIsSerialisedAsItsMessagesWouldBe) {
  const std::string few(127, 'c'), many(128, 'd'), most(20000, 'x');
  KnownUser user{"corp.example", "long", few, many, "", {}};
  for (size_t i = 0; i < 300; ++i)
    user.groups.push_back({std::string_view(most).substr(0, i), i % 3 > 0 ? "n" : ""});
  user.groups.push_back({most, ""});
  for (const KnownUser& given : {user, KnownUser()}) {
    const std::string name(given.uid);
    std::string encoded = "before";
    append_user_info(Velder::UserInfoQueryResponse::kUserInfoFieldNumber, name, given, encoded);

    Velder::UserInfoQueryResponse expected;
    Velder::UserInfo* info = expected.mutable_userinfo();
    info->set_user_ln(name);
    info->set_domain_dns(std::string(given.domain_dns));
    info->set_uid(name);
    info->set_cn(std::string(given.cn));
    info->set_dn(std::string(given.dn));
    info->set_upn(std::string(given.upn));
    for (const KnownUser::Group& group : given.groups) {
      Velder::GroupInfo* one = info->add_grouplist();
      one->set_cn(std::string(group.cn));
      one->set_dn(std::string(group.dn));
    }
    EXPECT_EQ(encoded, "before" + expected.SerializePartialAsString());
  }
}

// The answer to a client that waited for the agent, from the moment when the address is bound.
Velder::IPAuthResponse answer_after_agent(const std::string& account, int client, int peer) {
  auto* task = static_cast<wmi_auth_task*>(calloc(1, sizeof(wmi_auth_task)));
  task->stage = WmiStage::kBound;
  task->agent_fd = -1;
  task->client_fd = client;
  strncpy(task->account, account.c_str(), sizeof(task->account) - 1);
  transparent_auth_handler(-1, 0, task);
  char frame[4096];
  const int body_bytes = static_cast<int>(recv(peer, frame, sizeof(frame), MSG_DONTWAIT)) - int{kHeaderBytes};
  Velder::IPAuthResponse response;
  EXPECT_TRUE(body_bytes > 0 && response.ParseFromArray(frame + kHeaderBytes, body_bytes));
  return response;
}

using OneUserTest = SampleDirectory;

// Whose account went to somebody else has left its groups behind.
TEST_F(OneUserTest, IsToldTogetherWithItsOwnGroupsWhileTheDirectoryIsReloaded) {
  const std::string uid(300, 'u');  // too long to be kept in memory: each look-up reads the snapshot
  const auto place = [&](const std::string& who) {
    write("directory.ldif",
          ldif_of("cn=" + who + "%c|user|cn: " + who + "|sAMAccountName: " + uid + "\ncn=of " + who +
                  "%c|group|cn: of " + who + "|member: cn=" + who + "%c\n"));
  };
  place("One");
  ASSERT_EQ(initialize(), 0);
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  std::atomic<bool> ended{false};
  std::jthread reloads([&] {
    for (int turn = 0; turn < 40; ++turn) {
      place(turn % 2 == 0 ? "Other" : "One");
      EXPECT_EQ(LdapModule::load_db_cache(), 0);
    }
    ended = true;
  });
  while (!ended) {
    const Velder::IPAuthResponse answer = answer_after_agent("CORP\\" + uid, ends[0], ends[1]);
    ASSERT_EQ(answer.result(), 0);
    ASSERT_EQ(answer.userinfo().grouplist_size(), 1);
    EXPECT_EQ(answer.userinfo().grouplist(0).cn(), "of " + answer.userinfo().cn());
  }
  reloads.join();
  for (const int end : ends) close(end);
}

}  // namespace
