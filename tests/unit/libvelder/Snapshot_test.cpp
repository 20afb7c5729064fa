#include "libvelder/Snapshot.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <random>

#include "libvelder/GroupGraph.h"
#include "tests/unit/libvelder/SampleDirectory.h"

namespace {

using velder::GroupGraph;
using velder::LdifRecord;
using velder::SnapshotFile;

class SnapshotTest : public SampleDirectory {
 protected:
  // As after the death of whatever wrote it: the bytes as they are, whole or not.
  bool opens(const std::string& bytes) const {
    std::ofstream(snapshot(), std::ios::binary) << bytes;
    return SnapshotFile::open(snapshot()).has_value();
  }
};

TEST_F(SnapshotTest, DamagedFilesAreRefusedAndRebuilt) {
  ASSERT_EQ(initialize(), 0);
  const std::string good = read_file(snapshot());
  for (const std::string& bytes :
       {std::string(), good.substr(0, good.size() - 4096), good + std::string(4096, '\0'),
        std::string("SQLite format 3\0", 16) + std::string(4080, 'x')}) {
    EXPECT_FALSE(opens(bytes)) << bytes.size();
    EXPECT_EQ(initialize(), 0) << bytes.size();
    EXPECT_EQ(who_is("zoe"), "0: zoe@corp.example.com") << bytes.size();
  }
  std::filesystem::remove(snapshot());
  ASSERT_EQ(mkfifo(snapshot().c_str(), 0600), 0);
  EXPECT_EQ(initialize(), 0) << "a pipe does not hold it up";

  std::mt19937 random(4711);
  for (size_t round = 0; round < 600; ++round) {
    std::string bytes = good;
    // The first bytes, where the engine's header is, one by one; then anywhere.
    const size_t at = round < 100 ? round : random() % bytes.size();
    bytes[at] = static_cast<char>(bytes[at] ^ (1 << random() % 8));
    EXPECT_FALSE(opens(bytes)) << "bit flipped at " << at;
    EXPECT_FALSE(opens(good.substr(0, random() % good.size()))) << "cut";
  }
  EXPECT_TRUE(opens(good));
}

TEST_F(SnapshotTest, CountsAndPasswordsAreKeptAsAskedFor) {
  const auto entry = [](const std::string& dn, const char* object_class, const std::string& cn) {
    return LdifRecord{dn, {{"objectclass", object_class}, {"cn", cn}}, 17};
  };
  for (const bool keep : {true, false}) {
    velder::SnapshotBuilder builder({}, {.keep_passwords = keep});
    LdifRecord user = entry("cn=a,dc=x", "user", "a");
    user.attributes.push_back({"userpassword", "one-secret-of-some-length"});
    user.attributes.push_back({"sambantpassword", "0123456789abcdef0123456789ABCDEF"});
    user.attributes.push_back({"memberof", "cn=g,dc=x"});
    ASSERT_TRUE(builder.add(user));
    EXPECT_THAT(builder.add(entry("CN=\\61, DC=X", "group", "b")).error().text,
                testing::HasSubstr("line 17"));
    ASSERT_TRUE(builder.add(entry("cn=\\20,dc=x", "user", "")));
    ASSERT_TRUE(builder.add(entry("cn=g,dc=x", "group", "g")));
    velder::SnapshotMeta meta;
    meta.source = "test";
    ASSERT_TRUE(builder.write(snapshot(), meta));
    const auto file = SnapshotFile::open(snapshot());
    ASSERT_TRUE(file) << file.error().text;
    meta = (*file)->meta();
    EXPECT_EQ((std::vector{meta.users, meta.groups, meta.memberships, meta.skipped_users}),
              (std::vector<int64_t>{1, 1, 1, 1}));
    const std::string bytes = read_file(snapshot());
    for (const char* secret : {"one-secret", "0123456789abcdef"})
      EXPECT_EQ(bytes.find(secret) != std::string::npos, keep) << secret;
    auto reader = velder::SnapshotReader::open(*file);
    ASSERT_TRUE(reader);
    velder::Credentials credentials;
    (*reader)->credentials(1, credentials);
    EXPECT_EQ(credentials.passwords.size(), keep ? 1U : 0U);
    EXPECT_EQ(credentials.nt_hash.size(), keep ? 32U : 0U);
  }
}

TEST(GroupGraphTest, ChainsAndCyclesAreFollowedAtTheirSize) {
  constexpr uint32_t kGroups = 20'000;
  const auto graph_of = [](const std::vector<GroupGraph::Pair>& nested) {
    GroupGraph graph;
    for (uint32_t group = 0; group < kGroups; ++group) graph.add("cn=g", "g");
    EXPECT_TRUE(graph.connect(nested));
    return graph;
  };
  std::vector<GroupGraph::Pair> chain;
  for (uint32_t group = 1; group < kGroups; ++group) chain.emplace_back(group, group + 1);
  auto cycle = chain;
  cycle.emplace_back(kGroups, 1);
  std::vector<int64_t> all(kGroups);
  for (uint32_t group = 0; group < kGroups; ++group) all[group] = group + 1;

  const GroupGraph chained = graph_of(chain);
  EXPECT_EQ(chained.with_all_above({1}).size(), kGroups);
  EXPECT_EQ(chained.all_below(all).size(), kGroups - 1) << "the top is in none";
  const GroupGraph round = graph_of(cycle);
  EXPECT_EQ(round.with_all_above({777}).size(), kGroups);
  EXPECT_EQ(round.all_below({777}).size(), kGroups - 1) << "not itself";
  EXPECT_EQ(round.all_below({777, 778}).size(), kGroups) << "each is in the other";
  EXPECT_FALSE(GroupGraph().connect({{1, 1}})) << "groups that do not exist";
}

}  // namespace
