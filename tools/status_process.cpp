#include "tools/status_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <sstream>
#include <system_error>

#include "daemonbase/UniqueFd.h"

namespace authctl {
namespace {

constexpr std::string_view kDaemonName = "AuthDaemon";
constexpr int kMostProcesses = 10;
constexpr int kMostThreads = 30;
// The daemon keeps that much of a longer path.
constexpr size_t kLongestWorkdir = 511;
// Between the fork and the writing of the pid file lies the building of the snapshot, so the file is younger
// than its process; the clock ticks of a start time are rounded.
constexpr double kStartSlack = 2;

template <class Number>
bool read_number(std::string_view text, Number& number, int base = 10) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return error == std::errc() && end == text.data() + text.size();
}

std::string process_path(pid_t pid, const char* file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

// The value behind "<name>:" of a line, without blanks around it.
std::string_view status_value(std::string_view text, std::string_view name) {
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    std::string_view line = text.substr(at, end - at);
    at = end + 1;
    if (!line.starts_with(name) || line.size() <= name.size() || line[name.size()] != ':') continue;
    line.remove_prefix(name.size() + 1);
    const size_t first = line.find_first_not_of(" \t");
    return first == std::string_view::npos ? std::string_view() : line.substr(first);
  }
  return {};
}

std::string_view first_word(std::string_view text) {
  return text.substr(0, text.find_first_of(" \t"));
}

double boot_age() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::optional<size_t> count_descriptors(pid_t pid) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(process_path(pid, "fd").c_str()), closedir);
  if (folder == nullptr) return std::nullopt;
  size_t count = 0;
  while (const dirent* entry = readdir(folder.get())) count += entry->d_name[0] != '.' ? 1 : 0;
  return count;
}

std::optional<uint64_t> descriptor_limit(pid_t pid) {
  constexpr std::string_view kLine = "Max open files";
  const auto text = read_text(process_path(pid, "limits"));
  const size_t at = text ? text->find(kLine) : std::string::npos;
  if (at == std::string::npos) return std::nullopt;
  std::string_view rest = std::string_view(*text).substr(at + kLine.size());
  rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
  uint64_t limit = 0;
  if (!read_number(first_word(rest), limit)) return std::nullopt;
  return limit;
}

std::optional<std::string> read_link(const std::string& path) {
  std::string target(4096, '\0');
  const ssize_t length = readlink(path.c_str(), target.data(), target.size());
  if (length < 0) return std::nullopt;
  target.resize(static_cast<size_t>(length));
  return target;
}

// The running daemon's processes, whoever's they are.
std::vector<Process> all_processes() {
  std::vector<Process> found;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc"), closedir);
  if (folder == nullptr) return found;
  while (const dirent* entry = readdir(folder.get())) {
    pid_t pid = 0;
    if (!read_number(std::string_view(entry->d_name), pid)) continue;
    auto process = look_at_process(pid);
    if (process && process->stat.name == kDaemonName && process->stat.state != 'Z') {
      found.push_back(std::move(*process));
    }
  }
  std::sort(found.begin(), found.end(), [](const Process& one, const Process& other) {
    return std::pair(one.stat.start_ticks, one.pid) < std::pair(other.stat.start_ticks, other.pid);
  });
  return found;
}

// Where the pid file leads: the pid in it, and the reason why that is not the parent.
struct PidFile {
  pid_t pid = 0;
  std::string problem;
  uid_t owner = 0;
  double written = 0;  // seconds since the epoch
};

PidFile read_pid_file() {
  PidFile file;
  const std::string name = kPidFile;
  const UniqueFd fd(open(kPidFile, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) {
    const int code = errno;
    file.problem =
        code == ENOENT ? name + " does not exist" : name + ": " + std::generic_category().message(code);
    return file;
  }
  char text[32];
  const ssize_t size = read(fd.get(), text, sizeof text);
  const auto pid = size > 0 ? parse_pid({text, static_cast<size_t>(size)}) : std::nullopt;
  if (!pid) {
    file.problem = name + " holds no process id";
    return file;
  }
  file.pid = *pid;
  file.owner = status.st_uid;
  file.written = static_cast<double>(status.st_mtim.tv_sec);
  return file;
}

// Why the process cannot be the one that wrote the pid file; empty when it can. A pid is given to another
// process when the daemon died without removing the file.
std::string mismatch(const PidFile& file, const std::vector<Process>& processes) {
  const std::string pid = std::to_string(file.pid);
  const auto found = std::find_if(processes.begin(), processes.end(),
                                  [&file](const Process& process) { return process.pid == file.pid; });
  if (found == processes.end()) {
    if (look_at_process(file.pid)) return "process " + pid + " is not the daemon";
    const bool hidden = kill(file.pid, 0) == 0 || errno == EPERM;
    return "process " + pid + (hidden ? " cannot be seen by this user" : " has ended");
  }
  if (found->stat.session != found->pid) return "process " + pid + " is not the daemon's parent process";
  if (file.owner != 0 && found->status.user != file.owner) {
    return "process " + pid + " belongs to " + account_name(found->status.user) + ", the file to " +
           account_name(file.owner);
  }
  const bool younger = static_cast<double>(time(nullptr)) - found->uptime > file.written + kStartSlack;
  const bool has_workers = std::any_of(processes.begin(), processes.end(), [&](const Process& process) {
    return process.role == Role::kWorker && process.stat.session == file.pid;
  });
  // A clock that was set makes any process look younger; but only the daemon's parent has workers.
  if (younger && !has_workers) return "process " + pid + " was started after the file was written";
  return {};
}

void read_parameters(DaemonProcesses& daemon) {
  if (daemon.processes.empty()) return;
  const pid_t pid = daemon.processes.front().pid;
  const auto arguments = read_text(process_path(pid, "cmdline"));
  if (!arguments || arguments->empty()) return;
  daemon.parameters = parse_arguments(*arguments);
  std::string workdir = daemon.parameters->workdir;
  if (workdir.empty() || workdir.starts_with('/')) {
    daemon.workdir = workdir;
  } else if (const auto current = read_link(process_path(pid, "cwd"))) {
    daemon.workdir = *current + "/" + workdir;
  }
}

}  // namespace

