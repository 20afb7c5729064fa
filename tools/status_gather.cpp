// Gathering: one function for each part of the report.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <system_error>
#include <thread>

#include "client/Connection.h"
#include "daemonbase/BRELConfigFile.h"
#include "handler/Velder.pb.h"
#include "libtorrin/Recovery.h"
#include "libtorrin/Settings.h"
#include "libtorrin/StoreFile.h"
#include "libvelder/ServerPool.h"
#include "libvelder/Snapshot.h"
#include "tools/status_report.h"

namespace authctl {
namespace {

using Clock = std::chrono::steady_clock;

// An address that no client has: the question goes through port, worker and store, and changes nothing.
constexpr char kNobodysAddress[] = "0.0.0.0";
// Somebody waits at a terminal; the daemon itself may be more patient with its servers.
constexpr uint32_t kConnectSeconds = 2;
constexpr uint32_t kOperationSeconds = 3;
// Each look at a server is a bind there.
constexpr std::chrono::seconds kServerPause{30};
constexpr int kStoreAttempts = 5;  // the file is written to while it is read
constexpr int64_t kDefaultInterval = 1440;
constexpr size_t kTail = 16384;
constexpr std::string_view kNoDay = "99999999";

Obstacle obstacle(const std::string& path, std::string text) {
  // The right to search the folders counts, too. A root whom a file refuses meets no rights but a fault.
  const bool denied = geteuid() != 0 && access(path.c_str(), R_OK) != 0 && errno == EACCES;
  return {std::move(text), denied};
}

PortReport ask_port(const StatusOptions& options) {
  PortReport report;
  velder_client::Options limits;
  limits.connect_timeout = limits.call_timeout = options.timeout;
  auto connection = velder_client::Connection::open(options.server, limits);
  if (!connection) {
    report.error = connection.error().text;
    return report;
  }
  Velder::IPUserQueryRequest request;
  request.set_ip(kNobodysAddress);
  Velder::IPUserQueryResponse answer;
  const Clock::time_point begin = Clock::now();
  const auto called = connection->call(Velder::IP_USER_QUERY_REQUEST, request, answer);
  report.milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
  report.answers = called.has_value();
  if (!called) report.error = called.error().text;
  if (called && answer.result() == -2) report.error = "the store of the bindings fails";
  return report;
}

void read_bindings(const std::string& workdir, StatusReport& report) {
  const std::string folder = workdir + "/" + torrin::examine_settings(workdir).settings.directory;
  const std::string path = folder + "/" + torrin::kLiveFile;
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) {
    report.no_bindings = obstacle(path, path + ": " + std::generic_category().message(errno));
    return;
  }
  auto header = torrin::read_file_header(fd.get());
  for (int i = 1; i < kStoreAttempts && !header; ++i) header = torrin::read_file_header(fd.get());
  if (!header) {
    report.no_bindings = Obstacle{path + " is damaged: " + header.error(), false};
    return;
  }
  BindingsReport bindings;
  bindings.bindings = header->bindings.entries;
  bindings.bytes = static_cast<uint64_t>(status.st_blocks) * 512;
  if (stat((folder + "/" + torrin::kCompactFile).c_str(), &status) == 0) {
    bindings.copied_at = status.st_mtim.tv_sec;
  }
  report.bindings = bindings;
}

// Settings are read as the daemon reads them: 0 when the file lacks the key.
int64_t sync_interval(const std::string& workdir) {
  struct stat status {};
  const std::string path = workdir + "/LdapSetting.ini";
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return kDefaultInterval * 60;
  const ConfigFile settings(path);
  return settings.ok() ? int64_t{settings.getdigitparam("LDAP_Setting", "SyncInterval")} * 60
                       : kDefaultInterval * 60;
}

std::string last_line_of(const std::string& path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  std::string text(kTail, '\0');
  const off_t from = std::max<off_t>(0, status.st_size - static_cast<off_t>(kTail));
  const ssize_t size = pread(fd.get(), text.data(), text.size(), from);
  text.resize(size > 0 ? static_cast<size_t>(size) : 0);
  while (text.ends_with('\n')) text.pop_back();
  return text.substr(text.rfind('\n') + 1);  // of no line end: from the beginning
}

void read_synchronisation(const std::string& workdir, StatusReport& report) {
  const std::string record = workdir + "/.LastSyncTime.ini";
  struct stat status {};
  if (stat(record.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
    const ConfigFile file(record);
    const uint32_t last = file.getdigitparam("LdapSync", "LastSyncTime");
    if (last != 0) report.sync.last = last;
  }
  report.sync.interval = sync_interval(workdir);
  report.sync.script = report.log.script;
  if (!report.sync.script) return;
  const std::string day = newest_day(workdir + "/log", "LdapSync.log", kNoDay);
  if (!day.empty()) report.sync.said = last_line_of(workdir + "/log/LdapSync.log." + day + ".0001");
}

// One server as the only one of its domain, so that all can be asked at once.
ServerReport ask_server(velder::Domain domain, const std::string& url, bool* refused) {
  domain.servers = {url};
  domain.connect_timeout = std::min(domain.connect_timeout, kConnectSeconds);
  domain.operation_timeout = std::min(domain.operation_timeout, kOperationSeconds);
  const velder::ServerPool pool(domain, velder::ServerPool::Probes::kNone);
  ServerReport report{domain.dns_name, url, false, 0, "not asked"};
  for (const velder::ServerStatus& status : pool.probe_all()) {
    report.works = status.works();
    report.milliseconds = status.took.count();
    report.error = status.error;
    *refused = status.account_refused;
  }
  return report;
}

}  // namespace

struct StatusGatherer::Memory {
  LogWatcher log;
  std::optional<velder::FileIdentity> verified;
  std::optional<Process> program_of;
  std::optional<RunningProgram> program;
  // What the servers said; a server that refused the reading account is left alone, so that a watch with a
  // wrong password does not lock the account.
  std::vector<ServerReport> servers;
  std::vector<bool> refused;
  std::vector<velder::Domain> domains;
  Clock::time_point asked{};
  std::time_t asked_at = 0;

