#include "daemon/LdapSync.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "brellog/VrLog.h"
#include "daemon/AuthDaemon.h"
#include "daemon/WorkerProcess.h"
#include "daemonbase/BRELConfigFile.h"

namespace {

constexpr unsigned int kDelaySeconds = 60;
constexpr uint32_t kSecondsPerMinute = 60;
constexpr mode_t kScriptUmask = 027;  // with the daemon's, 0, anybody could write into the log of its output

uint32_t last_sync_time = 0;  // seconds since the epoch

// The script records when it last ran: a run that somebody else started counts, one in the future does not.
void take_recorded_time(uint32_t now) {
  const ConfigFile record((std::string(g_workdir) + "/.LastSyncTime.ini").c_str());
  if (!record.ok()) return;
  const uint32_t recorded = record.getdigitparam("LdapSync", "LastSyncTime");
  if (recorded != 0 && now > recorded && last_sync_time < recorded) last_sync_time = recorded;
}

// The account may not look at a process that was root before, so the script could not find out.
void tell_program_folder() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error) setenv("AUTH_DAEMON_DIR", program.parent_path().c_str(), 1);
}

[[noreturn]] void run_script(time_t now) {
  close(g_listen_socket);  // a script that outlives the daemon must not keep the port
  umask(kScriptUmask);
  tell_program_folder();
  restore_default_signals();
  for (unsigned int left = kDelaySeconds; left > 0;) left = sleep(left);
  const std::string command = sync_command(g_workdir, g_verbose_log, sync_log_date(now));
  const int result = system(command.c_str());
  VRLOG(kLogInfo, "Info: execute command: %s, return %d", command.c_str(), result);
  _exit(0);
}

}  // namespace

std::string sync_log_date(time_t now) {
  tm date{};
  if (localtime_r(&now, &date) == nullptr) return "";
  char text[64] = {};
  snprintf(text, sizeof(text), "%d%02d%02d.0001", date.tm_year + 1900, date.tm_mon + 1, date.tm_mday);
  return text;
}

std::string sync_command(const std::string& workdir, bool verbose, const std::string& date) {
  return workdir + (verbose ? "/LdapSyncTool.sh verbose 2>&1 >>" : "/LdapSyncTool.sh 2>&1 >>") + workdir +
         "/log/LdapSync.log." + date;
}

void sync_ldap_server() {
  const time_t time_now = time(nullptr);
  const auto now = static_cast<uint32_t>(time_now);
  const uint32_t interval = ldap_sync_interval * kSecondsPerMinute;
  take_recorded_time(now);
  if (now < last_sync_time + interval) {
    VRLOG(kLogDebug, "Skip sync, last time %d, interval %d", static_cast<int>(last_sync_time),
          static_cast<int>(interval));
    return;
  }
  last_sync_time = now;  // before the fork: one that fails is not tried again until the next interval
  VRLOG(kLogDebug, "Info: it's time to sync with ldap server....");
  const pid_t pid = fork();
  if (pid == 0) run_script(time_now);
  if (pid < 1) {
    VRLOG(kLogInfo, "Error: fail to fork ldap sync process");
  } else {
    VRLOG(kLogInfo, "Info: fork process [%d] to sync ldap", pid);
  }
}