std::optional<std::string> read_text(const std::string& path, size_t limit) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd.valid()) return std::nullopt;
  std::string text;
  char buffer[16384];
  while (text.size() < limit) {
    const ssize_t got = read(fd.get(), buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) break;
    text.append(buffer, static_cast<size_t>(got));
  }
  return text;
}

std::optional<StatFields> parse_stat(std::string_view text) {
  // The name may hold anything, also blanks and parentheses: the last one closes it.
  const size_t open = text.find('('), close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
  StatFields fields;
  fields.name = text.substr(open + 1, close - open - 1);
  std::istringstream rest{std::string(text.substr(close + 1))};
  std::vector<std::string> words{std::istream_iterator<std::string>(rest), {}};
  constexpr size_t kState = 0, kParent = 1, kSession = 3, kStart = 19;
  if (words.size() <= kStart || words[kState].size() != 1) return std::nullopt;
  fields.state = words[kState][0];
  if (!read_number(std::string_view(words[kParent]), fields.parent) ||
      !read_number(std::string_view(words[kSession]), fields.session) ||
      !read_number(std::string_view(words[kStart]), fields.start_ticks)) {
    return std::nullopt;
  }
  return fields;
}

std::optional<StatusFields> parse_status(std::string_view text) {
  StatusFields fields;
  uint64_t own = 0, shared = 0;
  const bool complete = read_number(first_word(status_value(text, "Uid")), fields.user) &&
                        read_number(first_word(status_value(text, "Threads")), fields.threads) &&
                        read_number(first_word(status_value(text, "SigPnd")), own, 16) &&
                        read_number(first_word(status_value(text, "ShdPnd")), shared, 16) &&
                        read_number(first_word(status_value(text, "SigBlk")), fields.blocked, 16) &&
                        read_number(first_word(status_value(text, "SigCgt")), fields.caught, 16);
  if (!complete) return std::nullopt;
  fields.pending = own | shared;
  read_number(first_word(status_value(text, "VmRSS")), fields.memory_kb);  // an ending process has none
  return fields;
}

bool has_signal(uint64_t mask, int signal_number) {
  return (mask >> (signal_number - 1) & 1) != 0;
}

BootParameters parse_arguments(std::string_view arguments) {
  std::vector<std::string> words;
  while (!arguments.empty()) {
    const size_t length = std::min(arguments.find('\0'), arguments.size());
    words.emplace_back(arguments.substr(0, length));
    arguments.remove_prefix(std::min(length + 1, arguments.size()));
  }
  BootParameters parameters;
  // As the daemon does: a value is compared with the options, too, and a number out of range does not count.
  const auto take_number = [](const std::string& value, int most, int& number) {
    const long given = std::strtol(value.c_str(), nullptr, 10);
    if (given >= 1 && given <= most) number = static_cast<int>(given);
  };
  for (size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "--disable-reply-cache") parameters.reply_cache = false;
    if (i + 1 == words.size()) break;
    if (words[i] == "--workdir") parameters.workdir = words[i + 1].substr(0, kLongestWorkdir);
    if (words[i] == "--process-num") take_number(words[i + 1], kMostProcesses, parameters.processes);
    if (words[i] == "--thread-num") take_number(words[i + 1], kMostThreads, parameters.threads);
  }
  return parameters;
}

std::optional<pid_t> parse_pid(std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  pid_t pid = 0;
  if (!read_number(text, pid) || pid <= 1) return std::nullopt;
  return pid;
}

bool is_stopped(const Process& process) {
  return process.stat.state == 'T' || process.stat.state == 't';
}

std::vector<Process> DaemonProcesses::workers() const {
  std::vector<Process> found;
  std::copy_if(processes.begin(), processes.end(), std::back_inserter(found),
               [](const Process& process) { return process.role == Role::kWorker; });
  return found;
}

