// What the tests of the IP-user cache share: a folder of their own, a clock that they move, the log.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "brellog/VrLog.h"
#include "libtorrin/BindingCache.h"
#include "libtorrin/IPUserCacheModule.h"
#include "tests/unit/Support.h"

using support::in_child;
using support::read_file;
using support::write_file;

inline std::atomic<int64_t> g_test_time{1'000'000};

class CacheTest : public testing::Test {
 protected:
  CacheTest() {
    for (const char* folder : {"/work", "/log"}) std::filesystem::create_directory(root_ + folder);
    write_file(root_ + "/boot_id", "first-boot\n");
    VrLog::setConfig("test.log", (root_ + "/log/").c_str());
    VrLog::setLogVerbose(true);
    g_test_time = 1'000'000;
  }
  void settings(const std::string& lines) {
    write_file(workdir_ + "/IPUserCache.ini", "[IPUserCache]\n" + lines);
  }
  // A start of the daemon, after the clean end of the one before.
  int start() {
    cache_.reset();
    cache_ = std::make_unique<torrin::BindingCache>(
        torrin::Surroundings{[] { return g_test_time.load(); }, root_ + "/boot_id", map_bytes_});
    return cache_->initialize(workdir_.c_str());
  }
  std::string file(const char* name) const { return workdir_ + "/ip_user_cache/" + name; }

  int bind(const std::string& ip, const std::string& user) { return cache_->update(ip.c_str(), user); }
  // The user behind the address, or the result in brackets.
  std::string lookup(const std::string& ip) {
    std::string user = "untouched";
    long expire = -5;
    const int result = cache_->query(ip.c_str(), user, expire);
    if (result == kCacheSuccess) return user;
    if (user != "untouched" || expire != -5) return "changed by a failure";
    return "<" + std::to_string(result) + ">";
  }
  // So many addresses, in their order.
  static std::vector<std::string> addresses(int count) {
    std::vector<std::string> all;
    for (int i = 0; i < count; ++i)
      all.push_back("10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256));
    return all;
  }

  // Lines of a level ("ERR", "INF") with the given text since forget_log().
  int log_lines(const std::string& level, const std::string& text = "") const {
    int count = 0;
    for (const std::string& line : support::log_lines(root_ + "/log", "test.log"))
      count += line.find("<" + level + ">") != std::string::npos && line.find(text) != std::string::npos;
    return count;
  }
  void forget_log() const {
    for (const auto& entry : std::filesystem::directory_iterator(root_ + "/log"))
      std::filesystem::remove(entry.path());
  }

  const support::TempDir folder_;
  const std::string root_ = folder_.path();
  std::string workdir_ = root_ + "/work";
  size_t map_bytes_ = torrin::kMapBytes;
  std::unique_ptr<torrin::BindingCache> cache_;
};
