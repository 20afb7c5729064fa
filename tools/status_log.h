// The daemon's log files as an administrator's tool reads them: what a line says, and what the lines of today
// tell together. Lines are whatever a hostile client made the daemon quote; nothing in them is believed but
// their beginning, which the daemon wrote itself.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace authctl {

constexpr char kLogFolder[] = "/var/brel/log";
constexpr char kLogName[] = "AuthDaemon.log";

struct LogLine {
  std::string_view clock;  // "09:30:00.123"
  std::string_view level;  // "ERR"
  pid_t pid = 0;
  pid_t thread = 0;  // of the process's main thread: the pid
  std::string_view text;
};
// A line without its line end; nothing when it is none of the daemon's.
std::optional<LogLine> parse_log_line(std::string_view line);

// One report of a worker's main thread about its reply cache.
struct CacheFigures {
  std::string when;  // "2026-11-21 09:30:00"
  int64_t size = 0;
  int64_t count = 0;
  int64_t queries = 0;
  int64_t hits = 0;
};
std::optional<CacheFigures> parse_cache_figures(std::string_view text);

// The end of a run of the synchronisation script that the daemon started.
struct ScriptRun {
  std::string when;
  int status = 0;  // as system() gave it
};
std::optional<int> parse_script_run(std::string_view text);

// What became of a reload, as the main thread of a worker says it.
enum class ReloadWord { kNothing, kTaken, kDone, kFailed };
ReloadWord parse_reload(const LogLine& line);

// Complete lines that are added to a file, read on from where the last call ended.
class LogFollower {
 public:
  // Begins at `offset`; more than `most` bytes before the end are passed over.
  explicit LogFollower(std::string path, uint64_t offset = 0, uint64_t most = UINT64_MAX);
  // Calls `visit` for each new line. False when the file cannot be read; errno says why.
  bool read(const std::function<void(std::string_view)>& visit);
  bool passed_over() const { return passed_over_; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  uint64_t offset_;
  uint64_t most_;
  bool passed_over_ = false;
  std::string pending_;  // a line whose end has not been written yet
};

struct LogSummary {
  std::string file;          // of today
  std::string problem;       // why it cannot be read; empty when it can
  bool denied = false;       // this user may not
  bool passed_over = false;  // too long: only its end was looked at
  uint64_t errors = 0;
  std::string last_error_clock;
  std::string last_error;
  std::map<pid_t, CacheFigures> cache;  // the newest of each worker
  std::optional<ScriptRun> script;      // the newest
};

// The log of today, and of the newest earlier day what today's does not say. Call look() again for what has
// been written meanwhile.
class LogWatcher {
 public:
  const LogSummary& look();

 private:
  void begin_day(const std::string& day);
  void take(std::string_view line, const std::string& day, bool today);

  std::string day_;
  std::optional<LogFollower> today_;
  LogSummary summary_;
};

// The newest day before `before` of which the folder has a file "<name>.<day>.0001"; empty when it has none.
std::string newest_day(const std::string& folder, std::string_view name, std::string_view before);

// "20261121" of local time.
std::string day_text(std::time_t moment);
std::string log_path(const std::string& day);

}  // namespace authctl
