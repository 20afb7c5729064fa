// What of a report is a problem, and what only worth a note.
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>

#include "tools/authctl_commands.h"
#include "tools/status_report.h"

namespace authctl {
namespace {

constexpr double kNewborn = 5;      // seconds in which a process may still lack threads
constexpr int64_t kPublished = 60;  // seconds in which workers turn to a new snapshot
constexpr int64_t kLate = 3600;     // seconds that a synchronisation may take
constexpr uint64_t kDescriptorPercent = 90;

void judge_processes(StatusReport& report) {
  const DaemonProcesses& daemon = report.daemon;
  if (daemon.processes.empty()) {
    report.problems.push_back("the daemon is not running: " + daemon.pid_file_problem);
    return;
  }
  if (!daemon.parent_alive) {
    report.problems.push_back(
        "the parent process has ended: the workers serve, but nobody replaces them, and the directory is not "
        "synchronised; end them and start the daemon");
  } else if (!daemon.pid_file_problem.empty()) {
    report.problems.push_back(daemon.pid_file_problem + ", but a daemon is running");
  }
  const size_t workers = daemon.workers().size();
  const int expected = daemon.parameters ? daemon.parameters->processes : 0;
  if (daemon.parent_alive && static_cast<int>(workers) < expected) {
    report.problems.push_back(
        std::to_string(workers) + " of " + std::to_string(expected) +
        " workers are running; the parent replaces dead ones, in its first minute when that is over");
  }
  if (expected != 0 && static_cast<int>(workers) > expected) {
    report.notes.push_back(
        std::to_string(workers) + " workers are running, expected " + std::to_string(expected) +
        ": one that was stopped and continued gets a successor, and the parent no longer ends it; "
        "send SIGTERM to the oldest");
  }
  for (const Process& process : daemon.processes) {
    const std::string who = "process " + std::to_string(process.pid);
    if (is_stopped(process)) report.problems.push_back(who + " is stopped by a signal or a debugger");
    const int threads = daemon.parameters ? daemon.parameters->threads + 1 : 0;
    if (process.role == Role::kWorker && process.status.threads < threads && process.uptime > kNewborn) {
      report.problems.push_back(who + " has " + std::to_string(process.status.threads) +
                                " threads, expected at least " + std::to_string(threads));
    }
    if (process.descriptors && process.descriptor_limit &&
        *process.descriptors * 100 >= *process.descriptor_limit * kDescriptorPercent) {
      report.problems.push_back(who + " has " + std::to_string(*process.descriptors) + " of " +
                                std::to_string(*process.descriptor_limit) + " descriptors open");
    }
  }
  if (!daemon.processes.front().descriptors) {
    report.notes.push_back("open descriptors, the program and the snapshot in use are shown to root only");
  }
  if (report.program && report.program->replaced) {
    report.notes.push_back(report.program->path +
                           " has been replaced since the start; the old one runs until a restart");
  }
}

void take_obstacle(StatusReport& report, const std::optional<Obstacle>& obstacle) {
  if (!obstacle) return;
  if (obstacle->denied) {
    report.notes.push_back("not for this user: " + obstacle->text);
  } else {
    report.problems.push_back(obstacle->text);
  }
}

void judge_snapshot(StatusReport& report) {
  take_obstacle(report, report.no_snapshot);
  take_obstacle(report, report.no_bindings);
  if (!report.snapshot) return;
  const std::string configured = report.from_servers ? "ldap" : "ldif";
  if (report.snapshot->source != configured) {
    report.problems.push_back("the snapshot was made from the source " + report.snapshot->source +
                              ", the settings say " + configured);
  }
  if (report.taken_at - report.snapshot->built_at < kPublished) return;
  for (size_t i = 0; i < report.use.size(); ++i) {
    if (report.use[i] != SnapshotUse::kReplaced) continue;
    report.problems.push_back("worker " + std::to_string(report.daemon.processes[i].pid) +
                              " answers from an older snapshot: authctl reload");
  }
}

void judge_synchronisation(StatusReport& report) {
  if (!report.workdir || report.daemon.processes.empty()) return;
  const SyncReportLine& sync = report.sync;
  auto& told = report.from_servers ? report.problems : report.notes;
  if (sync.interval == 0) {
    report.notes.push_back("SyncInterval is missing or 0: the synchronisation runs about once a minute");
  }
  const double up = report.daemon.processes.front().uptime;
  const int64_t due = 2 * sync.interval + kLate;
  const int64_t age = sync.last ? report.taken_at - *sync.last : static_cast<int64_t>(up);
  if (age > due) {
    told.push_back("the last synchronisation is overdue: it ran " +
                   (sync.last ? duration_text(static_cast<double>(age)) + " ago" : std::string("never")));
  }
  if (!sync.script || sync.script->status == 0) return;
  // A run by hand may have mended it.
  const std::time_t last = sync.last.value_or(0);
  char text[32] = "";
  std::tm local{};
  if (localtime_r(&last, &local) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  if (sync.script->when <= text) return;
  const int status = sync.script->status;
  const std::string how = WIFEXITED(status) ? "status " + std::to_string(WEXITSTATUS(status))
                                            : "signal " + std::to_string(WTERMSIG(status));
  told.push_back("the synchronisation script ended with " + how + " at " + sync.script->when +
                 (sync.said.empty() ? "" : ": " + sync.said));
}

void judge_log(StatusReport& report) {
  struct stat status {};
  if (report.log.denied) {
    report.notes.push_back("not for this user: " + report.log.problem);
  } else if (stat(kLogFolder, &status) != 0) {
    report.problems.push_back(std::string("there is no folder ") + kLogFolder + ": nothing is logged");
  } else if (!report.log.problem.empty() && !report.daemon.processes.empty()) {
    report.notes.push_back("no log of today: " + report.log.problem);
  }
}

}  // namespace

void judge(StatusReport& report) {
  if (!report.port.answers) {
    report.problems.insert(report.problems.begin(),
                           "no answer from " + report.server + ": " + report.port.error);
  } else if (!report.port.error.empty()) {
    report.problems.push_back(report.port.error);
  }
  judge_processes(report);
  judge_snapshot(report);
  judge_synchronisation(report);
  judge_log(report);
  if (!report.workdir && !report.daemon.processes.empty()) {
    report.notes.push_back("the daemon's working directory is not known to this user: --workdir names it");
  }
  for (const ServerReport& server : report.servers) {
    if (server.works) continue;
    const bool named = server.error.starts_with(server.url);
    report.problems.push_back(server.domain + ": " + (named ? "" : server.url + ": ") + server.error);
  }
}

int StatusReport::exit_code() const {
  if (!port.answers) return kExitNoAnswer;
  return problems.empty() ? kExitSuccess : kExitOtherResult;
}

}  // namespace authctl
