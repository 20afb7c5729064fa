// Fills the directory snapshot of a working directory from its configured source. Run by LdapSyncTool.sh on
// the daemon's schedule, and by hand to try settings.
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "brellog/VrLog.h"
#include "libvelder/LdapSource.h"
#include "libvelder/LdifSource.h"
#include "libvelder/ServerPool.h"
#include "libvelder/Settings.h"
#include "tools/command_line.h"

namespace {

using velder::Error;
using velder::Settings;
using velder::Source;

constexpr int kDone = 0;
constexpr int kFailed = 1;

struct Options {
  std::string workdir = ".";
  bool check = false;
  bool force = false;
  bool verbose = false;
};

int fail(const Error& error) {
  fprintf(stderr, "ldap_sync: %s\n", velder::printable(error.text, SIZE_MAX).c_str());
  return kFailed;
}

// A line that is drawn over again while work goes on; nothing when standard error is no terminal. The number
// of entries is known only from the last time, so the bar is a guess and says so by the figures beside it.
class ProgressBar {
 public:
  explicit ProgressBar(int64_t expected) : expected_(expected), shown_(isatty(STDERR_FILENO) != 0) {}
  ~ProgressBar() {
    if (drawn_) fputs("\r\033[K", stderr);
  }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  void draw(const velder::SyncProgress& progress) {
    if (!shown_) return;
    drawn_ = true;
    const std::string what =
        progress.domain.empty() ? "writing the snapshot" : "reading " + std::string(progress.domain);
    fprintf(stderr, "\r\033[K%s %llu entries, %s", bar(progress.entries).c_str(),
            static_cast<unsigned long long>(progress.entries), what.c_str());
    fflush(stderr);
  }

 private:
  [[nodiscard]] std::string bar(uint64_t entries) const {
    constexpr size_t kWidth = 30;
    if (expected_ <= 0) return "";
    const size_t filled =
        std::min(kWidth, static_cast<size_t>(entries * kWidth / static_cast<uint64_t>(expected_)));
    return "[" + std::string(filled, '#') + std::string(kWidth - filled, '.') + "]";
  }

