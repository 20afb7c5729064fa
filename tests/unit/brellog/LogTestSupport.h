// What the tests of logging and of the ini files share: a folder of their own, and the lines in it.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace log_test {

// A new folder that goes away with the object.
class TempDir {
 public:
  TempDir() {
    char name[] = "/tmp/brel_test.XXXXXX";
    const char* const made = mkdtemp(name);
    if (made == nullptr) abort();
    path_ = made;
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
  std::string path_;
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
inline std::vector<std::string> log_lines(const TempDir& folder, const std::string& prefix) {
  std::vector<std::string> lines;
  for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
    if (!entry.path().filename().string().starts_with(prefix + ".")) continue;
    for (std::string& line : split_lines(read_file(entry.path()))) lines.push_back(std::move(line));
  }
  return lines;
}

// Runs `body` in a child process; its result is the exit status. -1 when the child died otherwise.
template <typename Body>
int in_child(Body body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

}  // namespace log_test
