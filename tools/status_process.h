// The daemon's processes as /proc and the pid file show them. Reads only; what this user may not see is said
// to be so, and a process that ends meanwhile is no error.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace authctl {

constexpr char kPidFile[] = "/etc/quarn/pids/auth_daemon.pid";

// /proc/PID/stat
struct StatFields {
  std::string name;
  char state = '?';
  pid_t parent = 0;
  pid_t session = 0;
  uint64_t start_ticks = 0;  // since the machine started; with the pid it names a process for good
};
std::optional<StatFields> parse_stat(std::string_view text);

// /proc/PID/status
struct StatusFields {
  uid_t user = 0;
  int threads = 0;
  uint64_t memory_kb = 0;  // resident
  uint64_t pending = 0;    // signals, bit 0 is signal 1
  uint64_t blocked = 0;    // by the main thread
  uint64_t caught = 0;
};
std::optional<StatusFields> parse_status(std::string_view text);
bool has_signal(uint64_t mask, int signal_number);

// What the daemon makes of its arguments, which are separated by NUL.
struct BootParameters {
  std::string workdir;
  int processes = 2;
  int threads = 10;
  bool reply_cache = true;
};
BootParameters parse_arguments(std::string_view arguments);

// The whole content of a pid file: a number, perhaps with a line end.
std::optional<pid_t> parse_pid(std::string_view text);

enum class Role { kParent, kWorker, kSynchronisation };

struct Process {
  pid_t pid = 0;
  Role role = Role::kWorker;
  StatFields stat;
  StatusFields status;
  double uptime = 0;                  // seconds
  std::optional<size_t> descriptors;  // nothing: not for this user
  std::optional<uint64_t> descriptor_limit;
  bool operator==(const Process& other) const {
    return pid == other.pid && stat.start_ticks == other.stat.start_ticks;
  }
};

// Stopped by a signal or a debugger: it serves nobody until it is continued.
bool is_stopped(const Process& process);

struct DaemonProcesses {
  std::vector<Process> processes;  // the parent first, if it lives, then workers by age
  bool parent_alive = false;
  pid_t pid = 0;                 // of the parent, dead or alive; 0: no trace of a daemon
  std::string pid_file_problem;  // why the pid file does not lead to the parent; empty when it does
  std::optional<BootParameters> parameters;
  std::optional<std::string> workdir;  // absolute

  std::vector<Process> workers() const;
};

// The daemon whose parent the pid file names; without one that it could be, the one that runs all the same.
// Workers whose parent has died count as the daemon's.
DaemonProcesses find_daemon();

// The process as it is now; nothing when it has ended.
std::optional<Process> look_at_process(pid_t pid);

// The name of an account, else its number.
std::string account_name(uid_t user);

// Whether the process has this snapshot file open; needs the rights of root.
enum class SnapshotUse { kUnknown, kNone, kCurrent, kReplaced };
SnapshotUse snapshot_use(pid_t pid, const std::string& snapshot_path);
// The same of the text of /proc/PID/maps.
SnapshotUse parse_maps(std::string_view maps, std::string_view snapshot_name);

// The program file of a running process: where it lay, whether it has been replaced since the start, and the
// version that it carries. Needs the rights of root.
struct RunningProgram {
  std::string path;
  bool replaced = false;
  std::string version;  // empty: it does not say
};
std::optional<RunningProgram> running_program(pid_t pid);
// Nothing of it is kept when the text is not one of a version.
std::string find_version(std::string_view program);

// Up to `limit` bytes of a file, such as one of /proc whose size is not known; nothing when it cannot be
// read.
std::optional<std::string> read_text(const std::string& path, size_t limit = size_t{1} << 20);

}  // namespace authctl
