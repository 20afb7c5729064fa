// What the tests of the IP-user cache share: a folder of their own, a clock that they move, the log.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "brellog/VrLog.h"
#include "libtorrin/BindingCache.h"
#include "libtorrin/IPUserCacheModule.h"

inline std::atomic<int64_t> g_test_time{1'000'000};

class CacheTest : public testing::Test {
 protected:
  CacheTest() {
    char name[] = "/tmp/torrin-test-XXXXXX";
    root_ = mkdtemp(name);
    workdir_ = root_ + "/work";
    std::filesystem::create_directory(workdir_);
    write_text(root_ + "/boot_id", "first-boot\n");
    std::filesystem::create_directory(root_ + "/log");
    VrLog::setConfig("test.log", (root_ + "/log/").c_str());
    VrLog::setLogVerbose(true);
    g_test_time = 1'000'000;
  }
  ~CacheTest() override {
    cache_.reset();
    std::filesystem::remove_all(root_);
  }

  static void write_text(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
  }
  static std::string read_text(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  torrin::Surroundings surroundings() const {
    torrin::Surroundings result;
    result.clock = [] { return g_test_time.load(); };
    result.boot_id_file = root_ + "/boot_id";
    result.map_bytes = map_bytes_;
    return result;
  }
  void settings(const std::string& lines) {
    write_text(workdir_ + "/IPUserCache.ini", "[IPUserCache]\n" + lines);
  }
  std::unique_ptr<torrin::BindingCache> make_cache() const {
    return std::make_unique<torrin::BindingCache>(surroundings());
  }
  // A start of the daemon, after the clean end of the one before.
  int start() {
    cache_.reset();
    cache_ = make_cache();
    return cache_->initialize(workdir_.c_str());
  }
  std::string file(const char* name) const { return workdir_ + "/ip_user_cache/" + name; }

  int bind(const char* ip, const std::string& user) { return cache_->update(ip, user); }
  // The user behind the address, or the result in brackets.
  std::string lookup(const std::string& ip) { return lookup(*cache_, ip); }
  static std::string lookup(torrin::BindingCache& cache, const std::string& ip) {
    std::string user = "untouched";
    long expire = -5;
    const int result = cache.query(ip.c_str(), user, expire);
    if (result == kCacheSuccess) return user;
    if (user != "untouched" || expire != -5) return "changed by a failure";
    return "<" + std::to_string(result) + ">";
  }

  // Runs `work` in a child that ends without destructors, as a daemon that was killed; gives its wait status.
  static int in_child(const std::function<bool()>& work) {
    const pid_t child = fork();
    if (child == 0) _exit(work() ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    return status;
  }

  // Lines of a level ("ERR", "INF") written since the last call, with the given text.
  int new_lines(const std::string& level, const std::string& text = "") {
    int count = 0;
    size_t seen = 0;
    for (const auto& entry : std::filesystem::directory_iterator(root_ + "/log")) {
      std::ifstream log(entry.path());
      for (std::string line; std::getline(log, line); ++seen) {
        if (seen < log_lines_seen_) continue;
        if (line.find("<" + level + ">") != std::string::npos && line.find(text) != std::string::npos)
          ++count;
      }
    }
    return count;
  }
  void forget_log() {
    log_lines_seen_ = 0;
    for (const auto& entry : std::filesystem::directory_iterator(root_ + "/log")) {
      std::ifstream log(entry.path());
      for (std::string line; std::getline(log, line);) ++log_lines_seen_;
    }
  }

  std::string root_;
  std::string workdir_;
  size_t map_bytes_ = torrin::kMapBytes;
  size_t log_lines_seen_ = 0;
  std::unique_ptr<torrin::BindingCache> cache_;
};
