// Everything that authctl status knows, gathered from the port and the local files, and how it is shown.
// Nothing here writes a file, takes a lock or sends a signal.
#pragma once

#include <chrono>
#include <ctime>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/status_log.h"
#include "tools/status_process.h"

namespace authctl {

struct StatusOptions {
  std::string server;
  std::chrono::milliseconds timeout{3000};  // of the question to the port
  std::optional<std::string> workdir;       // instead of the running daemon's
  bool ask_servers = true;
  bool json = false;
};

// A part that could not be looked at says why. `denied`: only because of this user's rights, which is no
// fault of the daemon.
struct Obstacle {
  std::string text;
  bool denied = false;
};

struct PortReport {
  bool answers = false;
  double milliseconds = 0;
  std::string error;
};

struct SnapshotReport {
  std::string source;
  int64_t built_at = 0;
  int64_t users = 0;
  int64_t groups = 0;
  int64_t memberships = 0;
  uint64_t bytes = 0;
};

struct BindingsReport {
  uint64_t bindings = 0;             // with those that have expired since the last sweep
  uint64_t bytes = 0;                // on the disk
  std::optional<int64_t> copied_at;  // when the compact copy was made, which survives a loss of power
};

struct SyncReportLine {
  std::optional<int64_t> last;  // recorded by the script when it had done its work
  int64_t interval = 0;         // seconds
  std::optional<ScriptRun> script;
  std::string said;  // the last line in the script's own log
};

struct ServerReport {
  std::string domain;
  std::string url;
  bool works = false;
  int64_t milliseconds = 0;
  std::string error;
};

struct StatusReport {
  std::time_t taken_at = 0;
  DaemonProcesses daemon;
  std::vector<SnapshotUse> use;  // of each process
  std::optional<RunningProgram> program;
  std::string server;
  PortReport port;
  std::optional<std::string> workdir;
  std::optional<SnapshotReport> snapshot;
  std::optional<Obstacle> no_snapshot;
  std::optional<BindingsReport> bindings;
  std::optional<Obstacle> no_bindings;
  bool from_servers = false;
  SyncReportLine sync;
  std::vector<ServerReport> servers;
  std::time_t servers_asked_at = 0;
  LogSummary log;
  std::vector<std::string> problems;  // any of them makes the exit status 1
  std::vector<std::string> notes;

  int exit_code() const;
};

// Looks again and again; what costs much is kept from one look to the next: a snapshot that was checked, the
// lines of the log, and what the directory servers answered for half a minute.
class StatusGatherer {
 public:
  explicit StatusGatherer(StatusOptions options);
  ~StatusGatherer();
  StatusReport look();

 private:
  struct Memory;
  StatusOptions options_;
  std::unique_ptr<Memory> memory_;
};

// Fills problems and notes from the rest.
void judge(StatusReport& report);

void print_status(std::ostream& out, const StatusReport& report);
std::string status_json(const StatusReport& report);

// "3 d 4 h", "5 min 12 s", "0.4 s"
std::string duration_text(double seconds);
// "12.3 MiB"
std::string size_text(uint64_t bytes);

// authctl status, once or with --watch every `interval`.
int show_status(const StatusOptions& options);
int watch_status(const StatusOptions& options, std::chrono::milliseconds interval);

}  // namespace authctl
