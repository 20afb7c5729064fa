#include "tools/reload_command.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "daemonbase/UniqueFd.h"
#include "tools/authctl_commands.h"
#include "tools/status_json.h"
#include "tools/status_log.h"
#include "tools/status_process.h"

namespace authctl {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kPause{20};
// The worker says that it has the signal before anything else: no line after that time means no log.
constexpr milliseconds kSilence{3000};
// A stopped process might be continued by whoever stopped it; a moment is enough to wait for that.
constexpr milliseconds kStoppedPatience{1000};

enum class Outcome { kWaiting, kReloaded, kTaken, kFailed };

struct Told {
  Process process;
  Outcome outcome = Outcome::kWaiting;
  bool taken = false;     // by its own word
  std::string complaint;  // on its way
  std::string text;

  void settle(Outcome with, std::string why) {
    outcome = with;
    text = std::move(why);
  }
};

std::string message_of(int code) {
  return std::generic_category().message(code);
}

// The descriptor holds on to the process; looking at it again shows that the number still means the worker.
void tell(Told& worker) {
  // Not through <sys/pidfd.h>, whose functions this C library does not declare for C++.
  const UniqueFd handle(static_cast<int>(syscall(SYS_pidfd_open, worker.process.pid, 0)));
  if (!handle.valid()) return worker.settle(Outcome::kFailed, "not told: " + message_of(errno));
  const auto now = look_at_process(worker.process.pid);
  if (!now || !(*now == worker.process) || now->role != Role::kWorker) {
    return worker.settle(Outcome::kFailed, "not told: it has ended");
  }
  if (syscall(SYS_pidfd_send_signal, handle.get(), SIGUSR1, nullptr, 0) == 0) return;
  worker.settle(Outcome::kFailed, errno == EPERM ? "not told: not permitted, root or the account " +
                                                       account_name(now->status.user) + " may"
                                                 : "not told: " + message_of(errno));
}

// The log lines of the workers from now on, also when the day changes meanwhile.
class ReloadLog {
 public:
  ReloadLog() : day_(day_text(std::time(nullptr))) {
    struct stat status {};
    const std::string path = log_path(day_);
    const bool there = stat(path.c_str(), &status) == 0;
    files_.emplace_back(path, there ? static_cast<uint64_t>(status.st_size) : 0);
  }

  void read(const std::function<void(const LogLine&)>& visit) {
    if (const std::string day = day_text(std::time(nullptr)); day != day_) {
      day_ = day;
      files_.emplace_back(log_path(day));
    }
    readable_ = false;
    for (LogFollower& file : files_) {
      const bool done = file.read([&visit](std::string_view text) {
        if (const auto line = parse_log_line(text)) visit(*line);
      });
      readable_ = readable_ || done;
    }
  }
  bool readable() const { return readable_; }

