#include "libtorrin/BindingExport.h"

#include "tests/unit/libtorrin/CacheTest.h"

class BindingExportTest : public CacheTest {
 protected:
  BindingExportTest() {
    out_ = root_ + "/out";
    std::filesystem::create_directory(out_);
  }
  // Names in the folder, so that nothing stays behind unseen.
  static std::vector<std::string> names_in(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  std::string out_;
};

TEST(CsvLine, QuotesWhatNeedsIt) {
  const struct {
    std::string user;
    std::string field;
  } kRows[] = {
      {"DOM\\ann", "DOM\\ann"},
      {" a b ", " a b "},
      {"a,b", "\"a,b\""},
      {"\"", "\"\"\"\""},
      {"a\r\nb", "\"a\r\nb\""},
      {"line\n", "\"line\n\""},
      {std::string("\0x", 2), std::string("\0x", 2)},
      {"\xff;=1", "\xff;=1"},
  };
  for (const auto& row : kRows) {
    std::string line;
    torrin::append_csv_line(*torrin::parse_address("::ffff:10.0.0.1"), {77, row.user}, line);
    EXPECT_EQ(line, "10.0.0.1," + row.field + ",77\r\n");
  }
}

TEST_F(BindingExportTest, LiveBindingsComeSortedByAddress) {
  settings("Lifetime=1\n");
  ASSERT_EQ(start(), 0);
  bind("10.0.0.3", "expired");
  g_test_time += 60;
  for (const char* ip : {"2001:db8::1", "10.0.0.10", "10.0.0.9", "::1"}) bind(ip, "u,1");
  const mode_t before = umask(0);
  EXPECT_TRUE(cache_->export_to(out_ + "/list.csv"));
  umask(before);
  EXPECT_EQ(read_text(out_ + "/list.csv"),
            "ip,user,expire_at\r\n::1,\"u,1\",1000120\r\n10.0.0.9,\"u,1\",1000120\r\n"
            "10.0.0.10,\"u,1\",1000120\r\n2001:db8::1,\"u,1\",1000120\r\n");
  struct stat status {};
  stat((out_ + "/list.csv").c_str(), &status);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  g_test_time += 60;
  EXPECT_TRUE(cache_->export_to(out_ + "/list.csv")) << "an earlier export is replaced";
  EXPECT_EQ(read_text(out_ + "/list.csv"), torrin::kExportHeader);
  EXPECT_EQ(names_in(out_), std::vector<std::string>{"list.csv"});
}

TEST_F(BindingExportTest, ManyBindingsCrossTheChunks) {
  ASSERT_EQ(start(), 0);
  std::string expected(torrin::kExportHeader);
  for (int i = 0; i < 4500; ++i) {
    const std::string ip = "10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256);
    bind(ip.c_str(), "u" + std::to_string(i));
    expected += ip + ",u" + std::to_string(i) + ",1028800\r\n";
  }
  ASSERT_TRUE(cache_->export_to(out_ + "/list.csv"));
  EXPECT_EQ(read_text(out_ + "/list.csv"), expected);
}

TEST_F(BindingExportTest, PathsThatMustNotBeWrittenAreRefusedWithOneLine) {
  write_text(out_ + "/foreign", "root:x:0:0\n");
  write_text(out_ + "/empty", "");
  write_text(out_ + "/almost", "ip,user,expire_at\n");
  write_text(out_ + "/export", std::string(torrin::kExportHeader) + "::1,u,0\r\n");
  std::filesystem::create_directory(out_ + "/folder");
  std::filesystem::create_symlink(out_ + "/export", out_ + "/link");
  std::filesystem::create_symlink(out_ + "/nowhere", out_ + "/dangling");
  std::filesystem::create_symlink(out_ + "/folder", out_ + "/linked");
  ASSERT_EQ(mkfifo((out_ + "/fifo").c_str(), 0600), 0);
  const auto before = names_in(out_);
  ASSERT_EQ(start(), 0);
  bind("::1", "u");
  const std::string kPaths[] = {
      "",
      "list.csv",
      "./list.csv",
      "/",
      out_ + "/",
      out_ + "/folder",
      out_ + "/folder/",
      out_ + "/folder/../x",
      out_ + "/./x",
      out_ + "/foreign",
      out_ + "/empty",
      out_ + "/almost",
      out_ + "/link",
      out_ + "/dangling",
      out_ + "/linked/x",
      out_ + "/fifo",
      out_ + "/missing/x",
      out_ + "/foreign/x",
      "/dev/null",
      out_ + "/missing\nforged <ERR>/x",
      "/proc/self/cwd/x",
      out_ + std::string("/a\0b", 4),
      out_ + "/" + std::string(256, 'n'),
      "/" + std::string(5000, 'n'),
  };
  for (const std::string& path : kPaths) {
    forget_log();
    EXPECT_FALSE(cache_->export_to(path)) << path;
    EXPECT_EQ(new_lines("ERR"), 1) << path;
  }
  EXPECT_EQ(names_in(out_), before);
  EXPECT_EQ(names_in(out_ + "/folder"), std::vector<std::string>{});
  EXPECT_EQ(read_text(out_ + "/foreign"), "root:x:0:0\n");
  EXPECT_TRUE(std::filesystem::is_symlink(out_ + "/link"));
  EXPECT_TRUE(cache_->export_to(out_ + "/export"));
  EXPECT_TRUE(cache_->export_to(out_ + "/" + std::string(255, 'n'))) << "the longest name that there can be";
}

TEST_F(BindingExportTest, DraftsThatAKilledProcessLeftDoNotHinder) {
  ASSERT_EQ(start(), 0);
  // Some of the numbers may have been used up by other exports of this process.
  const std::string draft = out_ + "/.ip-user-export." + std::to_string(getpid()) + ".";
  for (int i = 0; i < 100; ++i) write_text(draft + std::to_string(i), "left");
  EXPECT_TRUE(cache_->export_to(out_ + "/list.csv"));
  EXPECT_EQ(read_text(out_ + "/list.csv"), torrin::kExportHeader);
  EXPECT_EQ(names_in(out_).size(), 101u);
  EXPECT_EQ(read_text(draft + "99"), "left");
}

TEST_F(BindingExportTest, ALongPathLeavesTheReasonOnTheLine) {
  ASSERT_EQ(start(), 0);
  EXPECT_FALSE(cache_->export_to("/" + std::string(5000, '\n')));
  EXPECT_EQ(new_lines("ERR", "File name too long"), 1);
  std::string deep = out_;
  for (int i = 0; i < 13; ++i) deep += "/" + std::string(255, 'd');
  std::filesystem::create_directories(deep);
  EXPECT_FALSE(cache_->export_to(deep + "/missing/list.csv"));
  EXPECT_EQ(new_lines("ERR", "No such file or directory"), 1);
}

TEST_F(BindingExportTest, ExportDirectoryKeepsExportsBelowIt) {
  std::filesystem::create_directories(out_ + "/allowed/deeper");
  std::filesystem::create_directory(out_ + "/allowed2");
  std::filesystem::create_symlink(out_, out_ + "/allowed/up");
  settings("ExportDirectory=" + out_ + "/allowed/\n");
  ASSERT_EQ(start(), 0);
  EXPECT_TRUE(cache_->export_to(out_ + "/allowed/x.csv"));
  EXPECT_TRUE(cache_->export_to(out_ + "//allowed/deeper/x.csv"));
  EXPECT_FALSE(cache_->export_to(out_ + "/x.csv"));
  EXPECT_FALSE(cache_->export_to(out_ + "/allowed2/x.csv"));
  EXPECT_FALSE(cache_->export_to(out_ + "/allowed"));
  EXPECT_FALSE(cache_->export_to(out_ + "/allowed/up/x.csv"));
  EXPECT_FALSE(cache_->export_to(out_ + "/allowed/../x.csv"));
}
