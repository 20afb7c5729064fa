#include "libvelder/Snapshot.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>

#include "libvelder/DirectoryEntry.h"
#include "libvelder/GroupGraph.h"
#include "tests/unit/libvelder/SampleDirectory.h"

namespace {

using velder::GroupGraph;
using velder::LdifRecord;
using velder::SnapshotBuilder;
using velder::SnapshotFile;
using velder::SnapshotMeta;

class SnapshotTest : public SampleDirectory {
 protected:
  // As after the death of whatever wrote it: the bytes as they are, whole or not.
  void put(const std::string& bytes) const { std::ofstream(snapshot(), std::ios::binary) << bytes; }
  bool opens() const { return SnapshotFile::open(snapshot()).has_value(); }

  static LdifRecord entry(const std::string& dn, const char* object_class, const std::string& cn) {
    LdifRecord record;
    record.dn = dn;
    record.attributes = {{"objectclass", object_class}, {"cn", cn}};
    record.line = 1;
    return record;
  }
};

TEST_F(SnapshotTest, ForeignFilesAreRefusedAndRebuilt) {
  ASSERT_EQ(initialize(), 0);
  const std::string good = read(snapshot());
  const std::string rows[] = {"",
                              "x",
                              std::string(4096, '\0'),
                              good.substr(0, good.size() - 4096),
                              good.substr(0, good.size() - 1),
                              good + std::string(4096, '\0'),
                              std::string("SQLite format 3\0", 16) + std::string(4080, 'x')};
  for (const std::string& bytes : rows) {
    put(bytes);
    EXPECT_FALSE(opens()) << bytes.size();
    EXPECT_EQ(initialize(), 0) << bytes.size();
    EXPECT_EQ(who_is("zoe"), "0: zoe@corp.example.com") << bytes.size();
  }
  std::filesystem::remove(snapshot());
  ASSERT_EQ(mkfifo(snapshot().c_str(), 0600), 0);
  EXPECT_EQ(initialize(), 0) << "a pipe does not hold it up";
  EXPECT_TRUE(opens());
}

TEST_F(SnapshotTest, EveryFlippedBitAndEveryCutIsNoticed) {
  ASSERT_EQ(initialize(), 0);
  const std::string good = read(snapshot());
  std::mt19937 random(4711);
  for (int round = 0; round < 600; ++round) {
    std::string bytes = good;
    // The first bytes, where the engine's header is, one by one; then anywhere.
    const size_t at = round < 100 ? static_cast<size_t>(round) : random() % bytes.size();
    bytes[at] = static_cast<char>(bytes[at] ^ (1 << random() % 8));
    put(bytes);
    EXPECT_FALSE(opens()) << "bit flipped at " << at;
    put(good.substr(0, random() % good.size()));
    EXPECT_FALSE(opens()) << "cut";
  }
  put(good);
  EXPECT_TRUE(opens());
}

TEST_F(SnapshotTest, CountsAndPasswordsAreKeptAsAskedFor) {
  for (const bool keep : {true, false}) {
    SnapshotBuilder builder({}, {.keep_passwords = keep});
    LdifRecord user = entry("cn=a,dc=x", "user", "a");
    user.attributes.push_back({"userpassword", "one-secret-of-some-length"});
    user.attributes.push_back({"sambantpassword", "0123456789abcdef0123456789ABCDEF"});
    user.attributes.push_back({"memberof", "cn=g,dc=x"});
    user.line = 17;
    ASSERT_TRUE(builder.add(user));
    EXPECT_THAT(builder.add(entry("CN=\\61, DC=X", "group", "b")).error().text,
                testing::HasSubstr("line 17"));
    ASSERT_TRUE(builder.add(entry("cn=\\20,dc=x", "user", "")));
    ASSERT_TRUE(builder.add(entry("cn=g,dc=x", "group", "g")));
    SnapshotMeta meta;
    meta.source = "test";
    ASSERT_TRUE(builder.write(snapshot(), meta));
    const auto file = SnapshotFile::open(snapshot());
    ASSERT_TRUE(file) << file.error().text;
    EXPECT_EQ((*file)->meta().users, 1);
    EXPECT_EQ((*file)->meta().groups, 1);
    EXPECT_EQ((*file)->meta().memberships, 1);
    EXPECT_EQ((*file)->meta().skipped_users, 1);
    EXPECT_EQ(read(snapshot()).find("one-secret") != std::string::npos, keep);
    EXPECT_EQ(read(snapshot()).find("0123456789abcdef") != std::string::npos, keep);
    auto reader = velder::SnapshotReader::open(*file);
    ASSERT_TRUE(reader);
    velder::Credentials credentials;
    (*reader)->credentials(1, credentials);
    EXPECT_EQ(credentials.passwords.size(), keep ? 1U : 0U);
    EXPECT_EQ(credentials.nt_hash.size(), keep ? 32U : 0U);
  }
}

TEST(GroupGraphTest, ChainsCyclesAndDenseNestingAreFollowedAtTheirSize) {
  constexpr uint32_t kGroups = 20'000;
  const auto graph_of = [](const std::vector<GroupGraph::Pair>& nested) {
    GroupGraph graph;
    for (uint32_t group = 0; group < kGroups; ++group) graph.add("cn=g", "g");
    EXPECT_TRUE(graph.connect(nested));
    return graph;
  };
  std::vector<GroupGraph::Pair> chain, dense;
  for (uint32_t group = 1; group < kGroups; ++group) chain.emplace_back(group, group + 1);
  auto cycle = chain;
  cycle.emplace_back(kGroups, 1);
  for (uint32_t low = 1; low <= 1000; ++low) {
    for (uint32_t high = 1001; high <= 2000; ++high) dense.emplace_back(low, high);
  }
  std::vector<int64_t> all(kGroups);
  for (uint32_t group = 0; group < kGroups; ++group) all[group] = group + 1;

  const GroupGraph chained = graph_of(chain);
  EXPECT_EQ(chained.with_all_above({1}).size(), kGroups);
  EXPECT_EQ(chained.all_below(all).size(), kGroups - 1) << "the top is in none";
  const GroupGraph round = graph_of(cycle);
  EXPECT_EQ(round.with_all_above({777}).size(), kGroups);
  EXPECT_EQ(round.all_below({777}).size(), kGroups - 1) << "not itself";
  EXPECT_EQ(round.all_below({777, 778}).size(), kGroups) << "each is in the other";
  const GroupGraph wide = graph_of(dense);
  EXPECT_EQ(wide.with_all_above({1, 2, 3}).size(), 1003U);
  EXPECT_EQ(wide.all_below(all).size(), 1000U);
  EXPECT_FALSE(GroupGraph().connect({{1, 1}})) << "groups that do not exist";
}

TEST(DirectoryEntryTest, SecurityIdentifiersAreReadFromTextAndBytes) {
  const std::string bytes("\x01\x02\0\0\0\0\0\x05\x15\0\0\0\xFF\xFF\xFF\xFF", 16);
  const std::pair<std::string, const char*> kRows[] = {{bytes, "S-1-5-21-4294967295"},
                                                       {"s-1-5-21-7", "S-1-5-21-7"},
                                                       {bytes.substr(0, 15), ""},
                                                       {bytes + "x", ""},
                                                       {"S-1-5-x", ""},
                                                       {"", ""}};
  for (const auto& [value, text] : kRows) EXPECT_EQ(velder::sid_text(value), text);
  EXPECT_EQ(velder::sibling_sid("S-1-5-21-7-1105", "513"), "S-1-5-21-7-513");
  EXPECT_EQ(velder::sibling_sid("S-1-5-21-7-1105", "513x"), "");
  EXPECT_EQ(velder::sibling_sid("", "513"), "");
}

}  // namespace