  void read_snapshot(const std::string& workdir, StatusReport& report);
  void read_program(StatusReport& report);
  void ask_servers(const std::vector<velder::Domain>& now, StatusReport& report);
};

void StatusGatherer::Memory::read_snapshot(const std::string& workdir, StatusReport& report) {
  const std::string path = velder::path_in(workdir, velder::kSnapshotName);
  const auto file = velder::SnapshotFile::open(path, verified);
  if (!file) {
    verified.reset();
    report.no_snapshot = obstacle(path, file.error().text);
    return;
  }
  verified = (*file)->identity();
  const velder::SnapshotMeta& meta = (*file)->meta();
  report.snapshot =
      SnapshotReport{meta.source, meta.built_at, meta.users, meta.groups, meta.memberships, (*file)->size()};
  for (const Process& process : report.daemon.processes) {
    report.use.push_back(process.role == Role::kWorker ? snapshot_use(process.pid, path)
                                                       : SnapshotUse::kUnknown);
  }
}

void StatusGatherer::Memory::read_program(StatusReport& report) {
  if (report.daemon.processes.empty()) return;
  const Process& process = report.daemon.processes.front();
  if (!program_of || !(*program_of == process) || !program) {
    program_of = process;
    program = running_program(process.pid);
  } else if (const auto now = running_program(process.pid)) {
    program->replaced = now->replaced;
  }
  report.program = program;
}

void StatusGatherer::Memory::ask_servers(const std::vector<velder::Domain>& now, StatusReport& report) {
  const bool changed = now != domains;
  if (changed || Clock::now() - asked >= kServerPause) {
    size_t count = 0;
    for (const velder::Domain& domain : now) count += domain.servers.size();
    if (changed) {
      servers.assign(count, {});
      refused.assign(count, false);
      domains = now;
    }
    // Not vector<bool>: threads write to neighbours.
    std::vector<char> refusals(refused.begin(), refused.end());
    std::vector<std::thread> threads;
    size_t i = 0;
    for (const velder::Domain& domain : now) {
      for (const std::string& url : domain.servers) {
        const size_t slot = i++;
        if (refusals[slot] != 0) continue;
        threads.emplace_back([this, &refusals, &domain, &url, slot] {
          bool was_refused = false;
          servers[slot] = ask_server(domain, url, &was_refused);
          refusals[slot] = was_refused ? 1 : 0;
        });
      }
    }
    for (std::thread& thread : threads) thread.join();
    refused.assign(refusals.begin(), refusals.end());
    asked = Clock::now();
    asked_at = std::time(nullptr);
  }
  report.servers = servers;
  report.servers_asked_at = asked_at;
}

StatusGatherer::StatusGatherer(StatusOptions options)
    : options_(std::move(options)), memory_(std::make_unique<Memory>()) {}
StatusGatherer::~StatusGatherer() = default;

StatusReport StatusGatherer::look() {
  StatusReport report;
  report.taken_at = std::time(nullptr);
  report.server = options_.server;
  std::thread port([this, &report] { report.port = ask_port(options_); });
  report.daemon = find_daemon();
  report.log = memory_->log.look();
  memory_->read_program(report);
  report.workdir = options_.workdir ? options_.workdir : report.daemon.workdir;
  if (report.workdir) {
    memory_->read_snapshot(*report.workdir, report);
    read_bindings(*report.workdir, report);
    read_synchronisation(*report.workdir, report);
    const velder::SettingsReport settings = velder::examine_settings(*report.workdir);
    const auto wrong = std::count_if(settings.problems.begin(), settings.problems.end(),
                                     [](const auto& p) { return p.fatal; });
    report.from_servers = settings.settings.source == velder::Source::kLdap;
    if (wrong > 0 && obstacle(settings.file, "").denied) {
      report.notes.push_back(settings.file + " cannot be read by this user");
    } else if (wrong > 0) {
      report.problems.push_back(settings.file +
                                " has errors, the daemon would not start with it: see authctl check-config");
    } else if (report.from_servers && options_.ask_servers) {
      memory_->ask_servers(settings.settings.domains, report);
    }
    struct stat ldif {};
    if (!report.from_servers && report.snapshot && stat(settings.settings.ldif_file.c_str(), &ldif) == 0 &&
        ldif.st_mtim.tv_sec > report.snapshot->built_at) {
      report.notes.push_back(settings.settings.ldif_file +
                             " is younger than the snapshot: authctl reload makes the workers read it");
    }
  }
  port.join();
  judge(report);
  return report;
}

}  // namespace authctl
