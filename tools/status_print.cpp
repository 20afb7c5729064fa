// A report as text for people and as JSON for programs.
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <ostream>

#include "tools/authctl_format.h"
#include "tools/status_json.h"
#include "tools/status_report.h"

namespace authctl {
namespace {

std::string moment(const StatusReport& report, int64_t then) {
  std::tm local{};
  char text[32] = "?";
  const std::time_t time = then;
  if (localtime_r(&time, &local) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return std::string(text) + " (" + duration_text(static_cast<double>(report.taken_at - then)) + " ago)";
}

std::string state_text(const Process& process) {
  switch (process.stat.state) {
    case 'R': return "running";
    case 'S': return "waiting";
    case 'D': return "waiting for the disk";
    case 'T':
    case 't': return "stopped";
    default: return std::string(1, process.stat.state);
  }
}

const char* role_text(Role role) {
  switch (role) {
    case Role::kParent: return "parent";
    case Role::kWorker: return "worker";
    case Role::kSynchronisation: break;
  }
  return "synchronisation";
}

const char* use_text(SnapshotUse use) {
  switch (use) {
    case SnapshotUse::kNone: return "none yet";
    case SnapshotUse::kCurrent: return "current";
    case SnapshotUse::kReplaced: return "older";
    case SnapshotUse::kUnknown: break;
  }
  return "-";
}

std::string daemon_text(const StatusReport& report) {
  const DaemonProcesses& daemon = report.daemon;
  if (daemon.processes.empty()) return "not running";
  std::string text = daemon.parent_alive ? "running, pid " + std::to_string(daemon.pid)
                                         : "parent " + std::to_string(daemon.pid) + " has ended";
  text += ", " + std::to_string(daemon.workers().size());
  if (daemon.parameters) text += " of " + std::to_string(daemon.parameters->processes);
  const Process& first = daemon.processes.front();
  return text + " workers, up " + duration_text(first.uptime) + ", account " +
         account_name(first.status.user);
}

std::string program_text(const StatusReport& report) {
  std::string text = std::string("authctl ") + AUTHCTL_VERSION;
  if (!report.program) return text;
  const std::string& version = report.program->version;
  return "AuthDaemon " + (version.empty() ? "of an unknown version" : version) + " (" + report.program->path +
         "), " + text;
}

std::string port_text(const StatusReport& report) {
  if (!report.port.answers) return report.server + " does not answer";
  char text[32];
  std::snprintf(text, sizeof text, "%.1f ms", report.port.milliseconds);
  return report.server + " answers in " + text;
}

std::string snapshot_text(const StatusReport& report) {
  if (!report.snapshot) return report.no_snapshot ? report.no_snapshot->text : "not looked at";
  const SnapshotReport& snapshot = *report.snapshot;
  return "source " + snapshot.source + ", built " + moment(report, snapshot.built_at) + ", " +
         std::to_string(snapshot.users) + " users, " + std::to_string(snapshot.groups) + " groups, " +
         std::to_string(snapshot.memberships) + " memberships, " + size_text(snapshot.bytes);
}

std::string bindings_text(const StatusReport& report) {
  if (!report.bindings) return report.no_bindings ? report.no_bindings->text : "not looked at";
  const BindingsReport& bindings = *report.bindings;
  std::string text = std::to_string(bindings.bindings) + ", " + size_text(bindings.bytes) + " on the disk, ";
  if (!bindings.copied_at) return text + "no compact copy yet";
  return text + "compact copy of " + moment(report, *bindings.copied_at);
}

std::string sync_text(const StatusReport& report) {
  std::string text = "last " + (report.sync.last ? moment(report, *report.sync.last) : "never");
  if (report.sync.interval != 0) {
    text += ", every " + duration_text(static_cast<double>(report.sync.interval));
  }
  if (!report.sync.script) return text;
  const int status = report.sync.script->status;
  return text + "; scheduled run ended " + report.sync.script->when +
         (status == 0 ? " well"
                      : " with status " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1));
}

std::string log_text(const StatusReport& report) {
  if (!report.log.problem.empty()) return report.log.problem;
  return report.log.file + ", " + std::to_string(report.log.errors) + " errors today" +
         (report.log.passed_over ? " (only its end was read)" : "") +
         (report.log.errors == 0
              ? ""
              : ", the last at " + report.log.last_error_clock.substr(0, 8) + ": " + report.log.last_error);
}

void print_processes(std::ostream& out, const StatusReport& report) {
  if (report.daemon.processes.empty()) return;
  out << '\n';
  Table table({"PROCESS", "PID", "STATE", "THREADS", "UP", "MEMORY", "DESCRIPTORS", "SNAPSHOT"});
  for (size_t i = 0; i < report.daemon.processes.size(); ++i) {
    const Process& process = report.daemon.processes[i];
    const SnapshotUse use = i < report.use.size() ? report.use[i] : SnapshotUse::kUnknown;
    const std::string descriptors =
        process.descriptors
            ? std::to_string(*process.descriptors) +
                  (process.descriptor_limit ? " of " + std::to_string(*process.descriptor_limit) : "")
            : "-";
    table.add_row({role_text(process.role), std::to_string(process.pid), state_text(process),
                   std::to_string(process.status.threads), duration_text(process.uptime),
                   size_text(process.status.memory_kb * 1024), descriptors, use_text(use)});
  }
  table.print(out);
}

// Of workers that run; figures of earlier ones say nothing.
std::vector<std::pair<pid_t, CacheFigures>> cache_figures(const StatusReport& report) {
  std::vector<std::pair<pid_t, CacheFigures>> figures;
  for (const Process& worker : report.daemon.workers()) {
    const auto found = report.log.cache.find(worker.pid);
    if (found != report.log.cache.end()) figures.emplace_back(worker.pid, found->second);
  }
  return figures;
}

void print_cache(std::ostream& out, const StatusReport& report) {
  const auto figures = cache_figures(report);
  if (figures.empty()) return;
  out << '\n';
  Table table({"REPLY CACHE OF", "AS OF", "ENTRIES", "SIZE", "QUERIES", "HITS"});
  for (const auto& [pid, one] : figures) {
    const int64_t percent = one.queries > 0 ? one.hits * 100 / one.queries : 0;
    table.add_row({std::to_string(pid), one.when, std::to_string(one.count),
                   size_text(static_cast<uint64_t>(std::max<int64_t>(0, one.size))),
                   std::to_string(one.queries),
                   std::to_string(one.hits) + " (" + std::to_string(percent) + " %)"});
  }
  table.print(out);
}

void print_servers(std::ostream& out, const StatusReport& report) {
  if (report.servers.empty()) return;
  out << '\n';
  Table table({"DOMAIN", "SERVER", "STATE", "TIME"});
  for (const ServerReport& server : report.servers) {
    table.add_row({server.domain, server.url, server.works ? "works" : "FAILS",
                   std::to_string(server.milliseconds) + " ms"});
  }
  table.print(out);
}

void json_processes(JsonWriter& json, const StatusReport& report) {
  json.begin('[', "processes");
  for (size_t i = 0; i < report.daemon.processes.size(); ++i) {
    const Process& process = report.daemon.processes[i];
    json.begin('{').number("pid", process.pid).text("role", role_text(process.role));
    json.text("state", state_text(process)).number("threads", process.status.threads);
    json.decimal("uptime_seconds", process.uptime);
    json.number("memory_kb", static_cast<int64_t>(process.status.memory_kb));
    if (process.descriptors) {
      json.number("descriptors", static_cast<int64_t>(*process.descriptors));
    } else {
      json.null("descriptors");
    }
    json.text("snapshot", use_text(i < report.use.size() ? report.use[i] : SnapshotUse::kUnknown)).end('}');
  }
  json.end(']');
}

void json_daemon(JsonWriter& json, const StatusReport& report) {
  const DaemonProcesses& daemon = report.daemon;
  json.begin('{', "daemon").boolean("running", daemon.parent_alive).number("pid", daemon.pid);
  json.text("authctl_version", AUTHCTL_VERSION);
  json.text("version", report.program ? report.program->version : "");
  json.boolean("program_replaced", report.program && report.program->replaced);
  json.number("workers", static_cast<int64_t>(daemon.workers().size()));
  if (daemon.parameters) {
    json.number("workers_expected", daemon.parameters->processes);
    json.number("threads_expected", daemon.parameters->threads);
    json.boolean("reply_cache", daemon.parameters->reply_cache);
  }
  if (!daemon.processes.empty()) {
    json.decimal("uptime_seconds", daemon.processes.front().uptime);
    json.text("account", account_name(daemon.processes.front().status.user));
  }
  if (report.workdir) json.text("workdir", *report.workdir);
  json_processes(json, report);
  json.end('}');
  json.begin('{', "port").text("server", report.server).boolean("answers", report.port.answers);
  json.decimal("milliseconds", report.port.milliseconds).text("error", report.port.error).end('}');
}

void json_data(JsonWriter& json, const StatusReport& report) {
  if (report.snapshot) {
    const SnapshotReport& snapshot = *report.snapshot;
    json.begin('{', "snapshot").text("source", snapshot.source).number("built_at", snapshot.built_at);
    json.number("users", snapshot.users).number("groups", snapshot.groups);
    json.number("memberships", snapshot.memberships);
    json.number("bytes", static_cast<int64_t>(snapshot.bytes)).end('}');
  } else {
    json.null("snapshot");
  }
  if (report.bindings) {
    json.begin('{', "bindings").number("count", static_cast<int64_t>(report.bindings->bindings));
    json.number("bytes", static_cast<int64_t>(report.bindings->bytes));
    if (report.bindings->copied_at) json.number("copied_at", *report.bindings->copied_at);
    json.end('}');
  } else {
    json.null("bindings");
  }
  json.begin('{', "synchronisation").number("interval_seconds", report.sync.interval);
  if (report.sync.last) json.number("last", *report.sync.last);
  if (report.sync.script) {
    json.text("script_ended", report.sync.script->when).number("script_status", report.sync.script->status);
    json.text("script_said", report.sync.said);
  }
  json.end('}');
}

void json_lists(JsonWriter& json, const StatusReport& report) {
  json.begin('[', "reply_cache");
  for (const auto& [pid, one] : cache_figures(report)) {
    json.begin('{').number("pid", pid).text("when", one.when).number("size", one.size);
    json.number("count", one.count).number("queries", one.queries).number("hits", one.hits).end('}');
  }
  json.end(']').begin('[', "servers");
  for (const ServerReport& server : report.servers) {
    json.begin('{').text("domain", server.domain).text("url", server.url).boolean("works", server.works);
    json.number("milliseconds", server.milliseconds).text("error", server.error).end('}');
  }
  json.end(']').begin('{', "log").text("file", report.log.file);
  json.boolean("readable", report.log.problem.empty());
  json.number("errors_today", static_cast<int64_t>(report.log.errors));
  if (report.log.errors > 0) {
    json.text("last_error_at", report.log.last_error_clock).text("last_error", report.log.last_error);
  }
  json.end('}');
  const std::pair<const char*, const std::vector<std::string>*> kLists[] = {{"problems", &report.problems},
                                                                            {"notes", &report.notes}};
  for (const auto& [name, lines] : kLists) {
    json.begin('[', name);
    for (const std::string& line : *lines) json.text("", line);
    json.end(']');
  }
}

}  // namespace

std::string duration_text(double seconds) {
  struct Unit {
    const char* name;
    int64_t seconds;
  };
  constexpr std::array<Unit, 4> kUnits = {{{"d", 86400}, {"h", 3600}, {"min", 60}, {"s", 1}}};
  const auto whole = static_cast<int64_t>(seconds);
  if (whole <= 0) return "0 s";
  for (size_t i = 0; i < kUnits.size(); ++i) {
    if (whole < kUnits[i].seconds) continue;
    std::string text = std::to_string(whole / kUnits[i].seconds) + " " + kUnits[i].name;
    if (i + 1 == kUnits.size()) return text;
    const int64_t rest = whole % kUnits[i].seconds / kUnits[i + 1].seconds;
    return rest == 0 ? text : text + " " + std::to_string(rest) + " " + kUnits[i + 1].name;
  }
  return {};
}

std::string size_text(uint64_t bytes) {
  constexpr std::array<const char*, 4> kUnits = {"KiB", "MiB", "GiB", "TiB"};
  auto value = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit) value /= 1024;
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

void print_status(std::ostream& out, const StatusReport& report) {
  print_field(out, "daemon", daemon_text(report));
  print_field(out, "program", program_text(report));
  print_field(out, "port", port_text(report));
  if (report.workdir) {
    print_field(out, "workdir", *report.workdir);
    print_field(out, "snapshot", snapshot_text(report));
    print_field(out, "bindings", bindings_text(report));
    print_field(out, "sync", sync_text(report));
  }
  print_field(out, "log", log_text(report));
  print_processes(out, report);
  print_cache(out, report);
  print_servers(out, report);
  if (!report.problems.empty() || !report.notes.empty()) out << '\n';
  for (const std::string& problem : report.problems) out << "PROBLEM: " << printable(problem) << '\n';
  for (const std::string& note : report.notes) out << "note: " << printable(note) << '\n';
}

std::string status_json(const StatusReport& report) {
  JsonWriter json;
  json.begin('{').number("status", report.exit_code()).number("taken_at", report.taken_at);
  json_daemon(json, report);
  json_data(json, report);
  json_lists(json, report);
  return json.end('}').str();
}

}  // namespace authctl