 private:
  std::string day_;
  std::vector<LogFollower> files_;
  bool readable_ = false;
};

void take_line(std::vector<Told>& workers, const LogLine& line) {
  const auto worker = std::find_if(workers.begin(), workers.end(),
                                   [&line](const Told& one) { return one.process.pid == line.pid; });
  if (worker == workers.end() || worker->outcome != Outcome::kWaiting) return;
  constexpr std::string_view kPrefix = "Directory: ";
  std::string text(line.text.starts_with(kPrefix) ? line.text.substr(kPrefix.size()) : line.text);
  switch (parse_reload(line)) {
    case ReloadWord::kNothing: return;
    case ReloadWord::kTaken: worker->taken = true; return;
    // What comes before its own word belongs to an earlier reload.
    case ReloadWord::kDone:
      if (worker->taken && worker->complaint.empty()) {
        worker->settle(Outcome::kReloaded, "reloaded: " + text);
      } else if (worker->taken) {
        worker->settle(Outcome::kFailed, "reloaded, but: " + worker->complaint);
      }
      return;
    case ReloadWord::kFailed:
      if (worker->taken) worker->complaint = std::move(text);
      return;
  }
}

// `now` was taken before the log was read, so that a worker that is done has said all of it.
void judge(Told& worker, const std::optional<Process>& now, milliseconds waited, bool log_readable) {
  if (!now || !(*now == worker.process) || now->stat.state == 'Z') {
    return worker.settle(Outcome::kFailed, "has ended");
  }
  if (has_signal(now->status.pending, SIGUSR1)) {
    if (is_stopped(*now) && waited >= kStoppedPatience) {
      worker.settle(Outcome::kFailed, "is stopped; it takes the signal when it is continued");
    }
    return;
  }
  // The main thread lets signals in only while it sleeps, with its work done.
  const bool sleeps = !has_signal(now->status.blocked, SIGUSR1);
  if (worker.taken) {
    if (sleeps && !worker.complaint.empty()) {
      worker.settle(Outcome::kFailed, "keeps the directory that it had: " + worker.complaint);
    }
  } else if (sleeps && !log_readable) {
    worker.settle(Outcome::kTaken, "took the signal; what came of it is in the log, which cannot be read");
  } else if (sleeps && waited >= kSilence) {
    worker.settle(Outcome::kTaken, "took the signal, but writes nothing to the log");
  }
}

void give_up(Told& worker) {
  worker.settle(Outcome::kFailed,
                worker.taken ? "took the signal and is still reading" : "did not take the signal in time");
}

bool all_settled(const std::vector<Told>& workers) {
  return std::none_of(workers.begin(), workers.end(),
                      [](const Told& worker) { return worker.outcome == Outcome::kWaiting; });
}

void wait_for_all(std::vector<Told>& workers, ReloadLog& log, milliseconds timeout) {
  const Clock::time_point begin = Clock::now();
  for (;;) {
    const auto waited = std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
    std::vector<std::optional<Process>> now;
    for (const Told& worker : workers) now.push_back(look_at_process(worker.process.pid));
    log.read([&workers](const LogLine& line) { take_line(workers, line); });
    for (size_t i = 0; i < workers.size(); ++i) {
      Told& worker = workers[i];
      if (worker.outcome == Outcome::kWaiting) judge(worker, now[i], waited, log.readable());
      if (worker.outcome == Outcome::kWaiting && waited >= timeout) give_up(worker);
    }
    if (all_settled(workers)) return;
    std::this_thread::sleep_for(kPause);
  }
}

const char* word_of(Outcome outcome) {
  switch (outcome) {
    case Outcome::kReloaded: return "reloaded";
    case Outcome::kTaken: return "told";
    case Outcome::kWaiting:
    case Outcome::kFailed: break;
  }
  return "failed";
}

void print(const std::vector<Told>& workers, bool json) {
  if (!json) {
    for (const Told& worker : workers) {
      std::cout << "worker " << worker.process.pid << ": " << printable(worker.text) << '\n';
    }
    return;
  }
  JsonWriter out;
  out.begin('{').begin('[', "workers");
  for (const Told& worker : workers) {
    out.begin('{').number("pid", worker.process.pid).text("outcome", word_of(worker.outcome));
    out.text("text", worker.text).end('}');
  }
  std::cout << out.end(']').end('}').str() << '\n';
}

}  // namespace

int reload_workers(const ReloadOptions& options) {
  const DaemonProcesses daemon = find_daemon();
  std::vector<Told> workers;
  for (const Process& process : daemon.workers()) {
    workers.emplace_back().process = process;
  }
  if (!daemon.pid_file_problem.empty()) std::cerr << "authctl: " << daemon.pid_file_problem << '\n';
  if (workers.empty()) {
    std::cerr << "authctl: no worker of the daemon is running here\n";
    return kExitNoAnswer;
  }
  ReloadLog log;
  for (Told& worker : workers) tell(worker);
  wait_for_all(workers, log, options.timeout);
  print(workers, options.json);
  const int expected = daemon.parameters ? daemon.parameters->processes : 0;
  if (static_cast<int>(workers.size()) < expected) {
    std::cerr << "authctl: " << workers.size() << " of " << expected
              << " workers are running; a new one reads the directory when it starts\n";
  }
  const bool all = std::none_of(workers.begin(), workers.end(),
                                [](const Told& worker) { return worker.outcome == Outcome::kFailed; });
  if (!std::cout.flush()) {
    std::cerr << "authctl: cannot write to standard output\n";
    return kExitNoAnswer;
  }
  return all ? kExitSuccess : kExitOtherResult;
}

}  // namespace authctl