  int64_t expected_;
  bool shown_;
  bool drawn_ = false;
};

void print_summary(const velder::SnapshotMeta& meta, double seconds, const std::string& from) {
  printf("ldap_sync: %lld users, %lld groups, %lld memberships from %s in %.1f s",
         static_cast<long long>(meta.users), static_cast<long long>(meta.groups),
         static_cast<long long>(meta.memberships), from.c_str(), seconds);
  if (meta.skipped_users != 0) {
    printf("; %lld entries without a usable uid passed over", static_cast<long long>(meta.skipped_users));
  }
  printf("\n");
}

std::string domain_names(const Settings& settings) {
  std::string names;
  for (const velder::Domain& domain : settings.domains)
    names += (names.empty() ? "" : ", ") + domain.dns_name;
  return names;
}

int sync_servers(const Options& options, const Settings& settings) {
  const auto before = velder::present_ldap_snapshot(options.workdir);
  velder::SyncOptions sync;
  sync.force = options.force;
  sync.time_limit = std::chrono::minutes(settings.sync_time_limit);
  velder::Result<velder::SyncReport> report;
  {
    ProgressBar bar(before ? before->users + before->groups : 0);
    sync.progress = [&](const velder::SyncProgress& progress) { bar.draw(progress); };
    report = velder::sync_from_servers(options.workdir, settings, sync);
  }
  if (!report) return fail(report.error());
  print_summary(report->meta, report->seconds, domain_names(settings));
  return kDone;
}

int sync_ldif(const Options& options, const Settings& settings) {
  const auto update = velder::update_from_ldif(options.workdir, settings, std::nullopt);
  if (!update) return fail(update.error());
  const std::string from = settings.ldif_file + (update->rebuilt ? "" : " (unchanged)");
  print_summary(update->file->meta(), update->seconds, from);
  return kDone;
}

const char* yes_or_no(bool value) {
  return value ? "yes" : "no";
}

// One block per server: how far a first contact came, and why not further.
bool print_status(const velder::ServerStatus& status) {
  printf("  %s: %s (%lld ms)\n", status.url.c_str(), status.works() ? "works" : "FAILS",
         static_cast<long long>(status.took.count()));
  printf("    resolved %s, connected %s, TLS %s, bound %s, base found %s, users found %s, paging %s\n",
         yes_or_no(status.resolved), yes_or_no(status.connected),
         status.tls_wanted ? yes_or_no(status.tls) : "not wanted", yes_or_no(status.bound),
         yes_or_no(status.base_found), yes_or_no(status.users_found), yes_or_no(status.offers_paging));
  if (!status.works()) printf("    %s\n", velder::printable(status.error, 1000).c_str());
  return status.works();
}

int try_servers(const Settings& settings) {
  bool all_work = true;
  for (const velder::Domain& domain : settings.domains) {
    printf("[%s] %s (NetBIOS %s), base %s, %s\n", domain.section.c_str(), domain.dns_name.c_str(),
           domain.netbios_name.c_str(), domain.base_dn.c_str(),
           domain.bind_dn.empty() ? "read anonymously" : ("read as " + domain.bind_dn).c_str());
    const velder::ServerPool pool(domain, velder::ServerPool::Probes::kNone);
    for (const velder::ServerStatus& status : pool.probe_all()) all_work = print_status(status) && all_work;
  }
  return all_work ? kDone : kFailed;
}

int try_ldif(const Settings& settings) {
  const auto counts = velder::check_ldif(settings);
  if (!counts) return fail(counts.error());
  printf("%s: %zu users, %zu groups, no errors\n", settings.ldif_file.c_str(), counts->users, counts->groups);
  return kDone;
}

// Run by root it works as the owner of the folder: what root wrote there, nobody else could read, and the
// daemon's account would be locked out.
bool become_owner(const std::string& workdir) {
  struct stat status {};
  if (geteuid() != 0 || stat(workdir.c_str(), &status) != 0 || status.st_uid == 0) return true;
  const passwd* owner = getpwuid(status.st_uid);
  const bool groups_set =
      owner != nullptr ? initgroups(owner->pw_name, status.st_gid) == 0 : setgroups(0, nullptr) == 0;
  return groups_set && setgid(status.st_gid) == 0 && setuid(status.st_uid) == 0;
}

int run(const Options& options) {
  if (!become_owner(options.workdir)) return fail({kFailed, options.workdir + ": cannot work as its owner"});
  if (options.verbose) {
    VrLog::setConfig(nullptr, nullptr);
    VrLog::setLogVerbose(true);
  }
  const auto settings = velder::load_settings(options.workdir);
  if (!settings) return fail(settings.error());
  for (const std::string& warning : settings->warnings)
    fprintf(stderr, "ldap_sync: %s\n", velder::printable(warning, SIZE_MAX).c_str());
  const bool from_servers = settings->source == Source::kLdap;
  if (options.check) return from_servers ? try_servers(*settings) : try_ldif(*settings);
  return from_servers ? sync_servers(options, *settings) : sync_ldif(options, *settings);
}

}  // namespace

int main(int argc, char** argv) {
  command_line::fill_standard_descriptors();
  Options options;
  CLI::App app{
      "Reads the directory from its source (servers or an LDIF file) into the snapshot that the daemon "
      "answers\n"
      "from. A failed or killed run leaves the snapshot in use as it is.",
      "ldap_sync"};
  app.set_version_flag("--version", "ldap_sync " AUTHCTL_VERSION);
  app.add_option("--workdir", options.workdir, "The daemon's working directory, with LdapSetting.ini")
      ->default_val(options.workdir)
      ->type_name("DIR")
      // A variable of a script that is not set, most likely: the file system's root is not meant.
      ->check([](const std::string& text) { return text.empty() ? "the folder is empty" : std::string(); });
  app.add_flag(
      "--check", options.check,
      "Try the settings, say per server what works or count the LDIF file's entries; change nothing");
  app.add_flag("--force", options.force, "Publish even a directory that came back empty or much smaller");
  app.add_flag("--verbose", options.verbose, "Print what the library logs");
  app.footer(
      "Exit status: 0 done, or everything tried works; 1 failed or refused, the old snapshot stays; 2 wrong "
      "arguments.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return command_line::finish(app, error, kFailed);
  }
  try {
    const int status = run(options);
    // A synchronisation has done its work all the same, and the workers are to hear of it.
    return command_line::was_printed(app) || !options.check ? status : kFailed;
  } catch (const std::exception& error) {
    fprintf(stderr, "ldap_sync: given up: %s\n", error.what());
    return kFailed;
  }
}
