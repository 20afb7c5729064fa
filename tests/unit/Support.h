// What tests of several folders share: a folder of their own, files and log lines in it, a clock, children.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace support {

// A new folder that goes away with the object.
class TempDir {
 public:
  TempDir() {
    if (mkdtemp(path_.data()) == nullptr) abort();
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_ = "/tmp/authd_test.XXXXXX";
};

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The lines of the daily files in a folder whose names begin with the prefix.
inline std::vector<std::string> log_lines(const std::string& folder, const std::string& prefix) {
  std::string text;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().filename().string().starts_with(prefix + ".")) text += read_file(entry.path());
  }
  return split_lines(text);
}

// What `call` gives in a child process, which ends without destructors, as a daemon that was killed; or minus
// the signal that ended it.
int in_child(const auto& call) {
  const pid_t child = fork();
  if (child == 0) _exit(static_cast<int>(call()));
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// What the log writer takes for the time, where the test program replaces gettimeofday; negative: the real
// time.
inline std::atomic<int64_t> g_fake_microseconds{-1};

// Stands still at a time, in a zone without summers; the real clock runs again at the object's end.
class FakeClock {
 public:
  explicit FakeClock(int64_t seconds, int microseconds = 0) {
    setenv("TZ", "UTC0", 1);
    set(seconds, microseconds);
  }
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;
  ~FakeClock() { set(-1); }

  void set(int64_t seconds, int microseconds = 0) {
    g_fake_microseconds = seconds * 1'000'000 + microseconds;
  }
};

constexpr int64_t kNoon = 1709294400;  // 2024-03-01 12:00:00 UTC

}  // namespace support
