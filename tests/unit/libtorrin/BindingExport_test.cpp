#include "libtorrin/BindingExport.h"

#include <thread>

#include "tests/unit/libtorrin/CacheTest.h"

class BindingExportTest : public CacheTest {
 protected:
  BindingExportTest() { std::filesystem::create_directory(out_); }
  // Everything in the folder, so that nothing stays behind unseen.
  size_t files_in_out() const {
    const auto begin = std::filesystem::directory_iterator(out_);
    return static_cast<size_t>(std::distance(begin, std::filesystem::directory_iterator()));
  }
  std::string out_ = root_ + "/out";
};

TEST_F(BindingExportTest, LiveBindingsComeSortedByAddressQuotedWhereNeeded) {
  settings("Lifetime=1\n");
  ASSERT_EQ(start(), 0);
  bind("10.0.0.3", "expired");
  g_test_time += 60;
  const std::string users[][2] = {{"DOM\\ann", "DOM\\ann"},
                                  {" \xff;=1 ", " \xff;=1 "},
                                  {"a,b", "\"a,b\""},
                                  {"\"", "\"\"\"\""},
                                  {"a\rb", "\"a\rb\""},
                                  {"a\nb", "\"a\nb\""},
                                  {std::string("\0x", 2), std::string("\0x", 2)}};
  bind("2001:db8::1", "last");
  std::string expected(torrin::kExportHeader);
  const auto all = addresses(4500);  // several chunks
  for (size_t i = 0; i < all.size(); ++i) {
    const auto& [user, field] = users[i % std::size(users)];
    bind(all[i], user);
    expected.append(all[i]).append(",").append(field).append(",1000120\r\n");
  }
  const mode_t before = umask(077);
  ASSERT_TRUE(cache_->export_to(out_ + "/list.csv"));
  umask(before);
  EXPECT_EQ(read_file(out_ + "/list.csv"), expected + "2001:db8::1,last,1000120\r\n");
  struct stat status {};
  stat((out_ + "/list.csv").c_str(), &status);
  EXPECT_EQ(status.st_mode & 07777, 0640u);

  // Drafts that a killed process of this number left; some of the numbers are used up already.
  const std::string draft = out_ + "/.ip-user-export." + std::to_string(getpid()) + ".";
  for (int i = 0; i < 100; ++i) write_file(draft + std::to_string(i), "left");
  g_test_time += 60;
  EXPECT_TRUE(cache_->export_to(out_ + "/list.csv")) << "an earlier export is replaced";
  EXPECT_EQ(read_file(out_ + "/list.csv"), torrin::kExportHeader);
  EXPECT_EQ(read_file(draft + "99"), "left");
  EXPECT_EQ(files_in_out(), 101u);

  for (int i = 0; i < 30; ++i) {
    const std::string path = out_ + "/together" + std::to_string(i);
    std::atomic<int> done{0};
    for (std::vector<std::jthread> clients; clients.size() < 3;)
      clients.emplace_back([&] { done += cache_->export_to(path); });
    EXPECT_EQ(done, 3) << "to a file that is new for all of them";
  }
}

TEST_F(BindingExportTest, PathsThatMustNotBeWrittenAreRefusedWithOneLine) {
  write_file(out_ + "/foreign", "root:x:0:0\n");
  write_file(out_ + "/almost", "ip,user,expire_at\n");
  write_file(out_ + "/export", std::string(torrin::kExportHeader) + "::1,u,0\r\n");
  std::filesystem::create_directory(out_ + "/folder");
  std::filesystem::create_symlink(out_ + "/export", out_ + "/link");
  std::filesystem::create_symlink(out_ + "/nowhere", out_ + "/dangling");
  std::filesystem::create_symlink(out_ + "/folder", out_ + "/linked");
  ASSERT_EQ(mkfifo((out_ + "/fifo").c_str(), 0600), 0);
  std::string deep = out_ + "/folder";
  for (int i = 0; i < 13; ++i) deep += "/" + std::string(255, 'd');
  std::filesystem::create_directories(deep);
  const size_t before = files_in_out();
  ASSERT_EQ(start(), 0);
  const std::pair<std::string, const char*> rows[] = {
      {"", "not an absolute path"},
      {"list.csv", "not an absolute path"},
      {"/", "not an absolute path"},
      {out_ + "/folder/", "not an absolute path"},
      {out_ + "/folder/../x", "not an absolute path"},
      {out_ + std::string("/a\0b", 4), "not an absolute path"},
      {out_ + "/folder", "something other than a file"},
      {out_ + "/fifo", "something other than a file"},
      {out_ + "/foreign", "not an earlier export"},
      {out_ + "/almost", "not an earlier export"},
      {out_ + "/link", "is a link"},
      {out_ + "/dangling", "is a link"},
      {out_ + "/linked/x", "is a link or no folder"},
      {"/proc/self/cwd/x", "is a link or no folder"},
      {out_ + "/missing\nforged <ERR>/x", "No such file"},
      {deep + "/missing/x", "No such file"},  // the reason is not cut off
      {"/" + std::string(5000, '\n'), "File name too long"},
      {out_ + std::string(5000, '/') + "x", "File name too long"},
      {out_ + "/" + std::string(256, 'n'), "File name too long"},
      {workdir_ + "/IPUserCache.ini", "its own file"},
      {workdir_ + "/directory.ldif", "its own file"},
      {file("list.csv"), "the cache's own folder"},
      {file("bindings.mdb-lock"), "the cache's own folder"},
  };
  for (const auto& [path, reason] : rows) {
    forget_log();
    EXPECT_FALSE(cache_->export_to(path)) << path;
    EXPECT_EQ(log_lines("ERR"), 1) << path;
    EXPECT_EQ(log_lines("ERR", reason), 1) << path;
  }
  EXPECT_EQ(files_in_out(), before);
  const auto sees_our_lock = [&] {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    return fcntl(open(file("bindings.mdb-lock").c_str(), O_RDWR), F_GETLK, &lock) == 0 &&
           lock.l_pid == getppid();
  };
  EXPECT_EQ(in_child(sees_our_lock), true) << "a file that was looked at and closed loses its locks";
  EXPECT_EQ(read_file(out_ + "/foreign"), "root:x:0:0\n");
  EXPECT_TRUE(cache_->export_to(workdir_ + "/list.csv"));
  EXPECT_TRUE(cache_->export_to(out_ + "/list.ini")) << "no settings anywhere else";
  EXPECT_TRUE(cache_->export_to(out_ + "/" + std::string(255, 'n'))) << "the longest name that there can be";
}

TEST_F(BindingExportTest, ExportDirectoryKeepsExportsBelowIt) {
  std::filesystem::create_directories(out_ + "/allowed/deeper");
  std::filesystem::create_directory(out_ + "/allowed2");
  std::filesystem::create_symlink(out_, out_ + "/allowed/up");
  settings("ExportDirectory=" + out_ + "/allowed/\n");
  ASSERT_EQ(start(), 0);
  for (const char* good : {"/allowed/x.csv", "//allowed/deeper/x.csv"})
    EXPECT_TRUE(cache_->export_to(out_ + good)) << good;
  for (const char* bad : {"/x.csv", "/allowed2/x.csv", "/allowed", "/allowed/up/x.csv", "/allowed/../x.csv"})
    EXPECT_FALSE(cache_->export_to(out_ + bad)) << bad;
}
