#include "libtorrin/Settings.h"

#include <gmock/gmock.h>

#include "tests/unit/libtorrin/CacheTest.h"

class SettingsTest : public CacheTest {};

TEST_F(SettingsTest, AFileThatIsWrongStopsTheStartWithOneLine) {
  std::vector<std::pair<std::string, std::string>> rows = {
      {"[IPUserCache]\n# a\n\nDurable yes\n", "line 4: "}, {"Durable=yes\n[IPUserCache]\n", "line 1: "}};
  for (const std::string line :
       {"Lifetime=", "Lifetime=-1", "Lifetime=8h", "Lifetime=5256001", "Lifetime=99999999999999999999",
        "Durable=1", "ExportDirectory=exports", "ExportDirectory=/a/../b", "Directory=", "Directory=/tmp",
        "Directory=a/../..", "Backend=redis"})
    rows.emplace_back("[IPUserCache]\n" + line, "section IPUserCache, key " + line.substr(0, line.find('=')));
  const std::string path = workdir_ + "/IPUserCache.ini";
  const auto expect_refused = [&](const std::string& about) {
    forget_log();
    const auto refused = [&] {
      alarm(5);  // nobody writes to a pipe
      return start() != 0;
    };
    EXPECT_EQ(in_child(refused), true) << about;
    EXPECT_EQ(log_lines("ERR"), 1) << about;
    EXPECT_EQ(log_lines("ERR", about), 1) << about;
  };
  for (const auto& [text, reason] : rows) {
    write_file(path, text);
    expect_refused("IPUserCache.ini: " + reason);
  }
  std::filesystem::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  expect_refused("IPUserCache.ini: it is not a regular file");
  EXPECT_FALSE(std::filesystem::exists(file(""))) << "a refused start leaves nothing";
  for (const auto& [workdir, reason] : {std::pair(root_ + "/missing", "No such file or directory"),
                                        {root_ + "/boot_id", "Not a directory"}}) {
    workdir_ = workdir;
    expect_refused(reason);
  }
}

TEST_F(SettingsTest, TheEmptyWorkingDirectoryIsTheRoot) {
  if (geteuid() != 0) GTEST_SKIP() << "only root may choose a root to write into";
  const auto in_own_root = [&] {
    workdir_.clear();
    return chroot(root_.c_str()) == 0 && chdir("/") == 0 && start() == 0;
  };
  EXPECT_EQ(in_child(in_own_root), true);
  EXPECT_TRUE(std::filesystem::exists(root_ + "/ip_user_cache/bindings.mdb"));
}
