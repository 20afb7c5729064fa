#include <gtest/gtest.h>

#include "handler/HandlerInternal.h"

namespace {

// Against the messages' own code, with texts whose lengths take one, two and three bytes.
TEST(UserRecordTest, InformationIsSerialisedAsItsMessagesWouldBe) {
  UserRecord record{"corp.example", "long", std::string(127, 'c'), std::string(128, 'd'), "", {}};
  for (size_t i = 0; i < 300; ++i) {
    record.groups.push_back({"CN=" + std::string(i, 'g'), std::string(i % 3, 'n')});
  }
  record.groups.push_back({std::string(20000, 'x'), ""});
  for (UserRecord given : {record, UserRecord()}) {
    KnownUser known{given.domain_dns, given.uid, given.cn, given.dn, given.upn, {}};
    for (const GroupMeta& group : given.groups) known.groups.push_back({group.dn, group.cn});
    std::string encoded = "before";
    append_user_info(Velder::UserInfoQueryResponse::kUserInfoFieldNumber, given.uid, known, encoded);

    Velder::UserInfoQueryResponse expected;
    fill_user_info(given.uid, given, expected.mutable_userinfo());
    EXPECT_EQ(encoded, "before" + expected.SerializePartialAsString());
  }
}

}  // namespace