std::optional<Process> look_at_process(pid_t pid) {
  const auto stat_text = read_text(process_path(pid, "stat"));
  const auto status_text = stat_text ? read_text(process_path(pid, "status")) : std::nullopt;
  if (!status_text) return std::nullopt;
  auto stat = parse_stat(*stat_text);
  const auto status = parse_status(*status_text);
  if (!stat || !status) return std::nullopt;
  Process process;
  process.pid = pid;
  process.stat = std::move(*stat);
  process.status = *status;
  process.uptime = boot_age() - static_cast<double>(process.stat.start_ticks) /
                                    static_cast<double>(std::max(1L, sysconf(_SC_CLK_TCK)));
  // The parent leads the session that all its children belong to. The child that synchronises goes deaf to
  // the signal that makes workers reload.
  if (process.stat.session == pid) {
    process.role = Role::kParent;
  } else if (!has_signal(process.status.caught, SIGUSR1)) {
    process.role = Role::kSynchronisation;
  }
  return process;
}

DaemonProcesses find_daemon() {
  DaemonProcesses daemon;
  std::vector<Process> all = all_processes();
  const PidFile file = read_pid_file();
  daemon.pid_file_problem = file.problem;
  if (file.pid != 0) daemon.pid_file_problem = mismatch(file, all);
  daemon.pid = file.pid;
  // A pid file that is gone or wrong does not hide a daemon that runs.
  const auto in_session = [&all](pid_t pid) {
    return std::any_of(all.begin(), all.end(), [pid](const Process& one) { return one.stat.session == pid; });
  };
  const bool leads_nowhere = !daemon.pid_file_problem.empty() && (file.pid == 0 || !in_session(file.pid));
  if (leads_nowhere) daemon.pid = all.empty() ? file.pid : all.back().stat.session;
  for (Process& process : all) {
    if (process.stat.session != daemon.pid) continue;
    process.descriptors = count_descriptors(process.pid);
    process.descriptor_limit = descriptor_limit(process.pid);
    daemon.parent_alive = daemon.parent_alive || process.role == Role::kParent;
    daemon.processes.push_back(std::move(process));
  }
  std::stable_partition(daemon.processes.begin(), daemon.processes.end(),
                        [](const Process& process) { return process.role == Role::kParent; });
  read_parameters(daemon);
  return daemon;
}

std::string account_name(uid_t user) {
  const passwd* account = getpwuid(user);
  return account == nullptr ? "uid " + std::to_string(user) : account->pw_name;
}

SnapshotUse parse_maps(std::string_view maps, std::string_view snapshot_name) {
  constexpr std::string_view kGone = " (deleted)";
  const std::string tail = "/" + std::string(snapshot_name);
  SnapshotUse use = SnapshotUse::kNone;
  while (!maps.empty()) {
    const size_t length = std::min(maps.find('\n'), maps.size());
    std::string_view line = maps.substr(0, length);
    maps.remove_prefix(std::min(length + 1, maps.size()));
    const bool gone = line.ends_with(kGone);
    if (gone) line.remove_suffix(kGone.size());
    if (!line.ends_with(tail)) continue;
    // Threads that have had nothing to do keep the one before for a while.
    if (!gone) return SnapshotUse::kCurrent;
    use = SnapshotUse::kReplaced;
  }
  return use;
}

SnapshotUse snapshot_use(pid_t pid, const std::string& snapshot_path) {
  const auto maps = read_text(process_path(pid, "maps"), size_t{64} << 20);
  if (!maps || maps->empty()) return SnapshotUse::kUnknown;
  return parse_maps(*maps, snapshot_path.substr(snapshot_path.rfind('/') + 1));
}

std::string find_version(std::string_view program) {
  constexpr std::string_view kMark = "AuthDaemon version ";
  constexpr size_t kLongest = 32;
  const size_t at = program.find(kMark);
  if (at == std::string_view::npos) return {};
  std::string_view version = program.substr(at + kMark.size(), kLongest);
  version = version.substr(0, version.find('\0'));
  const bool sane =
      version.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyz.+~-") == std::string_view::npos;
  return sane ? std::string(version) : std::string();
}

std::optional<RunningProgram> running_program(pid_t pid) {
  constexpr std::string_view kGone = " (deleted)";
  const std::string link = process_path(pid, "exe");
  auto path = read_link(link);
  if (!path) return std::nullopt;
  RunningProgram program;
  program.replaced = path->ends_with(kGone);
  if (program.replaced) path->resize(path->size() - kGone.size());
  program.path = *path;
  // The link leads to the file that runs, also when another one has its name now.
  const UniqueFd fd(open(link.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0 || status.st_size <= 0) return program;
  const auto size = static_cast<size_t>(status.st_size);
  void* bytes = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd.get(), 0);
  if (bytes == MAP_FAILED) return program;
  program.version = find_version({static_cast<const char*>(bytes), size});
  munmap(bytes, size);
  return program;
}

}  // namespace authctl
